// cms_sign: detached GOST signatures over a byte range, checked with
// OpenSSL's own CMS verification and with the openssl command, the signed
// attributes they carry, and the rotation chain with its last-link check.
#include <memory>
#include <optional>
#include <string>

#include <gtest/gtest.h>
#include <openssl/cms.h>
#include <openssl/x509v3.h>

#include <sealkeep/sealkeep.h>

#include "support/cms_builder.hpp"
#include "support/files.hpp"
#include "support/pki.hpp"
#include "support/process.hpp"
#include "support/stderr_capture.hpp"

namespace sealkeep::test {
namespace {

using SignedBuffer = std::unique_ptr<unsigned char, Deleter<free>>;

constexpr std::size_t untouchedLength = 0xDEADBEEF;

struct Signing {
    std::optional<Bytes> der;
    std::string errors;
    std::size_t outLength = untouchedLength;
};

CmsPtr decode(Bytes const& der)
{
    return CmsPtr(cms_from_der(der.data(), static_cast<long>(der.size())));
}

CMS_SignerInfo* onlySigner(CMS_ContentInfo* cms)
{
    return sk_CMS_SignerInfo_value(CMS_get0_SignerInfos(cms), 0);
}

class CmsSign : public testing::Test {
protected:
    static void SetUpTestSuite()
    {
        pki = std::make_unique<Pki>();
        developer = std::make_unique<LoadedSigner>(loadSigner(pki->developer()));
        for (const char* name : {"a", "b", "c"})
            rotation[name[0] - 'a'] = pki->issue(name, "developer");
        for (int i = 0; i < 3; ++i)
            rotationSigners[i] = loadSigner(rotation[i]);
        store.reset(certificate_store_read(pki->ca().certPath.c_str()));
    }

    static void TearDownTestSuite()
    {
        store.reset();
        for (auto& signer : rotationSigners)
            signer = LoadedSigner{};
        developer.reset();
        pki.reset();
    }

    static LoadedSigner const& rotationSigner(char name) { return rotationSigners[name - 'a']; }

    static Signing sign(Bytes const& range, CmsSigner signer, ProofOfRotationChain* chain = nullptr,
                        int signFiles = 1)
    {
        Signing result;
        result.errors = stderrOf([&] {
            SignedBuffer out(cms_sign(range.data(), range.size(), signFiles, signer.key, nullptr, 0,
                                      signer.cert, chain, &result.outLength));
            if (out)
                result.der = Bytes(out.get(), out.get() + result.outLength);
        });
        return result;
    }

    static bool verifies(Bytes const& der, Bytes const& range)
    {
        CmsPtr cms = decode(der);
        static const unsigned char nothing = 0;
        BioPtr content(BIO_new_mem_buf(range.empty() ? &nothing : range.data(),
                                       static_cast<int>(range.size())));
        return cms && CMS_verify(cms.get(), nullptr, store.get(), content.get(), nullptr, CMS_BINARY) == 1;
    }

    // The chain A -> B -> C, written by two calls of the chain tool.
    ChainPtr chainFromTool(std::initializer_list<char> names)
    {
        std::string path = dir.file("chain.pem");
        const char* in = nullptr;
        for (auto name = names.begin(); name + 1 != names.end(); ++name) {
            Identity const& oldOne = rotation[*name - 'a'];
            Identity const& newOne = rotation[*(name + 1) - 'a'];
            if (make_proof_of_rotation_chain(path.c_str(), in, oldOne.certPath.c_str(),
                                             oldOne.keyPath.c_str(), newOne.certPath.c_str(),
                                             newOne.keyPath.c_str()) != 0)
                throw std::runtime_error("cannot make the rotation chain");
            in = path.c_str();
        }
        return ChainPtr(ProofOfRotationChain_read(path.c_str()));
    }

    static Bytes derOf(ProofOfRotationChain* chain)
    {
        unsigned char* der = nullptr;
        int length = i2d_ProofOfRotationChain(chain, &der);
        OpensslBytesPtr owner(der);
        return Bytes(der, der + length);
    }

