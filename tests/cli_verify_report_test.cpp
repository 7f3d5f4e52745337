// sealkeep verify on tampered packages: which block was refused and by which
// check, on standard error, in --json and in the exit status.
#include <string>

#include <gtest/gtest.h>
#include <nlohmann/json.hpp>

#include <sealkeep/sealkeep.h>

#include "support/blocks.hpp"
#include "support/cli_test.hpp"
#include "support/cms_builder.hpp"
#include "support/pki.hpp"
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

    // Status 1, "PACKAGE: refused" on standard output, the command's line
    // "sealkeep: PACKAGE: <why>" last on standard error (after the library's
    // own lines), and the reason by name in --json.
    void expectRefusal(std::string const& package, std::string const& why, std::string const& reason) const
    {
        auto result = verify({package});
        EXPECT_EQ(result.exitCode, 1);
        EXPECT_EQ(result.output, package + ": refused\n");
        std::string line = "sealkeep: " + package + ": " + why + "\n";
        ASSERT_GE(result.errors.size(), line.size()) << result.errors;
        EXPECT_EQ(result.errors.substr(result.errors.size() - line.size()), line) << result.errors;

        auto asJson = verify({package}, true);
        EXPECT_EQ(asJson.exitCode, 1);
        json verdict = json::parse(asJson.output)["packages"][0];
        EXPECT_EQ(verdict["ok"], false);
        EXPECT_EQ(verdict["reason"], reason);
        EXPECT_EQ(verdict["error"], why);
        if (!verdict["blocks"].empty()) {
            EXPECT_EQ(verdict["blocks"].back()["reason"], reason);
        }
    }

    // A version-2 block by who over the whole file as it is now, carrying
    // chain (a rotation chain's DER) as its rotation chain attribute.
    static void appendSignatureWithRotation(std::string const& path, Identity const& who, Bytes const& chain)
    {
        LoadedSigner signer = loadSigner(who);
        appendFile(path, makeBlock(cmsWithAttribute(readFile(path), signer.borrowed(),
                                                    CmsAttribute{rotationChainOid, V_ASN1_SEQUENCE, chain}),
                                   2));
    }

    static Bytes derOf(ProofOfRotationChain* chain)
    {
        unsigned char* der = nullptr;
        int length = i2d_ProofOfRotationChain(chain, &der);
        Bytes bytes(der, der + (length > 0 ? length : 0));
        OPENSSL_free(der);
        return bytes;
    }
};

