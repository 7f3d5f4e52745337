// The CMS readers: decode the DER of one appended signature and take out the
// signer's certificate, its signature value and the tables and rotation chain
// carried as signed attributes. Only signatures with exactly one signer are
// read; every refusal is one line on standard error.
#include <cstdio>

#include <openssl/cms.h>
#include <openssl/evp.h>
#include <openssl/x509.h>

#include <sealkeep/sealkeep.h>

#include "base64_size.hpp"
#include "cms_rotation_chain.hpp"
#include "common/bio_source.hpp"
#include "common/objects.hpp"
#include "common/ossl_ptr.hpp"
#include "common/rotation_limit.hpp"

namespace sealkeep {
namespace {

// CMS_get1_certs hands out a list holding one reference per certificate.
void freeCertificateList(STACK_OF(X509)* certificates)
{
    sk_X509_pop_free(certificates, X509_free);
}
using CertificateListPtr = std::unique_ptr<STACK_OF(X509), Deleter<freeCertificateList>>;

// The one SignerInfo of a signature. Several signers would make "the"
// signature value and "the" attribute tables ambiguous, so they are refused.
CMS_SignerInfo* singleSigner(CMS_ContentInfo* cms)
{
    int count = cms ? sk_CMS_SignerInfo_num(CMS_get0_SignerInfos(cms)) : -1;
    if (count < 1) {
        fprintf(stderr, "No signers found in CMS\n");
        return nullptr;
    }
    if (count > 1) {
        fprintf(stderr, "CMSes with multiple signers are not supported (found: %d)\n", count);
        return nullptr;
    }
    return sk_CMS_SignerInfo_value(CMS_get0_SignerInfos(cms), 0);
}

X509_ATTRIBUTE* firstSignedAttribute(CMS_SignerInfo* signer, int nid)
{
    int index = CMS_signed_get_attr_by_NID(signer, nid, -1);
    return index < 0 ? nullptr : CMS_signed_get_attr(signer, index);
}

// The first value of an attribute as a SEQUENCE; null for any other type or
// a missing value.
ASN1_STRING* sequenceValue(X509_ATTRIBUTE* attribute)
{
    return static_cast<ASN1_STRING*>(X509_ATTRIBUTE_get0_data(attribute, 0, V_ASN1_SEQUENCE, nullptr));
}

// Decodes the first value of an attribute, which holds the whole DER of one
// structure as a SEQUENCE. A value of any other type, or a missing one, counts
// as undecodable rather than being trusted.
template <typename T, T* (*decode)(T**, const unsigned char**, long)>
T* decodeSequenceValue(X509_ATTRIBUTE* attribute, const char* failureMessage)
{
    ASN1_STRING* value = sequenceValue(attribute);
    T* decoded = nullptr;
    if (value) {
        const unsigned char* der = ASN1_STRING_get0_data(value);
        decoded = decode(nullptr, &der, ASN1_STRING_length(value));
    }
    if (!decoded)
        fputs(failureMessage, stderr);
    return decoded;
}

}  // namespace

// Base64 of n bytes needs 4 * ceil(n / 3) characters; this bound also leaves
// room for the terminating NUL. Computed in size_t: a hostile signature of a
// gigabyte would overflow the int arithmetic.
std::size_t base64BufferSize(int n)
{
    return (4 * static_cast<std::size_t>(n) + 12) / 3 + 1;
}

// Proofs beyond the limit are counted in the DER and refused before any is
// decoded: decoding alone costs two certificates per proof.
ProofOfRotationChain* readRotationChain(CMS_ContentInfo* cms, bool* tooLong)
{
    *tooLong = false;
    CMS_SignerInfo* signer = singleSigner(cms);
    if (!signer)
        return nullptr;
    X509_ATTRIBUTE* attribute = firstSignedAttribute(signer, rotationChainNid);
    if (!attribute)
        return nullptr;  // the usual case: the signing key was never rotated
    if (ASN1_STRING* value = sequenceValue(attribute)) {
        int count = sequenceElementCount(ASN1_STRING_get0_data(value), ASN1_STRING_length(value));
        if (rotationCountExceedsLimit(count) || chainSizeExceedsLimit(ASN1_STRING_length(value))) {
            *tooLong = true;
            return nullptr;
        }
    }
    return decodeSequenceValue<ProofOfRotationChain, d2i_ProofOfRotationChain>(
        attribute, "Could not deserialize ProofOfRotationChain sequence\n");
}

ProofOfRotationChain* readRotationChainQuietly(CMS_ContentInfo* cms)
{
    STACK_OF(CMS_SignerInfo)* signers = cms ? CMS_get0_SignerInfos(cms) : nullptr;
    if (!signers || sk_CMS_SignerInfo_num(signers) != 1)
        return nullptr;
    X509_ATTRIBUTE* attribute = firstSignedAttribute(sk_CMS_SignerInfo_value(signers, 0), rotationChainNid);
    ASN1_STRING* value = attribute ? sequenceValue(attribute) : nullptr;
    if (!value)
        return nullptr;
    const unsigned char* der = ASN1_STRING_get0_data(value);
    // The limits as readRotationChain applies them, without their messages.
    int count = sequenceElementCount(der, ASN1_STRING_length(value));
    if (count > maxRotations || ASN1_STRING_length(value) > maxChainBytes)
        return nullptr;
    return d2i_ProofOfRotationChain(nullptr, &der, ASN1_STRING_length(value));
}

}  // namespace sealkeep