    TempDir dir;
    static inline std::unique_ptr<Pki> pki;
    static inline std::unique_ptr<LoadedSigner> developer;
    static inline Identity rotation[3];
    static inline LoadedSigner rotationSigners[3];
    static inline X509StorePtr store;
};

// ---------------------------------------------------------------------------
// The signature itself

TEST_F(CmsSign, DetachedSignatureVerifiesOverExactlyTheRange)
{
    Bytes range = patternBytes(5000);
    Bytes original = range;
    Signing signing = sign(range, developer->borrowed());
    ASSERT_TRUE(signing.der) << signing.errors;
    EXPECT_EQ("", signing.errors);
    EXPECT_EQ(range, original);
    EXPECT_EQ(signing.der->size(), signing.outLength);

    EXPECT_TRUE(verifies(*signing.der, range));
    Bytes changed = range;
    changed[4321] ^= 1;
    EXPECT_FALSE(verifies(*signing.der, changed));
    EXPECT_FALSE(verifies(*signing.der, Bytes(range.begin(), range.end() - 1)));

    CmsPtr cms = decode(*signing.der);
    EXPECT_EQ(1, CMS_is_detached(cms.get()));
}

TEST_F(CmsSign, SignerIsNamedByKeyIdentifierAndItsCertificateIncluded)
{
    Signing signing = sign(patternBytes(100), developer->borrowed());
    ASSERT_TRUE(signing.der);
    CmsPtr cms = decode(*signing.der);
    CMS_SignerInfo* signer = onlySigner(cms.get());

    ASN1_OCTET_STRING* keyid = nullptr;
    X509_NAME* issuer = nullptr;
    ASN1_INTEGER* serial = nullptr;
    ASSERT_EQ(1, CMS_SignerInfo_get0_signer_id(signer, &keyid, &issuer, &serial));
    ASSERT_NE(nullptr, keyid);
    EXPECT_EQ(nullptr, issuer);
    EXPECT_EQ(0, ASN1_OCTET_STRING_cmp(keyid, X509_get0_subject_key_id(developer->cert.get())));

    X509* included = cms_get_certificate(cms.get());
    ASSERT_NE(nullptr, included);
    EXPECT_EQ(0, X509_cmp(included, developer->cert.get()));
}

TEST_F(CmsSign, SignedAttributesAreOpenSslsOwnWithTheKeysDigest)
{
    Signing signing = sign(patternBytes(100), developer->borrowed());
    ASSERT_TRUE(signing.der);
    CmsPtr cms = decode(*signing.der);
    CMS_SignerInfo* signer = onlySigner(cms.get());

    EXPECT_EQ(3, CMS_signed_get_attr_count(signer));
    EXPECT_GE(CMS_signed_get_attr_by_NID(signer, NID_pkcs9_contentType, -1), 0);
    EXPECT_GE(CMS_signed_get_attr_by_NID(signer, NID_pkcs9_signingTime, -1), 0);
    EXPECT_GE(CMS_signed_get_attr_by_NID(signer, NID_pkcs9_messageDigest, -1), 0);
    EXPECT_LT(CMS_signed_get_attr_by_NID(signer, NID_SMIMECapabilities, -1), 0);

    X509_ALGOR* digest = nullptr;
    CMS_SignerInfo_get0_algs(signer, nullptr, nullptr, &digest, nullptr);
    EXPECT_EQ(982, OBJ_obj2nid(digest->algorithm));  // GOST R 34.11-2012 256-bit
}

TEST_F(CmsSign, EmptyAndMultiPieceRangesVerify)
{
    for (std::size_t size : {std::size_t{0}, std::size_t{100 * 1024 + 3}}) {
        Bytes range = patternBytes(size, 9);
        Signing signing = sign(range, developer->borrowed());
        ASSERT_TRUE(signing.der) << signing.errors;
        EXPECT_TRUE(verifies(*signing.der, range)) << size;
    }
}

TEST_F(CmsSign, OpensslVerifiesTheDetachedSignature)
{
    Bytes range = patternBytes(20000);
    range[10] = '\r';
    range[11] = '\n';
    Signing signing = sign(range, developer->borrowed());
    ASSERT_TRUE(signing.der);
    writeFile(dir.file("sig.der"), *signing.der);
    writeFile(dir.file("range.bin"), range);

    CommandResult result = runCommand({"openssl", "cms", "-verify", "-engine", "gost", "-binary",
                                       "-inform", "DER", "-in", dir.file("sig.der"), "-content",
                                       dir.file("range.bin"), "-CAfile", pki->ca().certPath,
                                       "-out", "/dev/null"});
    EXPECT_EQ(0, result.exitCode) << result.errors;
    EXPECT_NE(std::string::npos, result.errors.find("CMS Verification successful"));
}

TEST_F(CmsSign, OpensslPrintsKeyIdentifierCertificateAndPrivateAttribute)
{
    ChainPtr chain = chainFromTool({'a', 'b', 'c'});
    Signing signing = sign(patternBytes(100), rotationSigner('c').borrowed(), chain.get());
    ASSERT_TRUE(signing.der) << signing.errors;
    writeFile(dir.file("sig.der"), *signing.der);

    CommandResult result = runCommand({"openssl", "cms", "-cmsout", "-print", "-inform", "DER",
                                       "-engine", "gost", "-in", dir.file("sig.der")});
    ASSERT_EQ(0, result.exitCode) << result.errors;
    std::string const& text = result.output;
    EXPECT_NE(std::string::npos, text.find("d.subjectKeyIdentifier"));
    EXPECT_EQ(std::string::npos, text.find("d.issuerAndSerialNumber"));
    EXPECT_NE(std::string::npos, text.find("certificates:\n      d.certificate:"));
    EXPECT_NE(std::string::npos, text.find("subject: CN=c\n"));
    EXPECT_EQ(std::string::npos, text.find("SMIME"));
    EXPECT_NE(std::string::npos, text.find("1.2.999.4.17.1.3.2"));
    EXPECT_NE(std::string::npos, text.find("eContent: <ABSENT>"));
}

// ---------------------------------------------------------------------------
// Per-file attributes are left out of anything but a package signed per file

TEST_F(CmsSign, ShortRangeGetsNoFileAttributes)
{
    Signing signing = sign(Bytes{0xED, 0xAB, 0xEE}, developer->borrowed(), nullptr, 1);
    ASSERT_TRUE(signing.der);
    EXPECT_EQ("", signing.errors);
    CmsPtr cms = decode(*signing.der);
    EXPECT_EQ(3, CMS_signed_get_attr_count(onlySigner(cms.get())));
    EXPECT_EQ("", stderrOf([&] { EXPECT_EQ(nullptr, cms_get_file_signatures(cms.get(), 1)); }));
    EXPECT_EQ("No file signatures found in CMS\n",
              stderrOf([&] { EXPECT_EQ(nullptr, cms_get_file_signatures(cms.get(), 0)); }));
}

TEST_F(CmsSign, ExistingSignatureBlockGetsNoFileAttributes)
{
    Bytes block = sign(patternBytes(100), developer->borrowed()).der.value();
    Signing signing = sign(block, developer->borrowed(), nullptr, 1);
    ASSERT_TRUE(signing.der);
    EXPECT_EQ(3, CMS_signed_get_attr_count(onlySigner(decode(*signing.der).get())));
    EXPECT_TRUE(verifies(*signing.der, block));
}

TEST_F(CmsSign, PackageSignedWithoutSignFilesGetsNoFileAttributes)
{
    Bytes range = concat({{0xED, 0xAB, 0xEE, 0xDB}, patternBytes(200)});
    Signing signing = sign(range, developer->borrowed(), nullptr, 0);
    ASSERT_TRUE(signing.der);
    EXPECT_EQ("", signing.errors);
    CmsPtr cms = decode(*signing.der);
    CMS_SignerInfo* signer = onlySigner(cms.get());
    EXPECT_EQ(3, CMS_signed_get_attr_count(signer));
    EXPECT_EQ("", stderrOf([&] { EXPECT_EQ(nullptr, cms_get_file_signatures(cms.get(), 1)); }));
}

// ---------------------------------------------------------------------------
// Signer failures

TEST_F(CmsSign, KeyOfAnotherCertificateIsRefused)
{
    Signing signing = sign(patternBytes(10), {developer->cert.get(), rotationSigner('a').key.get()});
    EXPECT_FALSE(signing.der);
    EXPECT_EQ("Could not add CMS signer\n", signing.errors);
    EXPECT_EQ(untouchedLength, signing.outLength);
}

TEST_F(CmsSign, CertificateWithoutKeyIdentifierCannotNameTheSigner)
{
    PkeyPtr key = loadKey(generateKey(dir.file("bare.key")));
    X509Ptr cert = makeBareCertificate(key.get(), "bare");
    signCertificate(cert.get(), key.get());
    Signing signing = sign(patternBytes(10), {cert.get(), key.get()});
    EXPECT_FALSE(signing.der);
    EXPECT_EQ("Could not add CMS signer\n", signing.errors);
}

TEST_F(CmsSign, MissingKeyOrCertificateIsRefused)
{
    EXPECT_EQ("Could not add CMS signer\n",
              sign(patternBytes(10), {developer->cert.get(), nullptr}).errors);
    EXPECT_EQ("Could not add CMS signer\n",
              sign(patternBytes(10), {nullptr, developer->key.get()}).errors);
}

// ---------------------------------------------------------------------------
// Rotation chains

TEST_F(CmsSign, ChainWithoutRotationsIsRefused)
{
    ChainPtr chain(sk_ProofOfRotation_new_null());
    Signing signing = sign(patternBytes(10), developer->borrowed(), chain.get());
    EXPECT_FALSE(signing.der);
    EXPECT_EQ("Proof-of-rotation chain is malformed, no rotations found\n", signing.errors);
    EXPECT_EQ(untouchedLength, signing.outLength);
}

// Every verifier refuses a chain of more than 64 proofs, so none is signed:
// 64 copies of the proof a -> b are embedded for b, 65 are not.
TEST_F(CmsSign, AChainLongerThanTheLimitIsRefused)
{
    ChainPtr single = chainFromTool({'a', 'b'});
    unsigned char* der = nullptr;
    int length = i2d_ProofOfRotation(ProofOfRotationChain_get0_at(single.get(), 0), &der);
    OpensslBytesPtr owner(der);
    for (int count : {64, 65}) {
        ChainPtr chain(sk_ProofOfRotation_new_null());
        for (int i = 0; i < count; ++i) {
            const unsigned char* cursor = der;
            sk_ProofOfRotation_push(chain.get(), d2i_ProofOfRotation(nullptr, &cursor, length));
        }
        Signing signing = sign(patternBytes(10), rotationSigner('b').borrowed(), chain.get());
        if (count == 64) {
            EXPECT_TRUE(signing.der) << signing.errors;
            EXPECT_EQ("", signing.errors);
        } else {
            EXPECT_FALSE(signing.der);
            EXPECT_EQ("Proof-of-rotation chain has 65 proofs, more than the limit of 64\n", signing.errors);
            EXPECT_EQ(untouchedLength, signing.outLength);
        }
    }
}

TEST_F(CmsSign, ChainEndingAtAnotherKeyIsRefused)
{
    ChainPtr chain = chainFromTool({'a', 'b'});
    Signing signing = sign(patternBytes(10), developer->borrowed(), chain.get());
    EXPECT_FALSE(signing.der);
    EXPECT_EQ("Last keyid in rotation chain does not match with certificate's keyid\n",
              signing.errors);
}

TEST_F(CmsSign, ChainOfTwoRotationsIsAcceptedOnlyWithTheNewestCertificate)
{
    ChainPtr chain = chainFromTool({'a', 'b', 'c'});
    ASSERT_EQ(1, ProofOfRotationChain_verify(chain.get()));
    for (char refused : {'a', 'b'}) {
        Signing signing = sign(patternBytes(10), rotationSigner(refused).borrowed(), chain.get());
        EXPECT_FALSE(signing.der) << refused;
        EXPECT_EQ("Last keyid in rotation chain does not match with certificate's keyid\n",
                  signing.errors);
    }

    Bytes range = patternBytes(700);
    Signing signing = sign(range, rotationSigner('c').borrowed(), chain.get());
    ASSERT_TRUE(signing.der) << signing.errors;
    EXPECT_EQ("", signing.errors);
    EXPECT_TRUE(verifies(*signing.der, range));

    CmsPtr cms = decode(*signing.der);
    EXPECT_EQ(4, CMS_signed_get_attr_count(onlySigner(cms.get())));
    ChainPtr carried(cms_get_rotation_chain(cms.get()));
    ASSERT_TRUE(carried);
    EXPECT_EQ(derOf(chain.get()), derOf(carried.get()));
}

}  // namespace
}  // namespace sealkeep::test
