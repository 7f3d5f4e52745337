// sealkeep inspect, verify and strip on real signed packages.
#include <chrono>
#include <string>

#include <sys/stat.h>

#include <gtest/gtest.h>
#include <nlohmann/json.hpp>

#include <sealkeep/certificate.hpp>

#include "support/blocks.hpp"
#include "support/cli_test.hpp"
#include "support/signing.hpp"

namespace sealkeep::test {
namespace {

using nlohmann::json;
using PackageSignatures::Certificate;

class CliPackages : public CliTest {
protected:
    std::string signedPackage(std::string const& name = "package.rpm")
    {
        std::string package = freshPackage(name);
        for (Identity const* who : {&pki->developer(), &pki->seclab(), &pki->client()}) {
            auto result = signAs(*who, package);
            if (result.exitCode != 0)
                ADD_FAILURE() << result.errors;
        }
        return package;
    }

    void flipByte(std::string const& path, long offset)
    {
        Bytes bytes = readFile(path);
        bytes.at(offset) ^= 1;
        writeFile(path, bytes);
    }
};

// ---------------------------------------------------------------------------
// inspect

TEST_F(CliPackages, InspectDescribesEveryBlockAsJson)
{
    std::string package = signedPackage();
    auto result = run({"inspect", package, "--json"});
    ASSERT_EQ(result.exitCode, 0) << result.errors;
    json description = json::parse(result.output);
    EXPECT_EQ(description["path"], package);
    EXPECT_EQ(description["rpm"], true);
    ASSERT_EQ(description["blocks"].size(), 3u);
    char const* groups[] = {"developer", "seclab", "client"};
    Identity const* identities[] = {&pki->developer(), &pki->seclab(), &pki->client()};
    long packageSize = fileSize(rpmTemplate);
    for (int i = 0; i < 3; ++i) {
        json const& block = description["blocks"][i];
        Certificate certificate = Certificate::readCertificateFromFile(identities[i]->certPath.c_str());
        EXPECT_EQ(block["index"], i + 1);
        EXPECT_EQ(block["version"], 3);
        EXPECT_EQ(block["length"], block["end"].get<long>() - block["begin"].get<long>());
        EXPECT_EQ(block["signer"]["group"], groups[i]);
        EXPECT_EQ(block["signer"]["subgroup"], "regular");
        EXPECT_EQ(block["signer"]["subject"], certificate.subject());
        EXPECT_EQ(block["signer"]["keyId"], certificate.keyId());
        EXPECT_EQ(block["signer"]["issuer"], "CN=sealkeep test CA");
        EXPECT_EQ(block["signer"]["signingTime"].get<std::string>().size(), 20u);
        EXPECT_EQ(block["signer"]["notBefore"].get<std::string>().back(), 'Z');
        EXPECT_TRUE(block["rotationChain"].empty());
        EXPECT_TRUE(block["fileSignatures"]["count"].is_number());
        EXPECT_FALSE(block["fileSignatures"].contains("files"));
        EXPECT_TRUE(block["trustedApplications"].is_array());
    }
    json const& blocks = description["blocks"];
    EXPECT_EQ(blocks[0]["covered"]["begin"], 0);
    EXPECT_EQ(blocks[0]["covered"]["end"], packageSize);
    EXPECT_EQ(blocks[0]["begin"], packageSize + 8);
    EXPECT_EQ(blocks[1]["covered"]["begin"], blocks[0]["begin"]);
    EXPECT_EQ(blocks[1]["covered"]["end"], blocks[0]["end"].get<long>() + 12);
    EXPECT_EQ(blocks[2]["end"].get<long>() + 12, fileSize(package));

    auto withFiles = run({"inspect", package, "--json", "--files"});
    ASSERT_EQ(withFiles.exitCode, 0);
    EXPECT_TRUE(json::parse(withFiles.output)["blocks"][0]["fileSignatures"]["files"].is_array());
}

TEST_F(CliPackages, InspectPrintsAWalkthroughOfAReadOnlyFile)
{
    std::string package = signedPackage();
    ASSERT_EQ(chmod(package.c_str(), 0444), 0);
    Bytes before = readFile(package);
    auto result = run({"inspect", package, "--files"});
    ASSERT_EQ(result.exitCode, 0) << result.errors;
    EXPECT_EQ(result.errors, "");
    EXPECT_EQ(result.output.rfind(package + ": RPM package, 3 signatures\nblock 1: version 3, CMS at ", 0), 0u)
        << result.output;
    Certificate developer = Certificate::readCertificateFromFile(pki->developer().certPath.c_str());
    EXPECT_NE(result.output.find("  signer: \"" + developer.subject() + "\" developer:regular\n    key id " +
                                 developer.keyId() + "\n    issued by CN=sealkeep test CA, valid "),
              std::string::npos)
        << result.output;
    EXPECT_NE(result.output.find("  rotation chain: none\n"), std::string::npos);
    EXPECT_NE(result.output.find("  trusted applications: "), std::string::npos);
    EXPECT_EQ(readFile(package), before);
}

TEST_F(CliPackages, InspectShowsTheRotationChainOfASigner)
{
    Identity old = pki->issue("inspect-old", "developer");
    Identity current = pki->issue("inspect-new", "developer");
    auto rotated = run({"rotate", "chain.pem", "--old-cert", old.certPath, "--old-key", old.keyPath, "--new-cert",
                        current.certPath, "--new-key", current.keyPath});
    ASSERT_EQ(rotated.exitCode, 0) << rotated.errors;
    std::string package = freshPackage();
    auto signedResult = signAs(current, package, {"--rotation-chain", "chain.pem"});
    ASSERT_EQ(signedResult.exitCode, 0) << signedResult.errors;

    std::string oldKeyId = Certificate::readCertificateFromFile(old.certPath.c_str()).keyId();
    std::string newKeyId = Certificate::readCertificateFromFile(current.certPath.c_str()).keyId();
    auto result = run({"inspect", package, "--json"});
    ASSERT_EQ(result.exitCode, 0);
    json chain = json::parse(result.output)["blocks"][0]["rotationChain"];
    EXPECT_EQ(chain, json::parse("[{\"old\":\"" + oldKeyId + "\",\"new\":\"" + newKeyId + "\"}]"));
    EXPECT_NE(run({"inspect", package}).output.find("  rotation chain: " + oldKeyId + " -> " + newKeyId + "\n"),
              std::string::npos);
    EXPECT_EQ(run({"verify", package, "--ca", pki->ca().certPath}).exitCode, 0);
}

TEST_F(CliPackages, InspectOfAnUnsignedFileAndOfAMissingOne)
{
    writeText(work.file("notes.txt"), "plain text\n");
    auto plain = run({"inspect", "notes.txt"});
    EXPECT_EQ(plain.exitCode, 0);
    EXPECT_EQ(plain.output, "notes.txt: not an RPM package, 0 signatures\n");
    auto missing = run({"inspect", "missing.rpm"});
    EXPECT_EQ(missing.exitCode, 1);
    EXPECT_EQ(missing.errors, "sealkeep: missing.rpm: cannot open: No such file or directory\n");
}

// A Latin-1 file name is no UTF-8: the JSON carries U+FFFD in its place, and
// the text output the byte escaped (a lone byte of 0x80..0x9F would be a C1
// control to an 8-bit terminal).
TEST_F(CliPackages, JsonOfAPathThatIsNotUtf8)
{
    std::string package = signedPackage("caf\xe9.rpm");
    std::string shown = "caf\xef\xbf\xbd.rpm";
    auto inspected = run({"inspect", package, "--json"});
    EXPECT_EQ(inspected.exitCode, 0) << inspected.errors;
    EXPECT_EQ(inspected.errors, "");
    EXPECT_EQ(json::parse(inspected.output)["path"], work.file(shown));

    auto verified = run({"verify", package, "--ca", pki->ca().certPath, "--json"});
    EXPECT_EQ(verified.exitCode, 0) << verified.errors;
    EXPECT_EQ(verified.errors, "");
    EXPECT_EQ(json::parse(verified.output)["packages"][0]["path"], work.file(shown));

    auto text = run({"verify", package, "--ca", pki->ca().certPath});
    EXPECT_EQ(text.output, work.file("caf\\xe9.rpm") + ": verified (3 signatures)\n");
}

// A million empty headers cost the library's bounded scan four reads; the
// command shows the four newest blocks and stops.
TEST_F(CliPackages, InspectOfAMillionEmptyHeadersShowsFourBlocksQuickly)
{
    std::string path = work.file("headers.bin");
    Bytes header = makeHeader(2, 0);
    Bytes contents = patternBytes(100);
    contents.reserve(contents.size() + 1000000 * header.size());
    for (int i = 0; i < 1000000; ++i)
        contents.insert(contents.end(), header.begin(), header.end());
    writeFile(path, contents);

    auto start = std::chrono::steady_clock::now();
    auto result = runSealkeepWithin(20, work.path(), {"inspect", path, "--json"});
    auto seconds = std::chrono::duration<double>(std::chrono::steady_clock::now() - start).count();
    ASSERT_EQ(result.exitCode, 0) << result.errors;
    EXPECT_LT(seconds, 5.0);
    json description = json::parse(result.output);
    EXPECT_EQ(description["rpm"], false);
    ASSERT_EQ(description["blocks"].size(), 4u);
    long size = static_cast<long>(contents.size());
    for (int i = 0; i < 4; ++i) {
        json const& block = description["blocks"][i];
        EXPECT_EQ(block["end"], size - 12 * (4 - i)) << i;
        EXPECT_EQ(block["length"], 0);
        EXPECT_TRUE(block["signer"].is_null());
    }
    auto text = runSealkeepWithin(20, work.path(), {"inspect", path});
    EXPECT_EQ(text.exitCode, 0);
    EXPECT_EQ(text.output.rfind(path + ": not an RPM package, 4 signatures\n", 0), 0u) << text.output;
}

// Each block is shown with the range the library says it signs: a legacy
// block signs the package, a later block of an unknown version no range.
TEST_F(CliPackages, InspectShowsTheRangeEachBlockSigns)
{
    std::string package = freshPackage();
    long packageSize = fileSize(package);
    appendFile(package, makeBlock(signRange(readFile(package), pki->developer()), 2));
    appendFile(package, makeBlock(signRange(readFile(rpmTemplate), pki->seclab()), 1));
    appendFile(package, makeBlock(patternBytes(40), 7));
    auto result = run({"inspect", package, "--json"});
    ASSERT_EQ(result.exitCode, 0) << result.errors;
    json blocks = json::parse(result.output)["blocks"];
    ASSERT_EQ(blocks.size(), 3u);
    EXPECT_EQ(blocks[0]["covered"], json({{"begin", 0}, {"end", packageSize}}));
    EXPECT_EQ(blocks[1]["version"], 1);
    EXPECT_EQ(blocks[1]["covered"], json({{"begin", 0}, {"end", blocks[1]["begin"]}}));
    EXPECT_EQ(blocks[2]["version"], 7);
    EXPECT_TRUE(blocks[2]["covered"].is_null());

    auto text = run({"inspect", package});
    EXPECT_EQ(text.exitCode, 0);
    EXPECT_NE(text.output.find("block 2: version 1, CMS at " + blocks[1]["begin"].dump() + ".." +
                               blocks[1]["end"].dump() + " (" + blocks[1]["length"].dump() +
                               " bytes), signs bytes 0.." + blocks[1]["begin"].dump() + "\n"),
              std::string::npos)
        << text.output;
    EXPECT_NE(text.output.find(" bytes), signs no range this command knows (unknown block version)\n"),
              std::string::npos)
        << text.output;
}

// Files shorter than the RPM lead are read to their end and no further.
TEST_F(CliPackages, InspectOfFilesShorterThanTheRpmLead)
{
    for (std::string const& contents : {std::string(), std::string("\xed\xab\xee")}) {
        writeText(work.file("short.bin"), contents);
        auto result = runSealkeepWithin(20, work.path(), {"inspect", "short.bin"});
        EXPECT_EQ(result.exitCode, 0) << contents.size();
        EXPECT_EQ(result.output, "short.bin: not an RPM package, 0 signatures\n");
    }
}

// ---------------------------------------------------------------------------
// verify

TEST_F(CliPackages, VerifyPrintsTheVerdict)
{
    std::string package = signedPackage();
    auto result = run({"verify", package, "--ca", pki->ca().certPath});
    EXPECT_EQ(result.exitCode, 0) << result.errors;
    EXPECT_EQ(result.output, package + ": verified (3 signatures)\n");
    EXPECT_EQ(result.errors, "");
}

TEST_F(CliPackages, VerifyJsonHasOneObjectPerPackage)
{
    std::string good = signedPackage("good.rpm");
    std::string unsignedPackage = freshPackage("unsigned.rpm");
    auto result = run({"verify", good, unsignedPackage, "--ca", pki->ca().certPath, "--json"});
    EXPECT_EQ(result.exitCode, 1);
    json verdicts = json::parse(result.output);
    ASSERT_EQ(verdicts["packages"].size(), 2u);
    json const& verified = verdicts["packages"][0];
    EXPECT_EQ(verified["path"], good);
    EXPECT_EQ(verdicts["schemaVersion"], 1);
    EXPECT_EQ(verified["ok"], true);
    EXPECT_EQ(verified["signatures"], 3);
    EXPECT_EQ(verified["reason"], "ok");
    ASSERT_EQ(verified["blocks"].size(), 3u);
    char const* groups[] = {"client", "seclab", "developer"};
    for (int i = 0; i < 3; ++i) {
        EXPECT_EQ(verified["blocks"][i]["index"], 3 - i);
        EXPECT_EQ(verified["blocks"][i]["group"], groups[i]);
        EXPECT_EQ(verified["blocks"][i]["reason"], "ok");
    }
    EXPECT_EQ(verified["blocks"][2]["coveredBegin"], 0);
    EXPECT_EQ(verified["blocks"][2]["coveredEnd"], fileSize(rpmTemplate));
    EXPECT_EQ(verdicts["packages"][1], json({{"path", unsignedPackage},
                                             {"ok", false},
                                             {"signatures", 0},
                                             {"reason", "no_signatures"},
                                             {"blocks", json::array()},
                                             {"error", "no signatures"}}));
    EXPECT_EQ(result.errors, "sealkeep: " + unsignedPackage + ": no signatures\n");
}

TEST_F(CliPackages, VerifyCatchesAFlippedByte)
{
    std::string package = signedPackage();
    flipByte(package, 200);
    auto result = run({"verify", package, "--ca", pki->ca().certPath});
    EXPECT_EQ(result.exitCode, 1);
    EXPECT_EQ(result.output, package + ": refused\n");
    std::string line = "sealkeep: " + package + ": block 1 of 3 (developer, covers bytes [0, " +
                       std::to_string(fileSize(rpmTemplate)) +
                       ")): the covered bytes do not match the signature (content digest)\n";
    ASSERT_GE(result.errors.size(), line.size());
    EXPECT_EQ(result.errors.substr(result.errors.size() - line.size()), line) << result.errors;
}

TEST_F(CliPackages, VerifyRefusesAMissingCaOrPackage)
{
    std::string package = signedPackage();
    auto noCa = run({"verify", package, "--ca", "missing-ca.pem"});
    EXPECT_EQ(noCa.exitCode, 1);
    std::string line = "sealkeep: " + package + ": no CA certificates could be read from missing-ca.pem\n";
    ASSERT_GE(noCa.errors.size(), line.size()) << noCa.errors;
    EXPECT_EQ(noCa.errors.substr(noCa.errors.size() - line.size()), line) << noCa.errors;
    EXPECT_EQ(noCa.output, package + ": refused\n");
    auto noPackage = run({"verify", "missing.rpm", "--ca", pki->ca().certPath});
    EXPECT_EQ(noPackage.exitCode, 1);
    EXPECT_EQ(noPackage.errors, "sealkeep: missing.rpm: cannot open: No such file or directory\n");
    EXPECT_EQ(run({"verify", package}).exitCode, 2);
}

// ---------------------------------------------------------------------------
// strip

TEST_F(CliPackages, StripRemovesEverySignature)
{
    std::string package = signedPackage();
    auto result = run({"strip", package});
    EXPECT_EQ(result.exitCode, 0) << result.errors;
    EXPECT_EQ(result.output, package + ": removed 3 of 3 signatures\n");
    EXPECT_EQ(readFile(package), readFile(rpmTemplate));
    auto again = run({"strip", package});
    EXPECT_EQ(again.exitCode, 0);
    EXPECT_EQ(again.output, package + ": no signatures to remove\n");
}

TEST_F(CliPackages, StripLastRemovesOnlyTheNewest)
{
    std::string package = signedPackage();
    auto result = run({"strip", package, "--last"});
    EXPECT_EQ(result.exitCode, 0) << result.errors;
    EXPECT_EQ(result.output, package + ": removed 1 of 3 signatures\n");
    auto verified = run({"verify", package, "--ca", pki->ca().certPath});
    EXPECT_EQ(verified.output, package + ": verified (2 signatures)\n");
}

TEST_F(CliPackages, StripRefusesAFileItCannotOpen)
{
    auto result = run({"strip", "missing.rpm", "--last"});
    EXPECT_EQ(result.exitCode, 1);
    EXPECT_EQ(result.errors, "sealkeep: missing.rpm: not stripped: cannot open: No such file or directory\n");
}

}  // namespace
}  // namespace sealkeep::test
