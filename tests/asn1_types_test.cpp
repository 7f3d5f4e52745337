// Encodings of the attribute structures and the PEM form of rotation chains.
#include <gtest/gtest.h>

#include <string>
#include <vector>

#include <openssl/ec.h>
#include <openssl/err.h>
#include <openssl/pem.h>

#include <sealkeep/sealkeep.h>

namespace {

using Bytes = std::vector<unsigned char>;

template <typename T>
Bytes derOf(T const* value, int (*encode)(T const*, unsigned char**))
{
    unsigned char* out = nullptr;
    int len = encode(value, &out);
    Bytes der = len > 0 ? Bytes(out, out + len) : Bytes();
    OPENSSL_free(out);
    return der;
}

// DER of a constructed SEQUENCE around already encoded contents.
Bytes sequenceOf(std::vector<Bytes> const& parts)
{
    Bytes contents;
    for (auto const& part : parts)
        contents.insert(contents.end(), part.begin(), part.end());
    Bytes der{0x30};
    size_t len = contents.size();
    if (len < 0x80) {
        der.push_back(static_cast<unsigned char>(len));
    } else {
        Bytes lenBytes;
        for (size_t n = len; n; n >>= 8)
            lenBytes.insert(lenBytes.begin(), static_cast<unsigned char>(n));
        der.push_back(static_cast<unsigned char>(0x80 | lenBytes.size()));
        der.insert(der.end(), lenBytes.begin(), lenBytes.end());
    }
    der.insert(der.end(), contents.begin(), contents.end());
    return der;
}

FileSignatures* decodeFileSignatures(Bytes const& der)
{
    const unsigned char* cursor = der.data();
    return d2i_FileSignatures(nullptr, &cursor, static_cast<long>(der.size()));
}

FileSignature* makeEntry(long index, std::string const& value)
{
    FileSignature* entry = FileSignature_new();
    ASN1_INTEGER_set(entry->index, index);
    ASN1_OCTET_STRING_set(entry->value, reinterpret_cast<const unsigned char*>(value.data()),
                          static_cast<int>(value.size()));
    return entry;
}

TEST(FileSignaturesEncoding, RoundTripsVersionAndEntries)
{
    FileSignatures* table = FileSignatures_new();
    ASN1_INTEGER_set(table->version, 1);
    sk_FileSignature_push(table->signatures, makeEntry(0, "first"));
    sk_FileSignature_push(table->signatures, makeEntry(5, "second"));
    Bytes der = derOf(table, i2d_FileSignatures);
    FileSignatures_free(table);
    ASSERT_FALSE(der.empty());

    FileSignatures* decoded = decodeFileSignatures(der);
    ASSERT_NE(nullptr, decoded);
    EXPECT_EQ(1, ASN1_INTEGER_get(decoded->version));
    ASSERT_EQ(2, FileSignatures_count(decoded));
    EXPECT_EQ(5, FileSignature_index(FileSignatures_get0_at(decoded, 1)));
    int len = 0;
    const unsigned char* value = FileSignature_value(FileSignatures_get0_at(decoded, 1), &len);
    EXPECT_EQ("second", std::string(reinterpret_cast<const char*>(value), static_cast<size_t>(len)));
    FileSignatures_free(decoded);
}

TEST(FileSignaturesEncoding, EmptyTableEncodesAsVersionAndEmptySequence)
{
    FileSignatures* table = FileSignatures_new();
    ASN1_INTEGER_set(table->version, 1);
    Bytes der = derOf(table, i2d_FileSignatures);
    FileSignatures_free(table);
    EXPECT_EQ((Bytes{0x30, 0x05, 0x02, 0x01, 0x01, 0x30, 0x00}), der);
}

TEST(FileSignaturesEncoding, BareSequenceOfEntriesDoesNotDecode)
{
    FileSignature* entry = makeEntry(3, "value");
    Bytes entryDer = derOf(entry, i2d_FileSignature);
    FileSignature_free(entry);

    Bytes bare = sequenceOf({entryDer});
    EXPECT_EQ(nullptr, decodeFileSignatures(bare));

    // The same entry behind a version decodes.
    FileSignatures* decoded = decodeFileSignatures(
        sequenceOf({Bytes{0x02, 0x01, 0x01}, sequenceOf({entryDer})}));
    ASSERT_NE(nullptr, decoded);
    EXPECT_EQ(1, FileSignatures_count(decoded));
    FileSignatures_free(decoded);
}

// A throw-away self-signed certificate; the encodings below only need a
// well-formed X.509 structure, whatever its algorithm.
X509* throwAwayCertificate()
{
    EVP_PKEY* key = EVP_EC_gen("P-256");
    X509* cert = X509_new();
    X509_set_version(cert, 2);
    ASN1_INTEGER_set(X509_get_serialNumber(cert), 1);
    X509_gmtime_adj(X509_getm_notBefore(cert), 0);
    X509_gmtime_adj(X509_getm_notAfter(cert), 3600);
    X509_NAME_add_entry_by_txt(X509_get_subject_name(cert), "CN", MBSTRING_UTF8,
                               reinterpret_cast<const unsigned char*>("asn1"), -1, -1, 0);
    X509_set_issuer_name(cert, X509_get_subject_name(cert));
    X509_set_pubkey(cert, key);
    X509_sign(cert, key, EVP_sha256());
    EVP_PKEY_free(key);
    return cert;
}

// DER of a ProofOfRotation whose two signatures are encoded with the given
// string encoder (OCTET STRING as it should be, or BIT STRING).
template <typename Str>
Bytes proofDer(int (*encodeSignature)(Str const*, unsigned char**), Str* signature)
{
    ProofOfRotationSignedAttrs* attrs = ProofOfRotationSignedAttrs_new();
    X509_free(attrs->oldCert);
    X509_free(attrs->newCert);
    attrs->oldCert = throwAwayCertificate();
    attrs->newCert = throwAwayCertificate();
    X509_ALGOR* algorithm = X509_ALGOR_new();
    X509_ALGOR_set0(algorithm, OBJ_nid2obj(NID_ecdsa_with_SHA256), V_ASN1_UNDEF, nullptr);

    Bytes attrsDer = derOf(attrs, i2d_ProofOfRotationSignedAttrs);
    Bytes algorithmDer = derOf(algorithm, i2d_X509_ALGOR);
    Bytes signatureDer = derOf(signature, encodeSignature);
    ProofOfRotationSignedAttrs_free(attrs);
    X509_ALGOR_free(algorithm);
    return sequenceOf({attrsDer, algorithmDer, signatureDer, algorithmDer, signatureDer});
}

ProofOfRotation* decodeProof(Bytes const& der)
{
    const unsigned char* cursor = der.data();
    return d2i_ProofOfRotation(nullptr, &cursor, static_cast<long>(der.size()));
}

TEST(ProofOfRotationEncoding, SignaturesAreOctetStrings)
{
    ASN1_OCTET_STRING* signature = ASN1_OCTET_STRING_new();
    ASN1_OCTET_STRING_set(signature, reinterpret_cast<const unsigned char*>("sig"), 3);
    ProofOfRotation* proof = decodeProof(proofDer(i2d_ASN1_OCTET_STRING, signature));
    ASN1_OCTET_STRING_free(signature);
    ASSERT_NE(nullptr, proof);
    EXPECT_EQ(3, ASN1_STRING_length(proof->newSignature));
    EXPECT_NE(nullptr, proof->signedAttrs->oldCert);
    ProofOfRotation_free(proof);
}

TEST(ProofOfRotationEncoding, BitStringSignaturesDoNotDecode)
{
    ASN1_BIT_STRING* signature = ASN1_BIT_STRING_new();
    ASN1_BIT_STRING_set(signature, reinterpret_cast<unsigned char*>(const_cast<char*>("sig")), 3);
    Bytes der = proofDer(i2d_ASN1_BIT_STRING, signature);
    ASN1_BIT_STRING_free(signature);
    EXPECT_EQ(nullptr, decodeProof(der));
}

std::string pemOfChain(ProofOfRotationChain const* chain)
{
    BIO* bio = BIO_new(BIO_s_mem());
    EXPECT_EQ(1, PEM_write_bio_ProofOfRotationChain(bio, chain));
    char* data = nullptr;
    long len = BIO_get_mem_data(bio, &data);
    std::string pem(data, static_cast<size_t>(len));
    BIO_free(bio);
    return pem;
}

TEST(ProofOfRotationChainPem, EmptyChainRoundTripsAsEmptySequence)
{
    ProofOfRotationChain* chain = sk_ProofOfRotation_new_null();
    EXPECT_EQ((Bytes{0x30, 0x00}), derOf(chain, i2d_ProofOfRotationChain));
    std::string pem = pemOfChain(chain);
    sk_ProofOfRotation_free(chain);

    EXPECT_EQ("-----BEGIN PROOF OF ROTATION CHAIN-----\nMAA=\n-----END PROOF OF ROTATION CHAIN-----\n",
              pem);

    BIO* bio = BIO_new_mem_buf(pem.data(), static_cast<int>(pem.size()));
    ProofOfRotationChain* read = PEM_read_bio_ProofOfRotationChain(bio, nullptr, nullptr, nullptr);
    BIO_free(bio);
    ASSERT_NE(nullptr, read);
    EXPECT_EQ(0, sk_ProofOfRotation_num(read));
    sk_ProofOfRotation_pop_free(read, ProofOfRotation_free);
}

TEST(ProofOfRotationChainPem, OtherLabelsAreNotRead)
{
    const std::string pem = "-----BEGIN CERTIFICATE-----\nMAA=\n-----END CERTIFICATE-----\n";
    BIO* bio = BIO_new_mem_buf(pem.data(), static_cast<int>(pem.size()));
    EXPECT_EQ(nullptr, PEM_read_bio_ProofOfRotationChain(bio, nullptr, nullptr, nullptr));
    BIO_free(bio);
    ERR_clear_error();
}

TEST(ProofOfRotationChainPem, FileFunctionsRoundTrip)
{
    FILE* file = tmpfile();
    ASSERT_NE(nullptr, file);
    ProofOfRotationChain* chain = sk_ProofOfRotation_new_null();
    EXPECT_EQ(1, PEM_write_ProofOfRotationChain(file, chain));
    sk_ProofOfRotation_free(chain);
    rewind(file);
    ProofOfRotationChain* read = PEM_read_ProofOfRotationChain(file, nullptr, nullptr, nullptr);
    ASSERT_NE(nullptr, read);
    EXPECT_EQ(0, sk_ProofOfRotation_num(read));
    sk_ProofOfRotation_pop_free(read, ProofOfRotation_free);
    fclose(file);
}

}  // namespace
