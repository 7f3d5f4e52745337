// The verification report (FileWithCmses::verificationReport): every reason
// it gives, each produced by tampering with a real signed package, and its
// agreement with verifyCmses, verdict and messages alike.
#include <set>

#include <gtest/gtest.h>

#include <sealkeep/sealkeep.hpp>

#include "support/blocks.hpp"
#include "support/cms_builder.hpp"
#include "support/rpm_builder.hpp"
#include "support/shared_pki.hpp"
#include "support/signing.hpp"
#include "support/stderr_capture.hpp"
#include "support/temp_dir.hpp"

namespace {

using namespace sealkeep::test;
using namespace PackageSignatures;
using sealkeep::PkeyPtr;
using sealkeep::X509Ptr;

const std::string verificationFailed = "CMS verification failed\n";

class VerificationReportTest : public SharedPkiTest {
protected:
    static void SetUpTestSuite()
    {
        SharedPkiTest::SetUpTestSuite();
        rpmDir = std::make_unique<TempDir>();
        std::string rpm = buildRpm(rpmDir->path(), "report",
                                   {directory("/usr/share/report"), regularFile("/usr/share/report/a.txt", "a\n")});
        package = std::make_unique<Bytes>(readFile(rpm));
    }
    static void TearDownTestSuite()
    {
        package.reset();
        rpmDir.reset();
        SharedPkiTest::TearDownTestSuite();
    }

    void SetUp() override { writeFile(path, *package); }

    long packageSize() const { return static_cast<long>(package->size()); }

    // The report, after checking that verifyCmses gives the same verdict
    // with the same lines on stderr.
    VerificationReport report(std::string const& caPath)
    {
        bool verdict = false;
        std::string verifyErrors = stderrOf([&] { verdict = verifyFile(path, caPath); });
        VerificationReport result;
        std::string reportErrors = stderrOf([&] {
            auto file = FileWithCmses::fromPath(path.c_str(), "r");
            result = file->verificationReport(caPath.c_str());
        });
        EXPECT_EQ(verdict, result.verified());
        EXPECT_EQ(verifyErrors, reportErrors);
        lastErrors = reportErrors;
        return result;
    }
    VerificationReport report() { return report(pki->ca().certPath); }

    // Where the CMS of the newest block begins, with every block version 2.
    long newestCmsBegin()
    {
        auto cmses = FileWithCmses::fromPath(path.c_str(), "r")->cmses();
        return fileSize(path) - 12 - static_cast<long>(cmses.back().size());
    }

    void flipByte(long offset)
    {
        Bytes contents = readFile(path);
        contents[static_cast<size_t>(offset)] ^= 0x01;
        writeFile(path, contents);
    }

    // A version-2 block by signer over [begin, end of file) carrying a
    // rotation chain attribute of chainDer.
    void appendWithRotation(Identity const& who, long begin, Bytes const& chainDer)
    {
        Bytes contents = readFile(path);
        Bytes covered(contents.begin() + begin, contents.end());
        LoadedSigner signer = loadSigner(who);
        appendFile(path, makeBlock(cmsWithAttribute(covered, signer.borrowed(),
                                                    CmsAttribute{rotationChainOid, V_ASN1_SEQUENCE, chainDer}),
                                   2));
    }

    static Bytes derOf(ProofOfRotationChain* chain)
    {
        unsigned char* der = nullptr;
        int length = i2d_ProofOfRotationChain(chain, &der);
        Bytes bytes(der, der + length);
        OPENSSL_free(der);
        return bytes;
    }

    static void expectBlock(BlockVerification const& block, std::size_t index, Group group, long begin, long end,
                            VerificationReason reason)
    {
        EXPECT_EQ(index, block.index());
        EXPECT_EQ(group, block.group());
        EXPECT_EQ(begin, block.coveredBegin());
        EXPECT_EQ(end, block.coveredEnd());
        EXPECT_EQ(reason, block.reason()) << reasonName(block.reason());
    }

