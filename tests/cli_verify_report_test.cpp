// sealkeep verify on tampered packages: which block was refused and by which
// check, on standard error, in --json and in the exit status.
#include <string>

#include <gtest/gtest.h>
#include <nlohmann/json.hpp>

#include "support/blocks.hpp"
#include "support/cli_test.hpp"
#include "support/signing.hpp"

namespace sealkeep::test {
namespace {

using nlohmann::json;

class CliVerifyReport : public CliTest {
protected:
    CommandResult verify(std::vector<std::string> packages, bool asJson = false) const
    {
        std::vector<std::string> args = {"verify"};
        args.insert(args.end(), packages.begin(), packages.end());
        args.insert(args.end(), {"--ca", pki->ca().certPath});
        if (asJson)
            args.push_back("--json");
        return run(args);
    }

    // A version-2 block by who over the whole file as it is now: a way to
    // make stacks that sign refuses to make.
    static void appendSignatureOfWholeFile(std::string const& path, Identity const& who)
    {
        appendFile(path, makeBlock(signRange(readFile(path), who), 2));
    }

    static std::string packageBytes() { return std::to_string(fileSize(rpmTemplate)); }
};

TEST_F(CliVerifyReport, ASignatureByAnotherCaNamesTheCertificateChain)
{
    Pki otherPki("another CA");
    std::string package = freshPackage();
    ASSERT_EQ(signAs(otherPki.developer(), package).exitCode, 0);
    auto result = verify({package});
    EXPECT_EQ(result.exitCode, 1);
    EXPECT_EQ(result.output, package + ": refused\n");
    std::string line = "sealkeep: " + package + ": block 1 of 1 (covers bytes [0, " + packageBytes() +
                       ")): the signer's certificate does not chain to the CA\n";
    ASSERT_GE(result.errors.size(), line.size());
    EXPECT_EQ(result.errors.substr(result.errors.size() - line.size()), line) << result.errors;

    json verdict = json::parse(verify({package}, true).output)["packages"][0];
    EXPECT_EQ(verdict["reason"], "certificate_chain_not_trusted");
    EXPECT_EQ(verdict["blocks"], json::array({{{"index", 1},
                                               {"group", nullptr},
                                               {"covered", {{"begin", 0}, {"end", fileSize(rpmTemplate)}}},
                                               {"reason", "certificate_chain_not_trusted"}}}));
}

TEST_F(CliVerifyReport, ASeclabSignatureFirstNamesThePositionRule)
{
    std::string package = freshPackage();
    appendSignatureOfWholeFile(package, pki->seclab());
    auto result = verify({package});
    EXPECT_EQ(result.exitCode, 1);
    EXPECT_EQ(result.errors, "sealkeep: " + package + ": block 1 of 1 (seclab, covers bytes [0, " + packageBytes() +
                                 ")): the signer's group may not sign at this position\n");

    json verdict = json::parse(verify({package}, true).output)["packages"][0];
    EXPECT_EQ(verdict["reason"], "group_not_allowed");
    EXPECT_EQ(verdict["blocks"][0]["group"], "seclab");
    EXPECT_EQ(verdict["blocks"][0]["reason"], "group_not_allowed");
}

TEST_F(CliVerifyReport, AFourthSignatureIsTooMany)
{
    std::string package = freshPackage();
    for (Identity const* who : {&pki->developer(), &pki->seclab(), &pki->client()})
        ASSERT_EQ(signAs(*who, package).exitCode, 0);
    appendSignatureOfWholeFile(package, pki->client());
    auto result = verify({package});
    EXPECT_EQ(result.exitCode, 1);
    EXPECT_EQ(result.errors, "sealkeep: " + package + ": too many signatures (at most 3)\n");

    json verdict = json::parse(verify({package}, true).output)["packages"][0];
    EXPECT_EQ(verdict["reason"], "too_many_signatures");
    EXPECT_EQ(verdict["signatures"], 4);
    EXPECT_EQ(verdict["blocks"], json::array());
}

TEST_F(CliVerifyReport, AFlippedByteInTheNewestBlockNamesThatBlock)
{
    std::string package = freshPackage();
    ASSERT_EQ(signAs(pki->developer(), package).exitCode, 0);
    ASSERT_EQ(signAs(pki->client(), package).exitCode, 0);
    // The last byte before the client block's 12-byte header is inside its CMS.
    Bytes bytes = readFile(package);
    bytes.at(bytes.size() - 13) ^= 1;
    writeFile(package, bytes);
    json verdict = json::parse(verify({package}, true).output)["packages"][0];
    EXPECT_EQ(verdict["verified"], false);
    ASSERT_EQ(verdict["blocks"].size(), 1u);
    EXPECT_EQ(verdict["blocks"][0]["index"], 2);
    EXPECT_NE(verdict["blocks"][0]["reason"], "ok");
    EXPECT_EQ(verdict["reason"], verdict["blocks"][0]["reason"]);
}

TEST_F(CliVerifyReport, OneRefusedPackageAmongGoodOnesMakesTheStatusOne)
{
    std::string good = freshPackage("good.rpm");
    ASSERT_EQ(signAs(pki->developer(), good).exitCode, 0);
    std::string bad = freshPackage("bad.rpm");
    appendSignatureOfWholeFile(bad, pki->client());
    auto result = verify({good, bad});
    EXPECT_EQ(result.exitCode, 1);
    EXPECT_EQ(result.output, good + ": verified (1 signature)\n" + bad + ": refused\n");
    EXPECT_EQ(result.errors, "sealkeep: " + bad + ": block 1 of 1 (client, covers bytes [0, " + packageBytes() +
                                 ")): the signer's group may not sign at this position\n");
    EXPECT_EQ(verify({good}).exitCode, 0);
}

// A CA file that opens but holds no certificate gives an empty store: every
// chain fails, which is what the report says. (A CA file that cannot be
// opened is refused before any package is read.)
TEST_F(CliVerifyReport, ACaFileWithoutCertificatesTrustsNoChain)
{
    std::string package = freshPackage();
    ASSERT_EQ(signAs(pki->developer(), package).exitCode, 0);
    std::string ca = work.file("not-a-ca.pem");
    writeText(ca, "not a certificate\n");
    auto result = run({"verify", package, "--ca", ca, "--json"});
    EXPECT_EQ(result.exitCode, 1);
    json verdict = json::parse(result.output)["packages"][0];
    EXPECT_EQ(verdict["reason"], "certificate_chain_not_trusted");
    std::string line = "sealkeep: " + package + ": block 1 of 1 (covers bytes [0, " + packageBytes() +
                       ")): the signer's certificate does not chain to the CA\n";
    ASSERT_GE(result.errors.size(), line.size());
    EXPECT_EQ(result.errors.substr(result.errors.size() - line.size()), line) << result.errors;
}

}  // namespace
}  // namespace sealkeep::test
