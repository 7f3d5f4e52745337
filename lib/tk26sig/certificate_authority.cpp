// A small certificate authority for package signing: issues a self-signed CA
// certificate for a key, and signer certificates from certificate requests
// with the package-signing purpose and a group text.
//
// The two functions treat their output file differently on purpose:
// make_ca_certificate creates it before anything is checked and leaves it on
// failure, while make_certificate creates it only once the certificate is
// signed and removes it when it cannot be written completely.
#include <sealkeep/sealkeep.h>

#include <cerrno>
#include <cstdint>
#include <cstdio>
#include <cstring>
#include <ctime>
#include <optional>
#include <string>
#include <utility>
#include <vector>

#include <openssl/bn.h>
#include <openssl/crypto.h>
#include <openssl/pem.h>
#include <openssl/rand.h>
#include <openssl/x509v3.h>

#include "common/digests.hpp"
#include "common/objects.hpp"
#include "common/open_file.hpp"
#include "common/pem_file.hpp"
#include "common/ossl_ptr.hpp"

namespace sealkeep {
namespace {

using OpensslTextPtr = std::unique_ptr<char, Deleter<opensslFree>>;

constexpr long validitySeconds = 756864000;  // 8760 days: 24 years of 365 days
constexpr std::size_t maxCommonNameLength = 255;
constexpr std::size_t serialLength = 20;
constexpr std::size_t serialRandomLength = 12;

// ----------------------------------------------------------------------------
// Serial number: 12 random bytes, then the issue time in nanoseconds, so that
// two certificates differ even when issued within the same nanosecond.

std::uint64_t nanosecondsNow()
{
    timespec now{};
    clock_gettime(CLOCK_REALTIME, &now);
    // Unsigned arithmetic: the same bits as the signed product, without
    // undefined behaviour should it ever overflow.
    return static_cast<std::uint64_t>(now.tv_sec) * 1000000000u +
           static_cast<std::uint64_t>(now.tv_nsec);
}

Asn1IntegerPtr makeSerialNumber()
{
    unsigned char bytes[serialLength] = {};
    if (RAND_bytes(bytes, static_cast<int>(serialRandomLength)) != 1) {
        fprintf(stderr, "Failed to get random data\n");
        return nullptr;
    }
    std::uint64_t time = nanosecondsNow();
    for (std::size_t i = serialRandomLength; i < serialLength; ++i, time >>= 8)
        bytes[i] = static_cast<unsigned char>(time & 0xFF);
    bytes[0] &= 0x7F;  // keeps the number positive whatever reads it

    BnPtr number(BN_bin2bn(bytes, static_cast<int>(serialLength), nullptr));
    if (!number) {
        fprintf(stderr, "Failed to convert data to BN\n");
        return nullptr;
    }
    BN_set_negative(number.get(), 0);
    Asn1IntegerPtr serial(BN_to_ASN1_INTEGER(number.get(), nullptr));
    if (!serial)
        fprintf(stderr, "Could not encode BN to ASN.1 integer\n");
    return serial;
}

bool setSerialNumber(X509* cert)
{
    Asn1IntegerPtr serial = makeSerialNumber();
    if (!serial || X509_set_serialNumber(cert, serial.get()) != 1) {
        fprintf(stderr, "Could not set X509 serial\n");
        return false;
    }
    return true;
}

// Both ends come from one reading of the clock, so that the validity is
// exactly 8760 days even when a second ticks in between.
bool setValidity(X509* cert)
{
    time_t issued = time(nullptr);
    return X509_time_adj_ex(X509_getm_notBefore(cert), 0, 0, &issued) &&
           X509_time_adj_ex(X509_getm_notAfter(cert), 0, validitySeconds, &issued);
}

bool setPublicKey(X509* cert, EVP_PKEY* key)
{
    if (X509_set_pubkey(cert, key) != 1) {
        fprintf(stderr, "Could not set X509 public key\n");
        return false;
    }
    return true;
}

// Version 3, serial number, validity and subject key: what every issued
// certificate starts with.
X509Ptr newCertificateFor(EVP_PKEY* subjectKey)
{
    X509Ptr cert(X509_new());
    if (!cert || X509_set_version(cert.get(), 2) != 1 || !setSerialNumber(cert.get()) ||
        !setValidity(cert.get()) || !setPublicKey(cert.get(), subjectKey))
        return nullptr;
    return cert;
}

// ----------------------------------------------------------------------------
// Names

bool commonNameFits(const char* commonName)
{
    std::size_t length = strlen(commonName);
    if (length > maxCommonNameLength) {
        fprintf(stderr, "Common name is too long (max len is %zu, got %zu)\n", maxCommonNameLength,
                length);
        return false;
    }
    return true;
}

// A single commonName entry holding the UTF-8 text as a UTF8String. The text
// is checked to be UTF-8 and non-empty; its length is bounded by
// commonNameFits rather than by OpenSSL's 64-character table limit.
bool setCommonName(X509_NAME* name, const char* commonName)
{
    ASN1_STRING* converted = nullptr;
    if (ASN1_mbstring_ncopy(&converted, reinterpret_cast<const unsigned char*>(commonName), -1,
                            MBSTRING_UTF8, B_ASN1_UTF8STRING, 1, 0) < 0)
        return false;
    Asn1StringPtr text(converted);
    return X509_NAME_add_entry_by_NID(name, NID_commonName, V_ASN1_UTF8STRING,
                                      ASN1_STRING_get0_data(text.get()),
                                      ASN1_STRING_length(text.get()), -1, 0) == 1;
}

// ----------------------------------------------------------------------------
// Extensions

// Builds the extension from its configuration text and appends it. issuer is
// the certificate whose identifiers the value may refer to ("keyid:always").
bool addExtension(X509* cert, X509* issuer, int nid, const char* value)
{
    X509V3_CTX context{};
    X509V3_set_ctx(&context, issuer, cert, nullptr, nullptr, 0);
    X509ExtPtr extension(X509V3_EXT_conf_nid(nullptr, &context, nid, value));
    if (!extension) {
        fprintf(stderr, "Could not allocate new X509 extension\n");
        return false;
    }
    if (X509_add_ext(cert, extension.get(), -1) != 1) {
        fprintf(stderr, "Could not add X509 extension\n");
        return false;
    }
    return true;
}

std::optional<std::vector<unsigned char>> subjectPublicKeyInfoOf(EVP_PKEY* key)
{
    int length = i2d_PUBKEY(key, nullptr);
    if (length <= 0) {
        fprintf(stderr, "Could not get length for public key serialization\n");
        return std::nullopt;
    }
    std::vector<unsigned char> der(static_cast<std::size_t>(length));
    unsigned char* cursor = der.data();
    if (i2d_PUBKEY(key, &cursor) != length) {
        fprintf(stderr, "Could not get length for public key serialization\n");
        return std::nullopt;
    }
    return der;
}

// The GOST R 34.11-2012 256-bit digest of the key's DER SubjectPublicKeyInfo,
// as "AB:CD:..." text, the form the subjectKeyIdentifier builder reads back
// into bytes.
std::optional<std::string> keyIdentifierTextOf(EVP_PKEY* key)
{
    auto publicKey = subjectPublicKeyInfoOf(key);
    if (!publicKey)
        return std::nullopt;
    auto digest = gostDigestOf(publicKey->data(), publicKey->size());
    if (!digest)
        return std::nullopt;
    OpensslTextPtr text(OPENSSL_buf2hexstr(digest->data(), static_cast<long>(digest->size())));
    if (!text) {
        fprintf(stderr, "Keyid serialization failed\n");
        return std::nullopt;
    }
    return std::string(text.get());
}

bool addSubjectKeyIdentifier(X509* cert, X509* issuer, EVP_PKEY* subjectKey)
{
    auto keyId = keyIdentifierTextOf(subjectKey);
    return keyId && addExtension(cert, issuer, NID_subject_key_identifier, keyId->c_str());
}

// The configuration parser would read these prefixes as directives (make the
// extension critical, or take raw DER), so a group text beginning with one
// could not be stored exactly as given.
bool isConfigurationDirective(const char* text)
{
    for (const char* prefix : {"critical,", "DER:", "ASN1:"}) {
        if (strncmp(text, prefix, strlen(prefix)) == 0)
            return true;
    }
    return false;
}

bool addCertificateGroup(X509* cert, X509* issuer, const char* group)
{
    if (isConfigurationDirective(group)) {
        fprintf(stderr, "Could not allocate new X509 extension\n");
        return false;
    }
    return addExtension(cert, issuer, certificateGroupNid, group);
}

// ----------------------------------------------------------------------------
// Signing

bool signCertificate(X509* cert, EVP_PKEY* key)
{
    const EVP_MD* digest = defaultDigestOfKey(key);
    if (!digest)
        return false;
    if (X509_sign(cert, key, digest) <= 0) {
        fprintf(stderr, "Certificate signing failed\n");
        return false;
    }
    return true;
}

// ----------------------------------------------------------------------------
// CA certificate

bool addCaExtensions(X509* cert)
{
    if (!addExtension(cert, cert, NID_basic_constraints, "critical,CA:TRUE") ||
        !addExtension(cert, cert, NID_key_usage, "critical,keyCertSign,cRLSign"))
        return false;
    EVP_PKEY* certifiedKey = X509_get0_pubkey(cert);
    if (!certifiedKey) {
        fprintf(stderr, "Certificate is malformed: no public key found\n");
        return false;
    }
    return addSubjectKeyIdentifier(cert, cert, certifiedKey);
}

X509Ptr issueCaCertificate(EVP_PKEY* key, const char* commonName)
{
    if (!commonName || !commonNameFits(commonName))
        return nullptr;
    X509Ptr cert = newCertificateFor(key);
    if (!cert || !setCommonName(X509_get_subject_name(cert.get()), commonName) ||
        !setCommonName(X509_get_issuer_name(cert.get()), commonName) ||
        !addCaExtensions(cert.get()) || !signCertificate(cert.get(), key))
        return nullptr;
    return cert;
}

// ----------------------------------------------------------------------------
// Signer certificate

bool requestIsValid(X509_REQ* request)
{
    EVP_PKEY* key = X509_REQ_get0_pubkey(request);
    int verified = key ? X509_REQ_verify(request, key) : -1;
    if (verified < 0) {
        fprintf(stderr, "CSR is invalid\n");
        return false;
    }
    if (verified == 0) {
        fprintf(stderr, "CSR signature verification failed\n");
        return false;
    }
    return true;
}

// Only the CA certificate's own signature is checked: it is the operator's
// certificate, and neither its validity nor its CA flag is this tool's concern.
bool caCertificateIsValid(X509* caCert)
{
    EVP_PKEY* key = X509_get0_pubkey(caCert);
    int verified = key ? X509_verify(caCert, key) : -1;
    if (verified < 0) {
        fprintf(stderr, "CA certificate is invalid\n");
        return false;
    }
    if (verified == 0) {
        fprintf(stderr, "CA certificate signature verification failed\n");
        return false;
    }
    return true;
}

bool setSignerNames(X509* cert, X509_REQ* request, X509* caCert)
{
    return X509_set_subject_name(cert, X509_REQ_get_subject_name(request)) == 1 &&
           X509_set_issuer_name(cert, X509_get_subject_name(caCert)) == 1;
}

bool addSignerExtensions(X509* cert, X509* caCert, EVP_PKEY* subjectKey, const char* group)
{
    const char* usage =
        group ? "critical,emailProtection,packageSigning" : "critical,emailProtection";
    return addExtension(cert, cert, NID_key_usage, "critical,digitalSignature") &&
           addSubjectKeyIdentifier(cert, caCert, subjectKey) &&
           addExtension(cert, caCert, NID_authority_key_identifier, "keyid:always") &&
           addExtension(cert, caCert, NID_ext_key_usage, usage) &&
           (!group || addCertificateGroup(cert, caCert, group));
}

X509Ptr issueSignerCertificate(X509_REQ* request, EVP_PKEY* caKey, X509* caCert, const char* group)
{
    EVP_PKEY* subjectKey = X509_REQ_get0_pubkey(request);
    if (!subjectKey) {
        fprintf(stderr, "CSR is malformed: no public key found\n");
        return nullptr;
    }
    X509Ptr cert = newCertificateFor(subjectKey);
    if (!cert || !setSignerNames(cert.get(), request, caCert) ||
        !addSignerExtensions(cert.get(), caCert, subjectKey, group) ||
        !signCertificate(cert.get(), caKey))
        return nullptr;
    return cert;
}

// ----------------------------------------------------------------------------
// Files

PkeyPtr readCaKey(FILE* file)
{
    PkeyPtr key(PEM_read_PrivateKey(file, nullptr, nullptr, nullptr));
    if (!key)
        fprintf(stderr, "Could not read private key (wrong passphrase?)\n");
    return key;
}

// On failure prints the prefix followed by the system's reason.
FilePtr openInput(const char* path, const char* failurePrefix)
{
    FilePtr file = openFile(path, "rb");
    if (!file)
        fprintf(stderr, "%s%s\n", failurePrefix, strerror(errno));
    return file;
}

bool writeAndClose(FilePtr file, X509* cert)
{
    return writePemAndClose(std::move(file), [cert](FILE* out) { return PEM_write_X509(out, cert); });
}


// Steps common to both ways of giving the CA key: the output file is already
// open (and stays, possibly empty, on failure).
int issueCaCertificateInto(FilePtr outFile, EVP_PKEY* key, const char* commonName)
{
    X509Ptr cert = issueCaCertificate(key, commonName);
    if (!cert) {
        fprintf(stderr, "CA certificate issuing failed\n");
        return -1;
    }
    if (!writeAndClose(std::move(outFile), cert.get())) {
        fprintf(stderr, "Could not save certificate\n");
        return -1;
    }
    return 0;
}

// Reads the request and the CA certificate, checks both, issues and only then
// creates outPath, which is removed when it cannot be written completely.
int issueSignerCertificateInto(const char* outPath, FILE* csrFile, EVP_PKEY* caKey, FILE* caCertFile,
                               const char* group)
{
    X509ReqPtr request(PEM_read_X509_REQ(csrFile, nullptr, nullptr, nullptr));
    if (!request) {
        fprintf(stderr, "Could not parse CSR from PEM\n");
        return -1;
    }
    X509Ptr caCert(PEM_read_X509(caCertFile, nullptr, nullptr, nullptr));
    if (!caCert) {
        fprintf(stderr, "Could not read PEM CA certificate\n");
        return -1;
    }
    if (!requestIsValid(request.get()) || !caCertificateIsValid(caCert.get()))
        return -1;

    X509Ptr cert = issueSignerCertificate(request.get(), caKey, caCert.get(), group);
    if (!cert) {
        fprintf(stderr, "Certificate issuing failed\n");
        return -1;
    }
    FilePtr outFile = openFile(outPath, "wb");
    if (!outFile) {
        fprintf(stderr, "Could not open resulting certificate file: %s\n", strerror(errno));
        return -1;
    }
    if (!writeAndClose(std::move(outFile), cert.get())) {
        remove(outPath);
        fprintf(stderr, "Could not save resulting certificate file\n");
        return -1;
    }
    return 0;
}

}  // namespace
}  // namespace sealkeep

