// The library's table of verification reasons against the installed manual:
// a reason added to the library fails here until the manual lists it, with
// the same words and exit status.
#include <string>

#include <gtest/gtest.h>

#include <sealkeep/verification_report.hpp>

#include "support/files.hpp"

namespace sealkeep::test {
namespace {

// The text as the manual's source writes it: hyphens as "\-".
std::string roff(std::string const& text)
{
    std::string result;
    for (char c : text)
        result += c == '-' ? std::string("\\-") : std::string(1, c);
    return result;
}

TEST(CliVerificationReasons, TheManualListsEveryReasonWithItsWordsAndStatus)
{
    ASSERT_TRUE(fileExists(SEALKEEP_TEST_MANPAGE)) << SEALKEEP_TEST_MANPAGE;
    std::string manual = readText(SEALKEEP_TEST_MANPAGE);
    std::size_t section = manual.find(".SH \"EXIT STATUS\"");
    ASSERT_NE(section, std::string::npos);
    auto reasons = PackageSignatures::verificationReasons();
    ASSERT_GE(reasons.size(), 15u);
    for (auto reason : reasons) {
        std::string entry = ".TP\n" + roff(PackageSignatures::reasonName(reason)) + "\n" +
                            roff(PackageSignatures::reasonText(reason)) + " [" +
                            std::to_string(PackageSignatures::reasonExitStatus(reason)) + "]\n";
        EXPECT_NE(manual.find(entry, section), std::string::npos)
            << "the manual's EXIT STATUS has no entry\n" << entry;
    }
}

}  // namespace
}  // namespace sealkeep::test
