// Verification of a file's signature stack (FileWithCmses::verifyCmses) and
// of one CMS over its bytes (cms_verify), with peer checks by the openssl,
// zstd, rpm and cpio tools.
#include <gtest/gtest.h>

#include <sealkeep/sealkeep.hpp>

#include "support/blocks.hpp"
#include "support/cms_builder.hpp"
#include "support/process.hpp"
#include "support/rpm_builder.hpp"
#include "support/shared_pki.hpp"
#include "support/signing.hpp"
#include "support/stderr_capture.hpp"

namespace {

using namespace sealkeep::test;
using namespace PackageSignatures;
using sealkeep::PkeyPtr;
using sealkeep::X509Ptr;

const std::string verificationFailed = "CMS verification failed\n";

class SignatureVerification : public SharedPkiTest {
protected:
    void SetUp() override { writeFile(path, package); }

    bool verify() { return verifyFile(path, pki->ca().certPath); }

    // Appends a version-2 block signed by who over [begin, end) of the file
    // as it is now; a way to build stacks the signing operation refuses.
    void appendSignedBlock(Identity const& who, long begin, long end, unsigned version = 2)
    {
        Bytes contents = readFile(path);
        Bytes range(contents.begin() + begin, contents.begin() + end);
        appendFile(path, makeBlock(signRange(range, who), version));
    }

    void flipByte(long offset)
    {
        Bytes contents = readFile(path);
        contents[static_cast<size_t>(offset)] ^= 0x01;
        writeFile(path, contents);
    }