using namespace sealkeep;

extern "C" {

int make_ca_certificate(const char* outPath, const char* keyPath, const char* commonName)
{
    FilePtr keyFile = openInput(keyPath, "");
    if (!keyFile)
        return -1;
    FilePtr outFile = openFile(outPath, "wb");
    if (!outFile) {
        fprintf(stderr, "%s\n", strerror(errno));
        return -1;
    }
    PkeyPtr key = readCaKey(keyFile.get());
    if (!key)
        return -1;
    return issueCaCertificateInto(std::move(outFile), key.get(), commonName);
}

int make_ca_certificate_with_key(const char* outPath, EVP_PKEY* key, const char* commonName)
{
    FilePtr outFile = openFile(outPath, "wb");
    if (!outFile) {
        fprintf(stderr, "%s\n", strerror(errno));
        return -1;
    }
    if (!key) {
        fprintf(stderr, "Could not read private key (wrong passphrase?)\n");
        return -1;
    }
    return issueCaCertificateInto(std::move(outFile), key, commonName);
}

int make_certificate(const char* outPath, const char* csrPath, const char* caKeyPath,
                     const char* caCertPath, const char* group)
{
    FilePtr csrFile = openInput(csrPath, "Could not open CSR file: ");
    if (!csrFile)
        return -1;
    FilePtr keyFile = openInput(caKeyPath, "Could not open key file: ");
    if (!keyFile)
        return -1;
    FilePtr caCertFile = openInput(caCertPath, "Could not open CA certificate file: ");
    if (!caCertFile)
        return -1;
    PkeyPtr caKey = readCaKey(keyFile.get());
    if (!caKey)
        return -1;
    return issueSignerCertificateInto(outPath, csrFile.get(), caKey.get(), caCertFile.get(), group);
}

int make_certificate_with_key(const char* outPath, const char* csrPath, EVP_PKEY* caKey,
                              const char* caCertPath, const char* group)
{
    FilePtr csrFile = openInput(csrPath, "Could not open CSR file: ");
    if (!csrFile)
        return -1;
    FilePtr caCertFile = openInput(caCertPath, "Could not open CA certificate file: ");
    if (!caCertFile)
        return -1;
    if (!caKey) {
        fprintf(stderr, "Could not read private key (wrong passphrase?)\n");
        return -1;
    }
    return issueSignerCertificateInto(outPath, csrFile.get(), caKey, caCertFile.get(), group);
}

}  // extern "C"
