// Quiet checks of keys and certificates for the pre-flight of the signing,
// certificate-authority and rotation subcommands.
#include "key_checks.hpp"

#include <array>
#include <cstring>
#include <ctime>
#include <memory>
#include <vector>

#include <openssl/asn1.h>
#include <openssl/err.h>
#include <openssl/objects.h>
#include <openssl/rand.h>
#include <openssl/x509v3.h>

#include "owned.hpp"
#include "terminal_text.hpp"

namespace sealkeep::cli {
namespace {

using EkuPtr = std::unique_ptr<EXTENDED_KEY_USAGE, FreeWith<EXTENDED_KEY_USAGE_free>>;
using Ia5Ptr = std::unique_ptr<ASN1_IA5STRING, FreeWith<ASN1_IA5STRING_free>>;
using ObjectPtr = std::unique_ptr<ASN1_OBJECT, FreeWith<ASN1_OBJECT_free>>;

// OP-TEE's secure world refuses RSA keys below this size.
constexpr int minimumTrustedApplicationBits = 2048;

// The GOST R 34.10-2012 parameter sets the kernel's signature verifier
// (ecrdsa) knows: CryptoPro A, B, C and the TC26 256-bit sets B, C, D (the
// same curves under their 2012 names), and the TC26 512-bit sets A and B.
// TC26 256-bit A and 512-bit C are missing there (ENOPKG).
constexpr std::array<char const*, 8> kernelParameterSets = {
    "1.2.643.2.2.35.1",    "1.2.643.2.2.35.2",    "1.2.643.2.2.35.3",    "1.2.643.7.1.2.1.1.2",
    "1.2.643.7.1.2.1.1.3", "1.2.643.7.1.2.1.1.4", "1.2.643.7.1.2.1.2.1", "1.2.643.7.1.2.1.2.2",
};

std::string timeText(ASN1_TIME const* time)
{
    std::tm parts{};
    if (!time || ASN1_TIME_to_tm(time, &parts) != 1)
        return "an unreadable date";
    char text[32];
    strftime(text, sizeof text, "%Y-%m-%d %H:%M:%S UTC", &parts);
    return text;
}

// The short name OpenSSL knows the object by, else its numbers.
std::string objectText(ASN1_OBJECT const* object)
{
    int nid = OBJ_obj2nid(object);
    char const* name = nid != NID_undef ? OBJ_nid2sn(nid) : nullptr;
    char text[128] = {};
    if (!name)
        OBJ_obj2txt(text, sizeof text, object, 1);
    return name ? name : text;
}

std::string objectNumbers(ASN1_OBJECT const* object)
{
    char text[128] = {};
    OBJ_obj2txt(text, sizeof text, object, 1);
    return text;
}

// The first element of the algorithm parameters, a SEQUENCE whose first
// element is the parameter set's object identifier, as GOST keys carry it.
ObjectPtr gostParameterSet(X509_ALGOR const* algorithm)
{
    int type = 0;
    void const* value = nullptr;
    X509_ALGOR_get0(nullptr, &type, &value, algorithm);
    if (type != V_ASN1_SEQUENCE || !value)
        return nullptr;
    auto const* sequence = static_cast<ASN1_STRING const*>(value);
    unsigned char const* cursor = ASN1_STRING_get0_data(sequence);
    long length = 0;
    int tag = 0, tagClass = 0;
    int flags = ASN1_get_object(&cursor, &length, &tag, &tagClass, ASN1_STRING_length(sequence));
    if ((flags & 0x80) || tag != V_ASN1_SEQUENCE)
        return nullptr;
    ObjectPtr object(d2i_ASN1_OBJECT(nullptr, &cursor, length));
    ERR_clear_error();
    return object;
}

bool signsFor(EVP_PKEY* key, EVP_PKEY* publicKey)
{
    unsigned char message[32];
    if (RAND_bytes(message, sizeof message) != 1)
        return false;
    int digestNid = NID_undef;
    EVP_MD const* digest = nullptr;
    if (EVP_PKEY_get_default_digest_nid(key, &digestNid) > 0 && digestNid != NID_undef)
        digest = EVP_get_digestbynid(digestNid);
    MdCtxPtr signing(EVP_MD_CTX_new());
    std::size_t length = 0;
    if (!signing || EVP_DigestSignInit(signing.get(), nullptr, digest, nullptr, key) != 1 ||
        EVP_DigestSign(signing.get(), nullptr, &length, message, sizeof message) != 1)
        return false;
    std::vector<unsigned char> signature(length);
    if (EVP_DigestSign(signing.get(), signature.data(), &length, message, sizeof message) != 1)
        return false;
    MdCtxPtr verifying(EVP_MD_CTX_new());
    return verifying && EVP_DigestVerifyInit(verifying.get(), nullptr, digest, nullptr, publicKey) == 1 &&
           EVP_DigestVerify(verifying.get(), signature.data(), length, message, sizeof message) == 1;
}

}  // namespace

bool keyBelongsTo(EVP_PKEY* key, bool inEngine, X509* certificate)
{
    EVP_PKEY* publicKey = X509_get0_pubkey(certificate);
    bool belongs = publicKey && (inEngine ? signsFor(key, publicKey) : X509_check_private_key(certificate, key) == 1);
    ERR_clear_error();
    return belongs;
}

std::optional<std::string> validityProblem(X509* certificate)
{
    if (X509_cmp_current_time(X509_get0_notBefore(certificate)) >= 0)
        return "is not valid before " + timeText(X509_get0_notBefore(certificate));
    if (X509_cmp_current_time(X509_get0_notAfter(certificate)) <= 0)
        return "expired on " + timeText(X509_get0_notAfter(certificate));
    return std::nullopt;
}

GroupReading readGroup(X509* certificate)
{
    GroupReading reading;
    int packageSigning = OBJ_txt2nid("packageSigning");
    EkuPtr usage(static_cast<EXTENDED_KEY_USAGE*>(X509_get_ext_d2i(certificate, NID_ext_key_usage, nullptr, nullptr)));
    bool purpose = false;
    for (int i = 0; usage && i < sk_ASN1_OBJECT_num(usage.get()); ++i)
        purpose = purpose || OBJ_obj2nid(sk_ASN1_OBJECT_value(usage.get(), i)) == packageSigning;
    if (!purpose) {
        reading.problem = "lacks the package-signing purpose (extended key usage packageSigning)";
        return reading;
    }
    Ia5Ptr text(static_cast<ASN1_IA5STRING*>(
        X509_get_ext_d2i(certificate, OBJ_txt2nid("certificateGroup"), nullptr, nullptr)));
    ERR_clear_error();
    if (!text) {
        reading.problem = "carries no signer group";
        return reading;
    }
    std::string group(reinterpret_cast<char const*>(ASN1_STRING_get0_data(text.get())),
                      static_cast<std::size_t>(ASN1_STRING_length(text.get())));
    reading.group = group.find('\0') == std::string::npos ? PackageSignatures::groupFromString(group.c_str())
                                                          : PackageSignatures::Group::None;
    if (reading.group == PackageSignatures::Group::None)
        reading.problem = "carries the group \"" + visible(group) + "\", which names no signer group";
    return reading;
}

std::optional<std::string> trustedApplicationKeyProblem(EVP_PKEY* key)
{
    int type = EVP_PKEY_base_id(key);
    if (type != EVP_PKEY_RSA && type != EVP_PKEY_RSA_PSS)
        return "not an RSA key; OP-TEE verifies trusted applications with RSA keys of " +
               std::to_string(minimumTrustedApplicationBits) + " bits or more";
    int bits = EVP_PKEY_bits(key);
    if (bits < minimumTrustedApplicationBits)
        return "an RSA key of " + std::to_string(bits) + " bits; OP-TEE refuses trusted applications signed with "
               "RSA keys below " + std::to_string(minimumTrustedApplicationBits) + " bits";
    return std::nullopt;
}

std::optional<std::string> kernelImaKeyProblem(X509* certificate)
{
    ASN1_OBJECT* algorithm = nullptr;
    X509_ALGOR* parameters = nullptr;
    if (X509_PUBKEY_get0_param(&algorithm, nullptr, nullptr, &parameters, X509_get_X509_PUBKEY(certificate)) != 1)
        return std::nullopt;
    int nid = OBJ_obj2nid(algorithm);
    if (nid != NID_id_GostR3410_2012_256 && nid != NID_id_GostR3410_2012_512) {
        if (nid == NID_id_GostR3410_2001 || nid == NID_id_GostR3410_94)
            return "an older GOST standard (" + objectText(algorithm) +
                   "), which the Linux kernel's IMA cannot verify";
        return std::nullopt;
    }
    ObjectPtr set = gostParameterSet(parameters);
    if (set) {
        std::string numbers = objectNumbers(set.get());
        for (char const* known : kernelParameterSets) {
            if (numbers == known)
                return std::nullopt;
        }
    }
    return "the GOST parameter set " + (set ? objectText(set.get()) : std::string("(unreadable)")) +
           ", which the Linux kernel's IMA cannot verify: every file signed with it would be unreadable under "
           "IMA appraisal";
}

std::string keyIdOf(X509* certificate)
{
    ASN1_OCTET_STRING const* id = X509_get0_subject_key_id(certificate);
    ERR_clear_error();
    if (!id)
        return {};
    static char const digits[] = "0123456789abcdef";
    std::string text;
    unsigned char const* bytes = ASN1_STRING_get0_data(id);
    for (int i = 0; i < ASN1_STRING_length(id); ++i) {
        text += digits[bytes[i] >> 4];
        text += digits[bytes[i] & 0x0F];
    }
    return text;
}

}  // namespace sealkeep::cli
