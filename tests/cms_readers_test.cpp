// The CMS readers: decoding DER, the one-signer and one-certificate rules,
// the signature as base64 text, the two signature tables and the rotation
// chain carried as signed attributes, and who owns each result.
#include <malloc.h>

#include <cstring>
#include <memory>
#include <string>
#include <utility>
#include <vector>

#include <gtest/gtest.h>
#include <openssl/cms.h>

#include <sealkeep/sealkeep.h>

#include "support/cms_builder.hpp"
#include "support/files.hpp"
#include "support/pki.hpp"
#include "support/stderr_capture.hpp"

#if defined(__SANITIZE_ADDRESS__)
// From the sanitizer runtime: the size a block was requested with.
extern "C" std::size_t __sanitizer_get_allocated_size(const volatile void* p);
#endif

namespace sealkeep::test {
namespace {

const Bytes content = patternBytes(300);

CmsPtr decode(Bytes const& der)
{
    return CmsPtr(cms_from_der(der.data(), static_cast<long>(der.size())));
}

// DER of a FileSignatures table (version 1) with the given entries.
Bytes fileSignaturesDer(std::vector<std::pair<long, std::string>> const& entries)
{
    FileSignaturesPtr table(FileSignatures_new());
    ASN1_INTEGER_set(table->version, 1);
    for (auto const& [index, value] : entries) {
        FileSignaturePtr entry(FileSignature_new());
        ASN1_INTEGER_set(entry->index, index);
        ASN1_OCTET_STRING_set(entry->value, reinterpret_cast<const unsigned char*>(value.data()),
                              static_cast<int>(value.size()));
        sk_FileSignature_push(table->signatures, entry.release());
    }
    unsigned char* der = nullptr;
    int length = i2d_FileSignatures(table.get(), &der);
    OpensslBytesPtr owner(der);
    return Bytes(der, der + length);
}

std::string valueOf(FileSignature* entry)
{
    int length = 0;
    const unsigned char* data = FileSignature_value(entry, &length);
    return std::string(reinterpret_cast<const char*>(data), static_cast<std::size_t>(length));
}

class CmsReaders : public testing::Test {
protected:
    static void SetUpTestSuite()
    {
        pki = std::make_unique<Pki>();
        developer = std::make_unique<LoadedSigner>(loadSigner(pki->developer()));
        client = std::make_unique<LoadedSigner>(loadSigner(pki->client()));
        caCert = loadCertificate(pki->ca().certPath);
    }

    static void TearDownTestSuite()
    {
        caCert.reset();
        client.reset();
        developer.reset();
        pki.reset();
    }

    static CmsPtr signedBy(LoadedSigner const& signer)
    {
        return decode(cmsWithSigners(content, {signer.borrowed()}));
    }

    static CmsPtr withAttribute(const char* oid, Bytes const& value, int type = V_ASN1_SEQUENCE)
    {
        return decode(cmsWithAttribute(content, developer->borrowed(), {oid, type, value}));
    }

    // DER of a chain of one proof: developer -> client.
    static Bytes oneRotationChainDer()
    {
        ChainPtr chain(sk_ProofOfRotation_new_null());
        sk_ProofOfRotation_push(chain.get(),
                                ProofOfRotation_create(developer->cert.get(), developer->key.get(),
                                                       client->cert.get(), client->key.get()));
        unsigned char* der = nullptr;
        int length = i2d_ProofOfRotationChain(chain.get(), &der);
        OpensslBytesPtr owner(der);
        return Bytes(der, der + length);
    }