    TempDir dir;
    std::string path = dir.file("package.bin");
    Bytes package = patternBytes(6000, 5);
};

TEST_F(SignatureVerification, AnUnsignedFileIsRefusedSilently)
{
    EXPECT_EQ("", stderrOf([&] { EXPECT_FALSE(verify()); }));
}

TEST_F(SignatureVerification, FourSignaturesAreRefusedWithoutAnyMessage)
{
    ASSERT_TRUE(signFile(path, pki->developer()));
    ASSERT_TRUE(signFile(path, pki->seclab()));
    ASSERT_TRUE(signFile(path, pki->client()));
    ASSERT_TRUE(verify());
    long size = fileSize(path);
    appendSignedBlock(pki->client(), 0, size);
    EXPECT_EQ("", stderrOf([&] { EXPECT_FALSE(verify()); }));
}

TEST_F(SignatureVerification, AnUnreadableCaFileIsRefused)
{
    ASSERT_TRUE(signFile(path, pki->developer()));
    std::string missing = dir.file("missing-ca.pem");
    EXPECT_FALSE(verifyFile(path, missing));
}

TEST_F(SignatureVerification, ASignatureOfAFileShorterThanAFramePrefixVerifies)
{
    writeFile(path, Bytes{1, 2, 3, 4, 5});
    ASSERT_TRUE(signFile(path, pki->developer()));
    EXPECT_TRUE(verify());
    ASSERT_TRUE(signFile(path, pki->client()));
    EXPECT_TRUE(verify());
}

TEST_F(SignatureVerification, ADeveloperSignatureVerifies)
{
    ASSERT_TRUE(signFile(path, pki->developer()));
    EXPECT_EQ("", stderrOf([&] { EXPECT_TRUE(verify()); }));
}

TEST_F(SignatureVerification, AChangedPackageByteFailsTheDetachedSignatureWithOpensslsError)
{
    ASSERT_TRUE(signFile(path, pki->developer()));
    flipByte(static_cast<long>(package.size()) - 1);
    std::string errors = stderrOf([&] { EXPECT_FALSE(verify()); });
    EXPECT_NE(std::string::npos, errors.find("content verify error")) << errors;
    EXPECT_EQ(verificationFailed, errors.substr(errors.size() - verificationFailed.size()));
}

TEST_F(SignatureVerification, ASignatureByAnotherCaFails)
{
    ASSERT_TRUE(signFile(path, pki->developer()));
    Pki otherPki("another CA");
    std::string errors = stderrOf([&] { EXPECT_FALSE(verifyFile(path, otherPki.ca().certPath)); });
    EXPECT_NE(std::string::npos, errors.find("certificate verify error")) << errors;
}

TEST_F(SignatureVerification, AChangedPackageByteFailsAtPositionZeroWhileTheSeclabSignatureStillHolds)
{
    ASSERT_TRUE(signFile(path, pki->developer()));
    ASSERT_TRUE(signFile(path, pki->seclab()));
    flipByte(10);
    std::string errors = stderrOf([&] { EXPECT_FALSE(verify()); });
    EXPECT_NE(std::string::npos, errors.find("content verify error")) << errors;

    // The seclab signature alone covers only the developer block.
    auto cmses = FileWithCmses::fromPath(path.c_str(), "r")->cmses();
    ASSERT_EQ(2u, cmses.size());
    Bytes contents = readFile(path);
    Bytes developerBlock = concat({cmses[0].data(), CmsHeader(2, static_cast<long>(cmses[0].size())).serialize()});
    X509_STORE* store = certificate_store_read(pki->ca().certPath.c_str());
    EXPECT_TRUE(cms_verify(developerBlock.data(), static_cast<long>(developerBlock.size()), cmses[1].parsed(), store));
    X509_STORE_free(store);
}

TEST_F(SignatureVerification, AChangedByteInAnyBlockFails)
{
    ASSERT_TRUE(signFile(path, pki->developer(), framed()));
    ASSERT_TRUE(signFile(path, pki->seclab()));
    ASSERT_TRUE(signFile(path, pki->client(), framed()));
    Bytes signedFile = readFile(path);
    auto file = FileWithCmses::fromPath(path.c_str(), "r");
    auto cmses = file->cmses();
    file.reset();
    ASSERT_EQ(3u, cmses.size());

    // The last byte of each CMS (inside its signature value) and a byte of
    // each header's length.
    long offset = static_cast<long>(package.size()) + 8;
    for (auto const& cms : cmses) {
        long cmsEnd = offset + static_cast<long>(cms.size());
        for (long target : {cmsEnd - 1, cmsEnd + 1}) {
            writeFile(path, signedFile);
            flipByte(target);
            stderrOf([&] { EXPECT_FALSE(verify()) << "byte " << target; });
        }
        offset = cmsEnd + 12 + (cms == cmses[0] ? 0 : 8);
    }
    writeFile(path, signedFile);
    EXPECT_TRUE(verify());
}

TEST_F(SignatureVerification, ASeclabSignatureAloneBreaksThePositionRule)
{
    appendSignedBlock(pki->seclab(), 0, static_cast<long>(package.size()));
    EXPECT_EQ("", stderrOf([&] { EXPECT_FALSE(verify()); }));
}

TEST_F(SignatureVerification, DeveloperSeclabClientPasses)
{
    ASSERT_TRUE(signFile(path, pki->developer()));
    ASSERT_TRUE(signFile(path, pki->seclab(), framed()));
    ASSERT_TRUE(signFile(path, pki->client()));
    EXPECT_TRUE(verify());
}

TEST_F(SignatureVerification, DeveloperClientClientPasses)
{
    ASSERT_TRUE(signFile(path, pki->developer()));
    ASSERT_TRUE(signFile(path, pki->client()));
    ASSERT_TRUE(signFile(path, pki->client()) == false);  // signing refuses this order ...
    auto file = FileWithCmses::fromPath(path.c_str(), "r");
    auto cmses = file->cmses();
    file.reset();
    long secondBegin = fileSize(path) - 12 - static_cast<long>(cmses[1].size());
    appendSignedBlock(pki->client(), secondBegin, fileSize(path));  // ... verification accepts it
    EXPECT_TRUE(verify());
}

TEST_F(SignatureVerification, DeveloperClientSeclabFails)
{
    ASSERT_TRUE(signFile(path, pki->developer()));
    ASSERT_TRUE(signFile(path, pki->client()));
    auto cmses = FileWithCmses::fromPath(path.c_str(), "r")->cmses();
    long secondBegin = fileSize(path) - 12 - static_cast<long>(cmses[1].size());
    appendSignedBlock(pki->seclab(), secondBegin, fileSize(path));
    EXPECT_EQ("", stderrOf([&] { EXPECT_FALSE(verify()); }));
}

TEST_F(SignatureVerification, ALegacyBlockCoversEverythingBeforeIt)
{
    ASSERT_TRUE(signFile(path, pki->developer(), framed()));
    long size = fileSize(path);
    appendSignedBlock(pki->seclab(), 0, size, 1);
    EXPECT_TRUE(verify());
}

TEST_F(SignatureVerification, ALaterBlockOfUnknownVersionIsRefused)
{
    ASSERT_TRUE(signFile(path, pki->developer()));
    auto cmses = FileWithCmses::fromPath(path.c_str(), "r")->cmses();
    long firstBegin = static_cast<long>(package.size());
    appendSignedBlock(pki->seclab(), firstBegin, fileSize(path), 7);
    EXPECT_EQ("", stderrOf([&] { EXPECT_FALSE(verify()); }));
}

TEST_F(SignatureVerification, AVersionTwoBlockBehindFrameMagicBytesCountsAsFramed)
{
    // Block 0 claims version 0x184D2A50, so the four bytes 8 before block 1's
    // CMS (block 0's version field) read as the skippable-frame magic.
    Bytes developerCms = signRange(package, pki->developer());
    appendFile(path, concat({developerCms, makeHeader(0x184D2A50, developerCms.size())}));
    long firstBegin = static_cast<long>(package.size());
    long secondBegin = fileSize(path);

    // Signed over what verification takes as covered: the range ends 8 bytes
    // before block 1's CMS.
    appendSignedBlock(pki->seclab(), firstBegin, secondBegin - 8);
    EXPECT_TRUE(verify());

    // The same block signed over the unframed range is refused.
    writeFile(path, concat({package, developerCms, makeHeader(0x184D2A50, developerCms.size())}));
    appendSignedBlock(pki->seclab(), firstBegin, secondBegin);
    stderrOf([&] { EXPECT_FALSE(verify()); });
}

TEST_F(SignatureVerification, AnAttachedCmsCarryingTheDigestVerifies)
{
    LoadedSigner signer = loadSigner(pki->developer());
    // The GOST R 34.11-2012 256-bit digest of the package, computed by openssl.
    auto hex = runCommand({"sh", "-c", "openssl dgst -engine gost -md_gost12_256 -r " + path});
    ASSERT_EQ(0, hex.exitCode) << hex.errors;
    Bytes packageDigest;
    for (size_t i = 0; i < 64; i += 2)
        packageDigest.push_back(static_cast<unsigned char>(std::stoi(hex.output.substr(i, 2), nullptr, 16)));
    appendFile(path, makeBlock(attachedCms(packageDigest, signer.borrowed()), 2));
    EXPECT_EQ("", stderrOf([&] { EXPECT_TRUE(verify()); }));

    flipByte(100);
    EXPECT_EQ("Digests differ from each other (signed data was corrupted?)\n" + verificationFailed,
              stderrOf([&] { EXPECT_FALSE(verify()); }));
}

TEST_F(SignatureVerification, AnAttachedCmsWithADigestOfTheWrongLengthFails)
{
    LoadedSigner signer = loadSigner(pki->developer());
    appendFile(path, makeBlock(attachedCms(patternBytes(64, 8), signer.borrowed()), 2));
    EXPECT_EQ("CMS contains digest with wrong length (expected 32, got 64)\n" + verificationFailed,
              stderrOf([&] { EXPECT_FALSE(verify()); }));
}

TEST_F(SignatureVerification, AnAttachedCmsFromAnotherCaFailsItsChain)
{
    Pki otherPki("another CA");
    LoadedSigner signer = loadSigner(otherPki.developer());
    appendFile(path, makeBlock(attachedCms(patternBytes(32, 8), signer.borrowed()), 2));
    EXPECT_EQ("Unable to verify CMS certificate chain\n" + verificationFailed,
              stderrOf([&] { EXPECT_FALSE(verify()); }));
}

TEST_F(SignatureVerification, AnUndecodableBlockIsRefused)
{
    appendFile(path, makeBlock(patternBytes(50, 4), 2));
    EXPECT_EQ("Could not decode DER CMS\n", stderrOf([&] { EXPECT_FALSE(verify()); }));
}

// A rotation chain attribute holding the DER of an empty chain.
TEST_F(SignatureVerification, AnEmptyRotationChainVerifiesLikeNone)
{
    LoadedSigner signer = loadSigner(pki->developer());
    Bytes cms = cmsWithAttribute(package, signer.borrowed(), CmsAttribute{rotationChainOid, V_ASN1_SEQUENCE, {0x30, 0x00}});
    appendFile(path, makeBlock(cms, 2));
    EXPECT_EQ("", stderrOf([&] { EXPECT_TRUE(verify()); }));
}

TEST_F(SignatureVerification, AnUndecodableRotationChainCountsAsAbsent)
{
    LoadedSigner signer = loadSigner(pki->developer());
    Bytes cms = cmsWithAttribute(package, signer.borrowed(),
                                 CmsAttribute{rotationChainOid, V_ASN1_SEQUENCE, undecodableSequence()});
    appendFile(path, makeBlock(cms, 2));
    EXPECT_EQ("Could not deserialize ProofOfRotationChain sequence\n", stderrOf([&] { EXPECT_TRUE(verify()); }));
}

TEST_F(SignatureVerification, ARotationChainEndingAtAnotherKeyFails)
{
    // A valid chain developer -> seclab embedded in a signature by the client.
    std::string chainPath = dir.file("chain.pem");
    ASSERT_EQ(0, make_proof_of_rotation_chain(chainPath.c_str(), nullptr, pki->developer().certPath.c_str(),
                                              pki->developer().keyPath.c_str(), pki->seclab().certPath.c_str(),
                                              pki->seclab().keyPath.c_str()));
    ProofOfRotationChain* chain = ProofOfRotationChain_read(chainPath.c_str());
    ASSERT_NE(nullptr, chain);
    unsigned char* der = nullptr;
    int len = i2d_ProofOfRotationChain(chain, &der);
    Bytes chainDer(der, der + len);
    OPENSSL_free(der);

    LoadedSigner signer = loadSigner(pki->developer());
    Bytes cms = cmsWithAttribute(package, signer.borrowed(), CmsAttribute{rotationChainOid, V_ASN1_SEQUENCE, chainDer});
    appendFile(path, makeBlock(cms, 2));
    EXPECT_EQ("Last keyid in rotation chain does not match with CMS certificate\n",
              stderrOf([&] { EXPECT_FALSE(verify()); }));

    // Signed with the chain's newest key, the same chain is accepted.
    Bytes bySeclab = signRange(package, pki->seclab(), chain);
    ProofOfRotationChain_free(chain);
    Cms seclabCms(bySeclab);
    X509_STORE* store = certificate_store_read(pki->ca().certPath.c_str());
    EXPECT_EQ("", stderrOf([&] {
                  EXPECT_TRUE(cms_verify(package.data(), static_cast<long>(package.size()), seclabCms.parsed(), store));
              }));
    X509_STORE_free(store);
}

TEST_F(SignatureVerification, ARotationChainThatDoesNotVerifyFails)
{
    // A proof signed with a key that does not belong to its old certificate.
    X509Ptr developerCert = loadCertificate(pki->developer().certPath);
    X509Ptr seclabCert = loadCertificate(pki->seclab().certPath);
    PkeyPtr clientKey = loadKey(pki->client().keyPath);
    PkeyPtr seclabKey = loadKey(pki->seclab().keyPath);
    ProofOfRotation* proof = ProofOfRotation_create(developerCert.get(), clientKey.get(), seclabCert.get(), seclabKey.get());
    ASSERT_NE(nullptr, proof);
    ProofOfRotationChain* chain = sk_ProofOfRotation_new_null();
    sk_ProofOfRotation_push(chain, proof);
    unsigned char* der = nullptr;
    int len = i2d_ProofOfRotationChain(chain, &der);
    Bytes chainDer(der, der + len);
    OPENSSL_free(der);
    ProofOfRotationChain_free(chain);

    LoadedSigner signer = loadSigner(pki->seclab());
    appendFile(path, makeBlock(signRange(package, pki->developer()), 2));
    long firstBegin = static_cast<long>(package.size());
    Bytes contents = readFile(path);
    Bytes covered(contents.begin() + firstBegin, contents.end());
    appendFile(path, makeBlock(cmsWithAttribute(covered, signer.borrowed(),
                                                CmsAttribute{rotationChainOid, V_ASN1_SEQUENCE, chainDer}),
                               2));
    EXPECT_EQ("Could not verify old signature in proof-of-rotation\nCould not verify proof[0]\n"
              "Proof-of-rotation chain verification failed\n",
              stderrOf([&] { EXPECT_FALSE(verify()); }));
}

// Peer checks: openssl verifies every block over exactly the range it covers.
TEST_F(SignatureVerification, OpensslVerifiesEachBlockOverItsCoveredRange)
{
    ASSERT_TRUE(signFile(path, pki->developer(), framed()));
    ASSERT_TRUE(signFile(path, pki->seclab()));
    ASSERT_TRUE(signFile(path, pki->client(), framed()));
    ASSERT_TRUE(verify());

    Bytes contents = readFile(path);
    auto cmses = FileWithCmses::fromPath(path.c_str(), "r")->cmses();
    ASSERT_EQ(3u, cmses.size());
    long developerBegin = static_cast<long>(package.size()) + 8;
    long seclabBegin = developerBegin + static_cast<long>(cmses[0].size()) + 12;
    long clientBegin = seclabBegin + static_cast<long>(cmses[1].size()) + 12 + 8;
    struct Covered {
        long begin, end;
    } covered[] = {{0, static_cast<long>(package.size())},
                   {developerBegin, seclabBegin},
                   {seclabBegin, clientBegin - 8}};
    for (size_t i = 0; i < 3; ++i) {
        std::string der = dir.file("block" + std::to_string(i) + ".der");
        std::string range = dir.file("range" + std::to_string(i) + ".bin");
        writeFile(der, cmses[i].data());
        writeFile(range, Bytes(contents.begin() + covered[i].begin, contents.begin() + covered[i].end));
        auto result = runCommand({"openssl", "cms", "-verify", "-engine", "gost", "-binary", "-inform", "DER", "-in",
                                  der, "-content", range, "-CAfile", pki->ca().certPath, "-out", "/dev/null"});
        EXPECT_EQ(0, result.exitCode) << "block " << i << ": " << result.errors;
        EXPECT_NE(std::string::npos, result.errors.find("CMS Verification successful")) << result.errors;
    }
}

TEST_F(SignatureVerification, AZstdStreamFollowedBySignatureBlocksStillDecompresses)
{
    std::string plain = dir.file("plain");
    writeFile(plain, patternBytes(20000, 6));
    ASSERT_EQ(0, runCommand({"zstd", "-q", "-f", plain, "-o", path}).exitCode);
    ASSERT_TRUE(signFile(path, pki->developer(), framed()));
    ASSERT_TRUE(signFile(path, pki->seclab(), framed()));
    ASSERT_TRUE(signFile(path, pki->client(), framed()));
    ASSERT_TRUE(verify());
    auto result = runCommand({"zstd", "-d", "-q", "-c", path});
    ASSERT_EQ(0, result.exitCode) << result.errors;
    Bytes expected = patternBytes(20000, 6);
    EXPECT_EQ(std::string(expected.begin(), expected.end()), result.output);
}

class SignedRpm : public SignatureVerification, public ::testing::WithParamInterface<const char*> {};

TEST_P(SignedRpm, ARealPackageSignedThreeTimesStillListsAndUnpacks)
{
    std::string rpm = buildRpm(dir.path(), "demo",
                               {directory("/usr/share/demo"), regularFile("/usr/share/demo/hello.txt", "hello\n"),
                                regularFile("/usr/share/demo/empty", ""), symbolicLink("/usr/share/demo/link", "hello.txt")},
                               GetParam());
    ASSERT_TRUE(FileWithCmses::fromPath(rpm.c_str(), "r")->isRpmPackage());
    ASSERT_TRUE(signFile(rpm, pki->developer(), framed()));
    ASSERT_TRUE(signFile(rpm, pki->seclab(), framed()));
    ASSERT_TRUE(signFile(rpm, pki->client(), framed()));
    EXPECT_TRUE(verifyFile(rpm, pki->ca().certPath));

    auto listed = runCommand({"rpm", "-qpl", rpm});
    EXPECT_EQ(0, listed.exitCode) << listed.errors;
    EXPECT_EQ("/usr/share/demo\n/usr/share/demo/empty\n/usr/share/demo/hello.txt\n/usr/share/demo/link\n",
              listed.output);
    auto unpacked = runShell("rpm2cpio '" + rpm + "' | cpio -t --quiet");
    EXPECT_EQ(0, unpacked.exitCode) << unpacked.errors;
    EXPECT_NE(std::string::npos, unpacked.output.find("./usr/share/demo/hello.txt")) << unpacked.output;
}

INSTANTIATE_TEST_SUITE_P(Payloads, SignedRpm, ::testing::Values("zstd", "gzip", "xz", "bzip2"));

}  // namespace
