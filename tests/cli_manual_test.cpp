// The installed manual page: it exists where man looks for it and describes
// every subcommand the installed command offers, as its --help lists them.
#include <sstream>
#include <string>
#include <vector>

#include <gtest/gtest.h>

#include "support/files.hpp"
#include "support/sealkeep_command.hpp"
#include "support/temp_dir.hpp"

namespace sealkeep::test {
namespace {

// The names under "Subcommands:" in the --help of `sealkeep words...`.
std::vector<std::string> subcommandsOf(std::vector<std::string> words)
{
    TempDir dir;
    words.push_back("--help");
    std::istringstream help(runSealkeep(dir.path(), words).output);
    std::vector<std::string> names;
    bool listing = false;
    for (std::string line; std::getline(help, line);) {
        if (line == "Subcommands:")
            listing = true;
        else if (line.empty())
            listing = false;
        else if (listing)
            names.push_back(line.substr(2, line.find(' ', 2) - 2));
    }
    return names;
}

// Every subcommand that takes no further subcommand, as words ("db list").
std::vector<std::string> leafSubcommands(std::vector<std::string> const& above = {})
{
    std::vector<std::string> leaves;
    for (auto const& name : subcommandsOf(above)) {
        std::vector<std::string> words = above;
        words.push_back(name);
        auto below = leafSubcommands(words);
        if (below.empty()) {
            std::string path;
            for (auto const& word : words)
                path += (path.empty() ? "" : " ") + word;
            leaves.push_back(path);
        } else {
            leaves.insert(leaves.end(), below.begin(), below.end());
        }
    }
    return leaves;
}

// The manual's text with the font changes removed and "\-" read as "-".
std::string plainText(std::string roff)
{
    std::string text;
    for (std::size_t i = 0; i < roff.size(); ++i) {
        if (roff.compare(i, 2, "\\f") == 0 && i + 2 < roff.size()) {
            i += 2;
        } else if (roff.compare(i, 2, "\\-") == 0) {
            text += '-';
            ++i;
        } else {
            text += roff[i];
        }
    }
    return text;
}

TEST(CliManual, TheInstalledPageDescribesEverySubcommand)
{
    ASSERT_TRUE(fileExists(SEALKEEP_TEST_MANPAGE)) << SEALKEEP_TEST_MANPAGE;
    std::string manual = "\n" + plainText(readText(SEALKEEP_TEST_MANPAGE));
    auto leaves = leafSubcommands();
    ASSERT_GE(leaves.size(), 20u);
    for (auto const& path : leaves) {
        // Each has an entry of its own, whose first line begins with its words.
        bool described = manual.find("\n" + path + " ") != std::string::npos ||
                         manual.find("\n" + path + "\n") != std::string::npos;
        EXPECT_TRUE(described) << "the manual has no entry for \"" << path << "\"";
    }
}

// The text of the section titled heading (up to the next .SH), plain.
std::string section(std::string const& heading)
{
    std::string manual = readText(SEALKEEP_TEST_MANPAGE);
    std::string title = heading.find(' ') == std::string::npos ? heading : "\"" + heading + "\"";
    auto at = manual.find("\n.SH " + title + "\n");
    if (at == std::string::npos)
        return "";
    auto end = manual.find("\n.SH ", at + 1);
    return plainText(manual.substr(at, end == std::string::npos ? std::string::npos : end - at));
}

TEST(CliManual, TheEnvironmentNamesEveryVariableTheCommandReads)
{
    std::string environment = section("ENVIRONMENT");
    for (char const* variable : {"SEALKEEP_ROOTFS", "OPENSSL_ENGINES", "env:VAR"})
        EXPECT_NE(environment.find(variable), std::string::npos) << variable << " in\n" << environment;
}

TEST(CliManual, FilesNameTheConfigurationTheSchemaAndTheCompletions)
{
    std::string files = section("FILES");
    for (char const* file : {"/etc/sealkeep/sealkeep.conf", "share/sealkeep/sealkeep.schema.json",
                             "share/bash-completion/completions/sealkeep", "share/zsh/site-functions/_sealkeep"})
        EXPECT_NE(files.find(file), std::string::npos) << file << " in\n" << files;
}

TEST(CliManual, EverySubcommandHasAnExample)
{
    std::string examples = section("EXAMPLES") + "\n";
    for (auto const& path : leafSubcommands()) {
        bool shown = examples.find("\nsealkeep " + path + " ") != std::string::npos ||
                     examples.find("\nsealkeep " + path + "\n") != std::string::npos;
        EXPECT_TRUE(shown) << "no example of \"" << path << "\"";
    }
}

TEST(CliManual, SeeAlsoAndTheRpmNoteArePresent)
{
    EXPECT_NE(section("SEE ALSO").find("rpm"), std::string::npos);
    EXPECT_NE(section("NOTES").find("rpm -i --nodigest"), std::string::npos) << section("NOTES");
    EXPECT_NE(section("EXIT STATUS"), "");
}

}  // namespace
}  // namespace sealkeep::test
