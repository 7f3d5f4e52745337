// Describing the signer of one CMS for the verification report: the names,
// serial, key id, fingerprint and validity of its certificate, the signing
// time it signed and the key ids its rotation chain claims.
#include "signer_facts.hpp"

#include <ctime>

#include <openssl/bn.h>
#include <openssl/buffer.h>
#include <openssl/err.h>
#include <openssl/evp.h>
#include <openssl/x509.h>

#include "certificate_facts.hpp"
#include "cms_rotation_chain.hpp"
#include "common/ossl_ptr.hpp"

namespace PackageSignatures {
namespace {

using sealkeep::BioPtr;
using sealkeep::BnPtr;
using sealkeep::ChainPtr;
using sealkeep::OpensslBytesPtr;

struct CertificateListFree {
    void operator()(STACK_OF(X509) * certificates) const { sk_X509_pop_free(certificates, X509_free); }
};
using CertificateListPtr = std::unique_ptr<STACK_OF(X509), CertificateListFree>;

CMS_SignerInfo* onlySigner(CMS_ContentInfo* cms)
{
    STACK_OF(CMS_SignerInfo)* signers = CMS_get0_SignerInfos(cms);
    return signers && sk_CMS_SignerInfo_num(signers) == 1 ? sk_CMS_SignerInfo_value(signers, 0) : nullptr;
}

// The signer's certificate among those the CMS carries, with a reference of
// its own; null when it is not there.
sealkeep::X509Ptr signerCertificate(CMS_ContentInfo* cms, CMS_SignerInfo* signer)
{
    CertificateListPtr certificates(CMS_get1_certs(cms));
    for (int i = 0; i < sk_X509_num(certificates.get()); ++i) {
        X509* candidate = sk_X509_value(certificates.get(), i);
        if (CMS_SignerInfo_cert_cmp(signer, candidate) == 0) {
            X509_up_ref(candidate);
            return sealkeep::X509Ptr(candidate);
        }
    }
    return nullptr;
}

std::string isoTime(ASN1_TIME const* time)
{
    struct tm tm {};
    if (!time || ASN1_TIME_to_tm(time, &tm) != 1)
        return "";
    char text[32];
    if (std::strftime(text, sizeof text, "%Y-%m-%dT%H:%M:%SZ", &tm) == 0)
        return "";
    return text;
}

// RFC 2253, the most specific name first; escapes as that form asks (the
// bytes of a UTF-8 value are kept as they are).
std::string nameText(X509_NAME const* name, unsigned long flags)
{
    BioPtr bio(BIO_new(BIO_s_mem()));
    if (!name || !bio || X509_NAME_print_ex(bio.get(), name, 0, flags) < 0)
        return "";
    BUF_MEM* buffer = nullptr;
    BIO_get_mem_ptr(bio.get(), &buffer);
    return buffer ? std::string(buffer->data, buffer->length) : std::string();
}

// A value that is not valid in its string type is shown as the hexadecimal
// of its DER, as RFC 2253 allows, rather than not at all.
std::string nameText(X509_NAME const* name)
{
    std::string text = nameText(name, XN_FLAG_RFC2253 & ~ASN1_STRFLGS_ESC_MSB);
    return text.empty() ? nameText(name, XN_FLAG_RFC2253 | ASN1_STRFLGS_DUMP_ALL) : text;
}

std::string lowerHex(unsigned char const* data, std::size_t size)
{
    static const char digits[] = "0123456789abcdef";
    std::string text;
    text.reserve(2 * size);
    for (std::size_t i = 0; i < size; ++i) {
        text += digits[data[i] >> 4];
        text += digits[data[i] & 0x0F];
    }
    return text;
}

std::string serialText(X509* cert)
{
    BnPtr serial(ASN1_INTEGER_to_BN(X509_get0_serialNumber(cert), nullptr));
    if (!serial)
        return "";
    if (BN_is_zero(serial.get()))
        return "0";
    std::vector<unsigned char> bytes(static_cast<std::size_t>(BN_num_bytes(serial.get())));
    BN_bn2bin(serial.get(), bytes.data());
    return (BN_is_negative(serial.get()) ? "-" : "") + lowerHex(bytes.data(), bytes.size());
}

std::string sha256Of(X509* cert)
{
    unsigned char digest[EVP_MAX_MD_SIZE];
    unsigned int length = 0;
    if (X509_digest(cert, EVP_sha256(), digest, &length) != 1)
        return "";
    return lowerHex(digest, length);
}

std::string signingTimeOf(CMS_SignerInfo* signer)
{
    int at = CMS_signed_get_attr_by_NID(signer, NID_pkcs9_signingTime, -1);
    X509_ATTRIBUTE* attribute = at < 0 ? nullptr : CMS_signed_get_attr(signer, at);
    ASN1_TYPE* value = attribute ? X509_ATTRIBUTE_get0_type(attribute, 0) : nullptr;
    if (!value || (value->type != V_ASN1_UTCTIME && value->type != V_ASN1_GENERALIZEDTIME))
        return "";
    return isoTime(value->value.asn1_string);
}

// The old key of every rotation, oldest first.
std::vector<std::string> previousKeyIdsOf(CMS_ContentInfo* cms)
{
    std::vector<std::string> keyIds;
    ChainPtr chain(sealkeep::readRotationChainQuietly(cms));
    int count = chain ? ProofOfRotationChain_count(chain.get()) : 0;
    for (int i = 0; i < count; ++i) {
        ProofOfRotation* proof = ProofOfRotationChain_get0_at(chain.get(), i);
        X509* old = proof ? ProofOfRotation_get0_old_cert(proof) : nullptr;
        keyIds.push_back(old ? sealkeep::certificateKeyId(old).value_or("") : "");
    }
    return keyIds;
}

void describeCertificate(X509* cert, SignerFacts& facts)
{
    facts.known = true;
    char const* failure = nullptr;
    if (auto groupText = sealkeep::certificateGroupText(cert, &failure)) {
        facts.group = groupFromString(groupText->c_str());
        facts.subgroup = subgroupFromString(groupText->c_str());
    }
    facts.subject = nameText(X509_get_subject_name(cert));
    facts.issuer = nameText(X509_get_issuer_name(cert));
    facts.serial = serialText(cert);
    facts.keyId = sealkeep::certificateKeyId(cert).value_or("");
    facts.sha256Fingerprint = sha256Of(cert);
    facts.notBefore = isoTime(X509_get0_notBefore(cert));
    facts.notAfter = isoTime(X509_get0_notAfter(cert));
}

}  // namespace

SignerFacts signerFactsOf(CMS_ContentInfo* cms)
{
    SignerFacts facts;
    CMS_SignerInfo* signer = cms ? onlySigner(cms) : nullptr;
    if (signer) {
        if (sealkeep::X509Ptr cert = signerCertificate(cms, signer)) {
            describeCertificate(cert.get(), facts);
            facts.signingTime = signingTimeOf(signer);
            facts.previousKeyIds = previousKeyIdsOf(cms);
        }
    }
    ERR_clear_error();
    return facts;
}

}  // namespace PackageSignatures