using namespace sealkeep;

extern "C" {

CMS_ContentInfo* cms_from_der(const unsigned char* buf, long len)
{
    // A negative length cannot describe DER; refusing here keeps such a call
    // from reaching a memory BIO that would run strlen().
    if (len < 0) {
        fprintf(stderr, "Could not decode DER CMS\n");
        return nullptr;
    }
    // No memory BIO is made over no bytes (an empty block, an empty Cms), and
    // that failure is silent.
    if (!buf || len == 0)
        return nullptr;
    BioPtr bio(bioOverBytes(buf, static_cast<std::size_t>(len)));
    if (!bio)
        return nullptr;
    CMS_ContentInfo* cms = d2i_CMS_bio(bio.get(), nullptr);
    if (!cms)
        fprintf(stderr, "Could not decode DER CMS\n");
    return cms;
}

X509* cms_get_certificate(CMS_ContentInfo* cms)
{
    CertificateListPtr certificates(cms ? CMS_get1_certs(cms) : nullptr);
    if (!certificates) {
        fprintf(stderr, "Could not get signers from CMS\n");
        return nullptr;
    }
    // An intermediate or CA certificate beside the signer's makes it unclear
    // which one signed, so anything but exactly one certificate is refused.
    if (sk_X509_num(certificates.get()) != 1) {
        fprintf(stderr, "CMS must contain only one signer\n");
        return nullptr;
    }
    // Dropping the list drops only the list's references: the CMS keeps its own.
    return sk_X509_value(certificates.get(), 0);
}

char* cms_get_signature(CMS_ContentInfo* cms)
{
    CMS_SignerInfo* signer = singleSigner(cms);
    if (!signer)
        return nullptr;
    ASN1_OCTET_STRING* signature = CMS_SignerInfo_get0_signature(signer);
    int length = ASN1_STRING_length(signature);
    if (length < 0 || length > maxBase64Input)
        return nullptr;
    auto* text = static_cast<unsigned char*>(malloc(base64BufferSize(length)));
    if (!text)
        return nullptr;
    EVP_EncodeBlock(text, ASN1_STRING_get0_data(signature), length);
    return reinterpret_cast<char*>(text);
}

FileSignatures* cms_get_file_signatures(CMS_ContentInfo* cms, int which)
{
    CMS_SignerInfo* signer = singleSigner(cms);
    if (!signer)
        return nullptr;
    bool trustlets = which == 1;
    X509_ATTRIBUTE* attribute = firstSignedAttribute(
        signer, trustlets ? packageTrustletSignaturesNid : packageFileSignaturesNid);
    if (!attribute) {
        // Most packages install no trusted application, so only a missing
        // file table is worth a message.
        if (!trustlets)
            fprintf(stderr, "No file signatures found in CMS\n");
        return nullptr;
    }
    return decodeSequenceValue<FileSignatures, d2i_FileSignatures>(
        attribute, "Could not deserialize FileSignatures sequence\n");
}

ProofOfRotationChain* cms_get_rotation_chain(CMS_ContentInfo* cms)
{
    bool tooLong = false;
    return readRotationChain(cms, &tooLong);
}

}  // extern "C"