    // The report of a stack of one block, covering the package, refused there.
    void expectRefusedAlone(VerificationReport const& result, Group group, VerificationReason reason) const
    {
        EXPECT_EQ(reason, result.reason());
        ASSERT_EQ(1u, result.blocks().size());
        expectBlock(result.blocks()[0], 0, group, 0, packageSize(), reason);
    }

    static inline std::unique_ptr<TempDir> rpmDir;
    static inline std::unique_ptr<Bytes> package;
    TempDir dir;
    std::string path = dir.file("package.rpm");
    std::string lastErrors;
};

TEST_F(VerificationReportTest, EveryReasonHasAStableName)
{
    const std::vector<std::pair<VerificationReason, std::string>> names{
        {VerificationReason::Ok, "ok"},
        {VerificationReason::UnreadableCa, "unreadable_ca"},
        {VerificationReason::NoSignatures, "no_signatures"},
        {VerificationReason::TooManySignatures, "too_many_signatures"},
        {VerificationReason::GroupNotAllowed, "group_not_allowed"},
        {VerificationReason::ContentDigestMismatch, "content_digest_mismatch"},
        {VerificationReason::CertificateChainNotTrusted, "certificate_chain_not_trusted"},
        {VerificationReason::RotationChainInvalid, "rotation_chain_invalid"},
        {VerificationReason::RotationChainNotAtSigner, "rotation_chain_not_at_signer"},
        {VerificationReason::CmsMalformed, "cms_malformed"},
        {VerificationReason::SignatureInvalid, "signature_invalid"},
    };
    for (auto const& [reason, name] : names)
        EXPECT_EQ(name, reasonName(reason));
    EXPECT_STREQ("unknown", reasonName(static_cast<VerificationReason>(99)));
}

TEST_F(VerificationReportTest, AFullStackReportsEveryBlockWithItsCoveredRange)
{
    ASSERT_TRUE(signFile(path, pki->developer()));
    long developerBegin = packageSize();
    ASSERT_TRUE(signFile(path, pki->seclab(), framed()));
    long seclabBegin = newestCmsBegin();
    ASSERT_TRUE(signFile(path, pki->client()));
    long clientBegin = newestCmsBegin();

    VerificationReport result = report();
    EXPECT_TRUE(result.verified());
    EXPECT_EQ(VerificationReason::Ok, result.reason());
    EXPECT_EQ(3u, result.signatures());
    ASSERT_EQ(3u, result.blocks().size());
    expectBlock(result.blocks()[0], 2, Group::Client, seclabBegin, clientBegin, VerificationReason::Ok);
    // The seclab block is framed: its prefix is not covered.
    expectBlock(result.blocks()[1], 1, Group::Seclab, developerBegin, seclabBegin - 8, VerificationReason::Ok);
    expectBlock(result.blocks()[2], 0, Group::Developer, 0, packageSize(), VerificationReason::Ok);
    EXPECT_EQ("", lastErrors);
}

TEST_F(VerificationReportTest, AnUnreadableCaIsReportedBeforeAnyBlock)
{
    ASSERT_TRUE(signFile(path, pki->developer()));
    VerificationReport result = report(dir.file("missing-ca.pem"));
    EXPECT_FALSE(result.verified());
    EXPECT_EQ(VerificationReason::UnreadableCa, result.reason());
    EXPECT_TRUE(result.blocks().empty());
}

TEST_F(VerificationReportTest, AnUnsignedPackageHasNoSignatures)
{
    VerificationReport result = report();
    EXPECT_EQ(VerificationReason::NoSignatures, result.reason());
    EXPECT_EQ(0u, result.signatures());
    EXPECT_TRUE(result.blocks().empty());
    EXPECT_EQ("", lastErrors);
}

TEST_F(VerificationReportTest, AFourthBlockIsTooMany)
{
    ASSERT_TRUE(signFile(path, pki->developer()));
    ASSERT_TRUE(signFile(path, pki->seclab()));
    ASSERT_TRUE(signFile(path, pki->client()));
    Bytes contents = readFile(path);
    appendFile(path, makeBlock(signRange(contents, pki->client()), 2));
    VerificationReport result = report();
    EXPECT_EQ(VerificationReason::TooManySignatures, result.reason());
    EXPECT_EQ(4u, result.signatures());
    EXPECT_TRUE(result.blocks().empty());
}

TEST_F(VerificationReportTest, ASeclabSignatureFirstBreaksThePositionRule)
{
    appendFile(path, makeBlock(signRange(*package, pki->seclab()), 2));
    VerificationReport result = report();
    expectRefusedAlone(result, Group::Seclab, VerificationReason::GroupNotAllowed);
    EXPECT_EQ("", lastErrors);
}

TEST_F(VerificationReportTest, AFlippedPayloadByteFailsTheDeveloperBlockOnly)
{
    ASSERT_TRUE(signFile(path, pki->developer()));
    ASSERT_TRUE(signFile(path, pki->seclab()));
    long seclabBegin = newestCmsBegin();
    flipByte(packageSize() - 1);
    VerificationReport result = report();
    EXPECT_EQ(VerificationReason::ContentDigestMismatch, result.reason());
    ASSERT_EQ(2u, result.blocks().size());
    expectBlock(result.blocks()[0], 1, Group::Seclab, packageSize(), seclabBegin, VerificationReason::Ok);
    expectBlock(result.blocks()[1], 0, Group::Developer, 0, packageSize(), VerificationReason::ContentDigestMismatch);
    EXPECT_NE(std::string::npos, lastErrors.find("content verify error")) << lastErrors;
}

// The signature value is the last element of the CMS: a changed byte there
// leaves the covered bytes and their digest intact.
TEST_F(VerificationReportTest, AChangedSignatureValueIsAnInvalidSignature)
{
    ASSERT_TRUE(signFile(path, pki->developer()));
    flipByte(fileSize(path) - 12 - 1);
    VerificationReport result = report();
    expectRefusedAlone(result, Group::Developer, VerificationReason::SignatureInvalid);
    EXPECT_NE(std::string::npos, lastErrors.find("verification failure")) << lastErrors;
    EXPECT_EQ(std::string::npos, lastErrors.find("content verify error")) << lastErrors;
}

TEST_F(VerificationReportTest, AnAttachedDigestThatDiffersIsAContentMismatch)
{
    LoadedSigner signer = loadSigner(pki->developer());
    appendFile(path, makeBlock(attachedCms(patternBytes(32, 3), signer.borrowed()), 2));
    VerificationReport result = report();
    EXPECT_EQ(VerificationReason::ContentDigestMismatch, result.reason());
    EXPECT_EQ("Digests differ from each other (signed data was corrupted?)\n" + verificationFailed, lastErrors);
}

TEST_F(VerificationReportTest, ASignatureOfAnotherCaIsNotTrusted)
{
    Pki otherPki("another CA");
    appendFile(path, makeBlock(signRange(*package, otherPki.developer()), 2));
    VerificationReport result = report();
    expectRefusedAlone(result, Group::Developer, VerificationReason::CertificateChainNotTrusted);
    EXPECT_NE(std::string::npos, lastErrors.find("certificate verify error")) << lastErrors;
}

// A certificate of the CA outside its validity is not blamed on the CA.
TEST_F(VerificationReportTest, ASignerCertificateOutsideItsValidityIsNamedAsSuch)
{
    appendFile(path, makeBlock(signRange(*package, pki->issueWithValidity("lapsed", -2 * 86400, -86400)), 2));
    expectRefusedAlone(report(), Group::Developer, VerificationReason::CertificateExpired);
    EXPECT_STREQ("certificate_expired", PackageSignatures::reasonName(VerificationReason::CertificateExpired));

    writeFile(path, *package);
    appendFile(path, makeBlock(signRange(*package, pki->issueWithValidity("early", 86400, 2 * 86400)), 2));
    expectRefusedAlone(report(), Group::Developer, VerificationReason::CertificateNotYetValid);
    EXPECT_STREQ("certificate_not_yet_valid",
                 PackageSignatures::reasonName(VerificationReason::CertificateNotYetValid));
}

TEST_F(VerificationReportTest, AnAttachedSignatureOfAnotherCaIsNotTrusted)
{
    Pki otherPki("another CA");
    LoadedSigner signer = loadSigner(otherPki.developer());
    appendFile(path, makeBlock(attachedCms(patternBytes(32, 3), signer.borrowed()), 2));
    VerificationReport result = report();
    EXPECT_EQ(VerificationReason::CertificateChainNotTrusted, result.reason());
    EXPECT_EQ("Unable to verify CMS certificate chain\n" + verificationFailed, lastErrors);
}

TEST_F(VerificationReportTest, ARotationProofSignedByTheWrongKeyDoesNotVerify)
{
    X509Ptr seclabCert = loadCertificate(pki->seclab().certPath);
    X509Ptr developerCert = loadCertificate(pki->developer().certPath);
    PkeyPtr clientKey = loadKey(pki->client().keyPath);
    PkeyPtr developerKey = loadKey(pki->developer().keyPath);
    ProofOfRotation* proof =
        ProofOfRotation_create(seclabCert.get(), clientKey.get(), developerCert.get(), developerKey.get());
    ASSERT_NE(nullptr, proof);
    ProofOfRotationChain* chain = sk_ProofOfRotation_new_null();
    sk_ProofOfRotation_push(chain, proof);
    Bytes chainDer = derOf(chain);
    ProofOfRotationChain_free(chain);

    appendWithRotation(pki->developer(), 0, chainDer);
    VerificationReport result = report();
    expectRefusedAlone(result, Group::Developer, VerificationReason::RotationChainInvalid);
    EXPECT_EQ("Could not verify old signature in proof-of-rotation\nCould not verify proof[0]\n"
              "Proof-of-rotation chain verification failed\n",
              lastErrors);
}

TEST_F(VerificationReportTest, ARotationChainEndingAtAnotherKeyIsReported)
{
    std::string chainPath = dir.file("chain.pem");
    ASSERT_EQ(0, make_proof_of_rotation_chain(chainPath.c_str(), nullptr, pki->developer().certPath.c_str(),
                                              pki->developer().keyPath.c_str(), pki->seclab().certPath.c_str(),
                                              pki->seclab().keyPath.c_str()));
    ProofOfRotationChain* chain = ProofOfRotationChain_read(chainPath.c_str());
    ASSERT_NE(nullptr, chain);
    Bytes chainDer = derOf(chain);
    ProofOfRotationChain_free(chain);

    appendWithRotation(pki->developer(), 0, chainDer);
    VerificationReport result = report();
    expectRefusedAlone(result, Group::Developer, VerificationReason::RotationChainNotAtSigner);
    EXPECT_EQ("Last keyid in rotation chain does not match with CMS certificate\n", lastErrors);
}

TEST_F(VerificationReportTest, AnUndecodableNewestBlockIsMalformed)
{
    ASSERT_TRUE(signFile(path, pki->developer()));
    appendFile(path, makeBlock(patternBytes(50, 4), 2));
    VerificationReport result = report();
    EXPECT_EQ(VerificationReason::CmsMalformed, result.reason());
    ASSERT_EQ(1u, result.blocks().size());
    EXPECT_EQ(1u, result.blocks()[0].index());
    EXPECT_EQ(Group::None, result.blocks()[0].group());
    EXPECT_EQ(VerificationReason::CmsMalformed, result.blocks()[0].reason());
    EXPECT_EQ("Could not decode DER CMS\n", lastErrors);
}

TEST_F(VerificationReportTest, ACmsWithTwoSignersIsMalformed)
{
    LoadedSigner developer = loadSigner(pki->developer());
    LoadedSigner seclab = loadSigner(pki->seclab());
    appendFile(path, makeBlock(cmsWithSigners(*package, {developer.borrowed(), seclab.borrowed()}), 2));
    VerificationReport result = report();
    expectRefusedAlone(result, Group::None, VerificationReason::CmsMalformed);
    EXPECT_EQ("CMS verification needs exactly one signer (found: 2)\n" + verificationFailed, lastErrors);
}

TEST_F(VerificationReportTest, ALaterBlockOfUnknownVersionIsMalformed)
{
    ASSERT_TRUE(signFile(path, pki->developer()));
    Bytes contents = readFile(path);
    Bytes covered(contents.begin() + packageSize(), contents.end());
    appendFile(path, makeBlock(signRange(covered, pki->seclab()), 7));
    VerificationReport result = report();
    EXPECT_EQ(VerificationReason::CmsMalformed, result.reason());
    ASSERT_EQ(1u, result.blocks().size());
    EXPECT_EQ(1u, result.blocks()[0].index());
    EXPECT_EQ(VerificationReason::CmsMalformed, result.blocks()[0].reason());
    EXPECT_EQ("", lastErrors);
}

// Who signed each block comes from the walk itself, as the library's own
// certificate readers see it.
TEST_F(VerificationReportTest, EveryBlockNamesItsSigner)
{
    ASSERT_TRUE(signFile(path, pki->developer()));
    ASSERT_TRUE(signFile(path, pki->client()));
    VerificationReport result = report();
    ASSERT_TRUE(result.verified());
    ASSERT_EQ(2u, result.blocks().size());
    for (auto const& [block, who] : {std::pair<BlockVerification const&, Identity const&>{result.blocks()[0], pki->client()},
                                     {result.blocks()[1], pki->developer()}}) {
        Certificate certificate = Certificate::readCertificateFromFile(who.certPath.c_str());
        EXPECT_TRUE(block.signerKnown());
        EXPECT_TRUE(block.verified());
        EXPECT_EQ(certificate.keyId(), block.keyId());
        EXPECT_EQ(certificate.group(), block.group());
        EXPECT_EQ(Subgroup::Regular, block.subgroup());
        EXPECT_EQ("CN=" + certificate.subject(), block.subject());
        EXPECT_EQ("CN=sealkeep test CA", block.issuer());
        EXPECT_EQ(64u, block.sha256Fingerprint().size());
        EXPECT_FALSE(block.serial().empty());
        EXPECT_EQ(20u, block.notBefore().size()) << block.notBefore();
        EXPECT_EQ(20u, block.notAfter().size()) << block.notAfter();
        EXPECT_EQ(20u, block.signingTime().size()) << block.signingTime();
        EXPECT_TRUE(block.previousKeyIds().empty());
    }
    EXPECT_NE(result.blocks()[0].sha256Fingerprint(), result.blocks()[1].sha256Fingerprint());
    EXPECT_EQ("", lastErrors);
}

// A refused block is described as quietly as an accepted one: the only lines
// on standard error are the verification's own.
TEST_F(VerificationReportTest, ARefusedBlockNamesItsSignerWithoutAWord)
{
    Pki otherPki("another CA");
    appendFile(path, makeBlock(signRange(*package, otherPki.developer()), 2));
    VerificationReport result = report();
    ASSERT_EQ(1u, result.blocks().size());
    BlockVerification const& block = result.blocks()[0];
    EXPECT_FALSE(block.verified());
    EXPECT_TRUE(block.signerKnown());
    EXPECT_EQ("CN=another CA", block.issuer());
    EXPECT_EQ(Certificate::readCertificateFromFile(otherPki.developer().certPath.c_str()).keyId(), block.keyId());
    EXPECT_EQ(std::string::npos, lastErrors.find("Failed to")) << lastErrors;
}

TEST_F(VerificationReportTest, ARotatedSignerNamesTheKeysItWasRotatedFrom)
{
    Identity rotated = pki->issue("developer-2", "developer");
    std::string chainPath = dir.file("chain.pem");
    ASSERT_EQ(0, make_proof_of_rotation_chain(chainPath.c_str(), nullptr, pki->developer().certPath.c_str(),
                                              pki->developer().keyPath.c_str(), rotated.certPath.c_str(),
                                              rotated.keyPath.c_str()));
    ProofOfRotationChain* chain = ProofOfRotationChain_read(chainPath.c_str());
    ASSERT_NE(nullptr, chain);
    Bytes chainDer = derOf(chain);
    ProofOfRotationChain_free(chain);
    appendWithRotation(rotated, 0, chainDer);
    VerificationReport result = report();
    ASSERT_TRUE(result.verified()) << lastErrors;
    EXPECT_EQ(std::vector<std::string>{Certificate::readCertificateFromFile(pki->developer().certPath.c_str()).keyId()},
              result.blocks()[0].previousKeyIds());
}

// Reports are values: copies and moves keep every fact, and a moved-from
// report still answers.
TEST_F(VerificationReportTest, ReportsCopyAndMoveWhole)
{
    ASSERT_TRUE(signFile(path, pki->developer()));
    VerificationReport original = report();
    VerificationReport copy = original;
    EXPECT_EQ(original.blocks()[0].keyId(), copy.blocks()[0].keyId());
    VerificationReport moved = std::move(original);
    EXPECT_TRUE(moved.verified());
    EXPECT_EQ(copy.blocks()[0].sha256Fingerprint(), moved.blocks()[0].sha256Fingerprint());
    EXPECT_FALSE(original.verified());  // NOLINT(bugprone-use-after-move): a valid, empty report
    EXPECT_TRUE(original.blocks().empty());
    copy = moved;
    BlockVerification block = copy.blocks()[0];
    BlockVerification other;
    other = std::move(block);
    EXPECT_EQ(moved.blocks()[0].keyId(), other.keyId());
    EXPECT_FALSE(block.signerKnown());  // NOLINT(bugprone-use-after-move)
}

// Any file that gives no certificate is an unreadable CA, not an untrusted signer.
TEST_F(VerificationReportTest, ACaFileWithoutCertificatesIsUnreadable)
{
    ASSERT_TRUE(signFile(path, pki->developer()));
    std::string garbage = dir.file("garbage.pem");
    writeText(garbage, "not a certificate\n");
    for (std::string const& ca : {garbage, pki->ca().keyPath}) {
        VerificationReport result = report(ca);
        EXPECT_EQ(VerificationReason::UnreadableCa, result.reason()) << ca;
        EXPECT_TRUE(result.blocks().empty());
    }
}

// The table of reasons: every reason has a distinct snake_case name, a
// sentence and an exit status, and the two policy reasons are among them.
TEST(VerificationReasons, EveryReasonHasANameATextAndAnExitStatus)
{
    std::vector<VerificationReason> reasons = verificationReasons();
    ASSERT_GE(reasons.size(), 15u);
    EXPECT_EQ(VerificationReason::Ok, reasons.front());
    std::set<std::string> names;
    for (std::size_t i = 0; i < reasons.size(); ++i) {
        EXPECT_EQ(i, static_cast<std::size_t>(reasons[i]));
        std::string name = reasonName(reasons[i]);
        EXPECT_TRUE(names.insert(name).second) << name;
        EXPECT_NE("unknown", name);
        for (char c : name)
            EXPECT_TRUE((c >= 'a' && c <= 'z') || c == '_') << name;
        EXPECT_STRNE("unknown reason", reasonText(reasons[i])) << name;
        EXPECT_GT(std::string(reasonText(reasons[i])).size(), 5u) << name;
        EXPECT_EQ(reasons[i] == VerificationReason::Ok ? 0 : 1, reasonExitStatus(reasons[i])) << name;
    }
    EXPECT_TRUE(names.count("signer_not_pinned"));
    EXPECT_TRUE(names.count("stack_incomplete"));
    auto beyond = static_cast<VerificationReason>(reasons.size());
    EXPECT_STREQ("unknown", reasonName(beyond));
    EXPECT_STREQ("unknown reason", reasonText(beyond));
    EXPECT_EQ(1, reasonExitStatus(beyond));
}

}  // namespace