TEST_F(CliVerifyReport, ASignatureByAnotherCaNamesTheCertificateChain)
{
    Pki otherPki("another CA");
    std::string package = freshPackage();
    ASSERT_EQ(signAs(otherPki.developer(), package).exitCode, 0);
    auto result = verify({package});
    EXPECT_EQ(result.exitCode, 1);
    EXPECT_EQ(result.output, package + ": refused\n");
    // The block still names the group its certificate claims.
    std::string line = "sealkeep: " + package + ": block 1 of 1 (developer, covers bytes [0, " + packageBytes() +
                       ")): the signer's certificate does not chain to the CA\n";
    ASSERT_GE(result.errors.size(), line.size());
    EXPECT_EQ(result.errors.substr(result.errors.size() - line.size()), line) << result.errors;

    json verdict = json::parse(verify({package}, true).output)["packages"][0];
    EXPECT_EQ(verdict["reason"], "certificate_chain_not_trusted");
    ASSERT_EQ(verdict["blocks"].size(), 1u);
    json const& block = verdict["blocks"][0];
    EXPECT_EQ(block["index"], 1);
    EXPECT_EQ(block["group"], "developer");
    EXPECT_EQ(block["issuer"], "CN=another CA");
    EXPECT_EQ(block["coveredBegin"], 0);
    EXPECT_EQ(block["coveredEnd"], fileSize(rpmTemplate));
    EXPECT_EQ(block["verified"], false);
    EXPECT_EQ(block["reason"], "certificate_chain_not_trusted");
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
    EXPECT_EQ(verdict["ok"], false);
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

// A CA file that opens but holds no certificate trusts nothing: the CA file
// is to blame, not the signer.
TEST_F(CliVerifyReport, ACaFileWithoutCertificatesIsUnreadable)
{
    std::string package = freshPackage();
    ASSERT_EQ(signAs(pki->developer(), package).exitCode, 0);
    std::string ca = work.file("not-a-ca.pem");
    writeText(ca, "not a certificate\n");
    auto result = run({"verify", package, "--ca", ca, "--json"});
    EXPECT_EQ(result.exitCode, 1);
    json verdict = json::parse(result.output)["packages"][0];
    EXPECT_EQ(verdict["reason"], "unreadable_ca");
    EXPECT_EQ(result.errors, "sealkeep: " + package + ": no CA certificates could be read from " + ca + "\n");
}

// A CA file that cannot be read refuses every package by itself, and --json
// still answers for each one.
TEST_F(CliVerifyReport, AnUnreadableCaRefusesEveryPackage)
{
    std::string first = freshPackage("first.rpm");
    std::string second = freshPackage("second.rpm");
    ASSERT_EQ(signAs(pki->developer(), first).exitCode, 0);
    ASSERT_EQ(signAs(pki->developer(), second).exitCode, 0);
    std::string why = "no CA certificates could be read from missing-ca.pem";
    auto result = run({"verify", first, second, "--ca", "missing-ca.pem"});
    EXPECT_EQ(result.exitCode, 1);
    EXPECT_EQ(result.output, first + ": refused\n" + second + ": refused\n");
    for (auto const& package : {first, second})
        EXPECT_NE(result.errors.find("sealkeep: " + package + ": " + why + "\n"), std::string::npos) << result.errors;

    auto asJson = run({"verify", first, second, "--ca", "missing-ca.pem", "--json"});
    EXPECT_EQ(asJson.exitCode, 1);
    json packages = json::parse(asJson.output)["packages"];
    ASSERT_EQ(packages.size(), 2u);
    for (auto const& verdict : packages) {
        EXPECT_EQ(verdict["ok"], false);
        EXPECT_EQ(verdict["reason"], "unreadable_ca");
        EXPECT_EQ(verdict["error"], why);
        EXPECT_EQ(verdict["blocks"], json::array());
    }
}

TEST_F(CliVerifyReport, AChangedPayloadIsAContentDigestMismatch)
{
    std::string package = freshPackage();
    ASSERT_EQ(signAs(pki->developer(), package).exitCode, 0);
    Bytes bytes = readFile(package);
    bytes.at(fileSize(rpmTemplate) - 1) ^= 1;
    writeFile(package, bytes);
    expectRefusal(package,
                  "block 1 of 1 (developer, covers bytes [0, " + packageBytes() +
                      ")): the covered bytes do not match the signature (content digest)",
                  "content_digest_mismatch");
}

// The signature value ends the CMS, which ends 12 bytes before the end of a
// block: a changed byte there leaves the signed digest matching the package.
TEST_F(CliVerifyReport, AChangedSignatureValueIsAnInvalidSignature)
{
    std::string package = freshPackage();
    ASSERT_EQ(signAs(pki->developer(), package).exitCode, 0);
    Bytes bytes = readFile(package);
    bytes.at(bytes.size() - 12 - 1) ^= 1;
    writeFile(package, bytes);
    expectRefusal(package,
                  "block 1 of 1 (developer, covers bytes [0, " + packageBytes() +
                      ")): the signature value does not verify with the signer's key",
                  "signature_invalid");
}

TEST_F(CliVerifyReport, ARotationProofSignedByTheWrongKeyIsAnInvalidChain)
{
    X509Ptr seclabCert = loadCertificate(pki->seclab().certPath);
    X509Ptr developerCert = loadCertificate(pki->developer().certPath);
    PkeyPtr clientKey = loadKey(pki->client().keyPath);
    PkeyPtr developerKey = loadKey(pki->developer().keyPath);
    ProofOfRotationChain* chain = sk_ProofOfRotation_new_null();
    sk_ProofOfRotation_push(
        chain, ProofOfRotation_create(seclabCert.get(), clientKey.get(), developerCert.get(), developerKey.get()));
    Bytes chainDer = derOf(chain);
    ProofOfRotationChain_free(chain);

    std::string package = freshPackage();
    appendSignatureWithRotation(package, pki->developer(), chainDer);
    expectRefusal(package,
                  "block 1 of 1 (developer, covers bytes [0, " + packageBytes() + ")): the rotation chain does not verify",
                  "rotation_chain_invalid");
}

TEST_F(CliVerifyReport, ARotationChainEndingAtAnotherKeyIsNotAtTheSigner)
{
    std::string chainPath = work.file("chain.pem");
    ASSERT_EQ(make_proof_of_rotation_chain(chainPath.c_str(), nullptr, pki->developer().certPath.c_str(),
                                           pki->developer().keyPath.c_str(), pki->seclab().certPath.c_str(),
                                           pki->seclab().keyPath.c_str()),
              0);
    ProofOfRotationChain* chain = ProofOfRotationChain_read(chainPath.c_str());
    ASSERT_NE(chain, nullptr);
    Bytes chainDer = derOf(chain);
    ProofOfRotationChain_free(chain);

    std::string package = freshPackage();
    appendSignatureWithRotation(package, pki->developer(), chainDer);
    expectRefusal(package,
                  "block 1 of 1 (developer, covers bytes [0, " + packageBytes() +
                      ")): the rotation chain does not end at the signer's key",
                  "rotation_chain_not_at_signer");
}

TEST_F(CliVerifyReport, AnUndecodableNewestBlockIsMalformed)
{
    std::string package = freshPackage();
    ASSERT_EQ(signAs(pki->developer(), package).exitCode, 0);
    std::string signedBytes = std::to_string(fileSize(package));
    // The developer block is framed: its CMS begins 8 bytes after the package.
    std::string developerCms = std::to_string(fileSize(rpmTemplate) + 8);
    appendFile(package, makeBlock(patternBytes(50, 4), 2));
    expectRefusal(package,
                  "block 2 of 2 (covers bytes [" + developerCms + ", " + signedBytes +
                      ")): the CMS is malformed (undecodable, not exactly one signer, or unknown block version)",
                  "cms_malformed");
}

}  // namespace
}  // namespace sealkeep::test