    static inline std::unique_ptr<Pki> pki;
    static inline std::unique_ptr<LoadedSigner> developer;
    static inline std::unique_ptr<LoadedSigner> client;
    static inline X509Ptr caCert;
};

// ---------------------------------------------------------------------------
// cms_from_der

TEST_F(CmsReaders, DecodesDerWithoutMessage)
{
    Bytes der = cmsWithSigners(content, {developer->borrowed()});
    CmsPtr cms;
    EXPECT_EQ("", stderrOf([&] { cms = decode(der); }));
    ASSERT_TRUE(cms);
    EXPECT_EQ(NID_pkcs7_signed, OBJ_obj2nid(CMS_get0_type(cms.get())));
}

TEST_F(CmsReaders, GarbageIsNotDecoded)
{
    Bytes garbage = patternBytes(100, 7);
    CmsPtr cms;
    EXPECT_EQ("Could not decode DER CMS\n", stderrOf([&] { cms = decode(garbage); }));
    EXPECT_FALSE(cms);
}

TEST_F(CmsReaders, TruncatedDerIsNotDecoded)
{
    Bytes der = cmsWithSigners(content, {developer->borrowed()});
    der.resize(der.size() / 2);
    CmsPtr cms;
    EXPECT_EQ("Could not decode DER CMS\n", stderrOf([&] { cms = decode(der); }));
    EXPECT_FALSE(cms);
}

// No memory BIO is made over no bytes, and that failure prints nothing.
TEST_F(CmsReaders, EmptyInputIsNotDecodedSilently)
{
    static const unsigned char nothing = 0;
    EXPECT_EQ("", stderrOf([] { EXPECT_EQ(nullptr, cms_from_der(&nothing, 0)); }));
    EXPECT_EQ("", stderrOf([] { EXPECT_EQ(nullptr, cms_from_der(nullptr, 0)); }));
}

TEST_F(CmsReaders, NegativeLengthIsRefusedAndNullBufferSilently)
{
    static const unsigned char byte = 0x30;
    EXPECT_EQ("Could not decode DER CMS\n",
              stderrOf([] { EXPECT_EQ(nullptr, cms_from_der(&byte, -1)); }));
    EXPECT_EQ("", stderrOf([] { EXPECT_EQ(nullptr, cms_from_der(nullptr, 10)); }));
}

TEST_F(CmsReaders, AttachedSignatureIsReadLikeADetachedOne)
{
    CmsPtr cms = decode(attachedCms(content, developer->borrowed()));
    ASSERT_TRUE(cms);
    EXPECT_EQ(0, CMS_is_detached(cms.get()));
    ASN1_OCTET_STRING** embedded = CMS_get0_content(cms.get());
    ASSERT_TRUE(embedded && *embedded);
    EXPECT_EQ(content, Bytes(ASN1_STRING_get0_data(*embedded),
                             ASN1_STRING_get0_data(*embedded) + ASN1_STRING_length(*embedded)));
    MallocPtr signature(cms_get_signature(cms.get()));
    EXPECT_TRUE(signature);
    EXPECT_EQ(0, X509_cmp(developer->cert.get(), cms_get_certificate(cms.get())));
}

// ---------------------------------------------------------------------------
// cms_get_certificate

TEST_F(CmsReaders, CertificateIsTheSignersAndBorrowed)
{
    CmsPtr cms = signedBy(*developer);
    X509* cert = nullptr;
    EXPECT_EQ("", stderrOf([&] { cert = cms_get_certificate(cms.get()); }));
    ASSERT_NE(nullptr, cert);
    EXPECT_EQ(0, X509_cmp(cert, developer->cert.get()));

    // Keeping it beyond the CMS takes a reference of one's own.
    X509_up_ref(cert);
    X509Ptr kept(cert);
    cms.reset();
    EXPECT_EQ(0, X509_cmp(kept.get(), developer->cert.get()));
}

TEST_F(CmsReaders, CaCertificateBesideSignersIsRefusedButSignatureStillReads)
{
    CmsPtr cms = decode(cmsWithExtraCertificates(content, developer->borrowed(), {caCert.get()}));
    ASSERT_TRUE(cms);
    EXPECT_EQ("CMS must contain only one signer\n",
              stderrOf([&] { EXPECT_EQ(nullptr, cms_get_certificate(cms.get())); }));

    MallocPtr signature;
    EXPECT_EQ("", stderrOf([&] { signature.reset(cms_get_signature(cms.get())); }));
    EXPECT_TRUE(signature);
}

TEST_F(CmsReaders, TwoSignersCertificatesAreRefused)
{
    CmsPtr cms = decode(cmsWithSigners(content, {developer->borrowed(), client->borrowed()}));
    EXPECT_EQ("CMS must contain only one signer\n",
              stderrOf([&] { EXPECT_EQ(nullptr, cms_get_certificate(cms.get())); }));
}

TEST_F(CmsReaders, CmsWithoutCertificatesHasNoSigner)
{
    CmsRecipe recipe;
    recipe.content = content;
    recipe.signers = {developer->borrowed()};
    recipe.includeSignerCertificates = false;
    CmsPtr cms = decode(buildCms(recipe));
    EXPECT_EQ("Could not get signers from CMS\n",
              stderrOf([&] { EXPECT_EQ(nullptr, cms_get_certificate(cms.get())); }));
}

// ---------------------------------------------------------------------------
// The one-signer rule of the three signer-based readers

using SignerReader = bool (*)(CMS_ContentInfo*);

bool readsSignature(CMS_ContentInfo* cms)
{
    MallocPtr text(cms_get_signature(cms));
    return text != nullptr;
}

bool readsFileSignatures(CMS_ContentInfo* cms)
{
    FileSignaturesPtr table(cms_get_file_signatures(cms, 0));
    return table != nullptr;
}

bool readsRotationChain(CMS_ContentInfo* cms)
{
    ChainPtr chain(cms_get_rotation_chain(cms));
    return chain != nullptr;
}

class SignerRule : public CmsReaders, public testing::WithParamInterface<SignerReader> {};

TEST_P(SignerRule, NoSignerIsRefused)
{
    CmsPtr cms = decode(cmsWithSigners(content, {}));
    ASSERT_TRUE(cms);
    EXPECT_EQ("No signers found in CMS\n", stderrOf([&] { EXPECT_FALSE(GetParam()(cms.get())); }));
}

TEST_P(SignerRule, TwoSignersAreRefused)
{
    CmsPtr cms = decode(cmsWithSigners(content, {developer->borrowed(), client->borrowed()}));
    ASSERT_TRUE(cms);
    EXPECT_EQ("CMSes with multiple signers are not supported (found: 2)\n",
              stderrOf([&] { EXPECT_FALSE(GetParam()(cms.get())); }));
}

INSTANTIATE_TEST_SUITE_P(Readers, SignerRule,
                         testing::Values(&readsSignature, &readsFileSignatures, &readsRotationChain));

// ---------------------------------------------------------------------------
// cms_get_signature

TEST_F(CmsReaders, SignatureOf64BytesIs88CharactersOfBase64)
{
    CmsPtr cms = signedBy(*developer);
    CMS_SignerInfo* signer = sk_CMS_SignerInfo_value(CMS_get0_SignerInfos(cms.get()), 0);
    ASN1_OCTET_STRING* value = CMS_SignerInfo_get0_signature(signer);
    ASSERT_EQ(64, ASN1_STRING_length(value));

    MallocPtr text(cms_get_signature(cms.get()));
    ASSERT_TRUE(text);
    std::string base64(text.get());
    EXPECT_EQ(88u, base64.size());
    EXPECT_EQ(std::string::npos, base64.find('\n'));

    unsigned char decoded[66];
    ASSERT_EQ(66, EVP_DecodeBlock(decoded, reinterpret_cast<const unsigned char*>(text.get()), 88));
    EXPECT_EQ(0, memcmp(decoded, ASN1_STRING_get0_data(value), 64));

    // (4 * 64 + 12) / 3 + 1 bytes are allocated.
#if defined(__SANITIZE_ADDRESS__)
    EXPECT_EQ(90u, __sanitizer_get_allocated_size(text.get()));
#else
    EXPECT_GE(malloc_usable_size(text.get()), 90u);
#endif
}

TEST_F(CmsReaders, SignatureOfA512BitKeyIs172Characters)
{
    PkeyPtr key = loadKey(generateKey(pki->dir().file("long.key"), 512));
    X509Ptr cert = makeBareCertificate(key.get(), "long key");
    addExtension(cert.get(), NID_subject_key_identifier, "01:02:03:04");
    signCertificate(cert.get(), key.get());
    CmsPtr cms = decode(cmsWithSigners(content, {{cert.get(), key.get()}}));

    MallocPtr text(cms_get_signature(cms.get()));
    ASSERT_TRUE(text);
    EXPECT_EQ(172u, strlen(text.get()));
}

// ---------------------------------------------------------------------------
// cms_get_file_signatures

TEST_F(CmsReaders, MissingTrustletTableIsSilent)
{
    CmsPtr cms = signedBy(*developer);
    EXPECT_EQ("", stderrOf([&] { EXPECT_EQ(nullptr, cms_get_file_signatures(cms.get(), 1)); }));
}

TEST_F(CmsReaders, MissingFileTableIsReported)
{
    CmsPtr cms = signedBy(*developer);
    EXPECT_EQ("No file signatures found in CMS\n",
              stderrOf([&] { EXPECT_EQ(nullptr, cms_get_file_signatures(cms.get(), 0)); }));
}

TEST_F(CmsReaders, AnySelectorButOneMeansTheFileTable)
{
    CmsPtr bare = signedBy(*developer);
    EXPECT_EQ("No file signatures found in CMS\n",
              stderrOf([&] { EXPECT_EQ(nullptr, cms_get_file_signatures(bare.get(), 7)); }));

    CmsPtr withFiles = withAttribute(fileSignaturesOid, fileSignaturesDer({{3, "ima"}}));
    FileSignaturesPtr table(cms_get_file_signatures(withFiles.get(), 7));
    ASSERT_TRUE(table);
    EXPECT_EQ(3, FileSignature_index(FileSignatures_get0_at(table.get(), 0)));
}

TEST_F(CmsReaders, FileTableIsDecoded)
{
    CmsPtr cms = withAttribute(fileSignaturesOid, fileSignaturesDer({{0, "first"}, {5, "sixth"}}));
    FileSignaturesPtr table;
    EXPECT_EQ("", stderrOf([&] { table.reset(cms_get_file_signatures(cms.get(), 0)); }));
    ASSERT_TRUE(table);
    ASSERT_EQ(2, FileSignatures_count(table.get()));
    EXPECT_EQ(0, FileSignature_index(FileSignatures_get0_at(table.get(), 0)));
    EXPECT_EQ("first", valueOf(FileSignatures_get0_at(table.get(), 0)));
    EXPECT_EQ(5, FileSignature_index(FileSignatures_get0_at(table.get(), 1)));
    EXPECT_EQ("sixth", valueOf(FileSignatures_get0_at(table.get(), 1)));
}

TEST_F(CmsReaders, ValueWithoutLengthPointerIsReturned)
{
    CmsPtr cms = withAttribute(fileSignaturesOid, fileSignaturesDer({{1, "blob"}}));
    FileSignaturesPtr table(cms_get_file_signatures(cms.get(), 0));
    ASSERT_TRUE(table);
    const unsigned char* data = FileSignature_value(FileSignatures_get0_at(table.get(), 0), nullptr);
    ASSERT_NE(nullptr, data);
    EXPECT_EQ(0, memcmp("blob", data, 4));
}

TEST_F(CmsReaders, TrustletTableIsReadOnlyWithSelectorOne)
{
    CmsPtr cms = withAttribute(trustletSignaturesOid, fileSignaturesDer({{2, "ta"}}));
    FileSignaturesPtr trustlets(cms_get_file_signatures(cms.get(), 1));
    ASSERT_TRUE(trustlets);
    EXPECT_EQ("ta", valueOf(FileSignatures_get0_at(trustlets.get(), 0)));
    EXPECT_EQ("No file signatures found in CMS\n",
              stderrOf([&] { EXPECT_EQ(nullptr, cms_get_file_signatures(cms.get(), 0)); }));
}

TEST_F(CmsReaders, UndecodableFileTableIsReported)
{
    // A bare SEQUENCE OF FileSignature, without the version, and a SEQUENCE
    // of something else entirely.
    const Bytes bareList{0x30, 0x09, 0x30, 0x07, 0x02, 0x01, 0x00, 0x04, 0x02, 'a', 'b'};
    for (Bytes const& value : {bareList, undecodableSequence()}) {
        CmsPtr cms = withAttribute(fileSignaturesOid, value);
        EXPECT_EQ("Could not deserialize FileSignatures sequence\n",
                  stderrOf([&] { EXPECT_EQ(nullptr, cms_get_file_signatures(cms.get(), 0)); }));
    }
}

TEST_F(CmsReaders, FileTableThatIsNotASequenceIsReported)
{
    CmsPtr cms = withAttribute(trustletSignaturesOid, fileSignaturesDer({}), V_ASN1_OCTET_STRING);
    EXPECT_EQ("Could not deserialize FileSignatures sequence\n",
              stderrOf([&] { EXPECT_EQ(nullptr, cms_get_file_signatures(cms.get(), 1)); }));
}

// ---------------------------------------------------------------------------
// cms_get_rotation_chain

TEST_F(CmsReaders, MissingRotationChainIsSilent)
{
    CmsPtr cms = signedBy(*developer);
    EXPECT_EQ("", stderrOf([&] { EXPECT_EQ(nullptr, cms_get_rotation_chain(cms.get())); }));
}

TEST_F(CmsReaders, RotationChainIsDecodedAndOutlivesTheCms)
{
    CmsPtr cms = withAttribute(rotationChainOid, oneRotationChainDer());
    ChainPtr chain;
    EXPECT_EQ("", stderrOf([&] { chain.reset(cms_get_rotation_chain(cms.get())); }));
    ASSERT_TRUE(chain);
    cms.reset();

    ASSERT_EQ(1, ProofOfRotationChain_count(chain.get()));
    ProofOfRotation* proof = ProofOfRotationChain_get0_at(chain.get(), 0);
    EXPECT_EQ(0, X509_cmp(developer->cert.get(), ProofOfRotation_get0_old_cert(proof)));
    EXPECT_EQ(0, X509_cmp(client->cert.get(), ProofOfRotation_get0_new_cert(proof)));
    EXPECT_EQ(1, ProofOfRotationChain_verify(chain.get()));
}

TEST_F(CmsReaders, UndecodableRotationChainIsReported)
{
    CmsPtr cms = withAttribute(rotationChainOid, undecodableSequence());
    EXPECT_EQ("Could not deserialize ProofOfRotationChain sequence\n",
              stderrOf([&] { EXPECT_EQ(nullptr, cms_get_rotation_chain(cms.get())); }));
}

TEST_F(CmsReaders, RotationChainThatIsNotASequenceIsReported)
{
    CmsPtr cms = withAttribute(rotationChainOid, oneRotationChainDer(), V_ASN1_OCTET_STRING);
    EXPECT_EQ("Could not deserialize ProofOfRotationChain sequence\n",
              stderrOf([&] { EXPECT_EQ(nullptr, cms_get_rotation_chain(cms.get())); }));
}

}  // namespace
}  // namespace sealkeep::test
