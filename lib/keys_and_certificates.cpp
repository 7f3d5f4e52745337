// Loading private keys, certificates and CA stores from PEM files, reading a
// certificate's common name, group text and key id, and checking a
// certificate against a CA store.
#include <sealkeep/sealkeep.h>

#include <cstdio>
#include <cstdlib>
#include <cstring>

#include <openssl/objects.h>
#include <openssl/pem.h>
#include <openssl/x509v3.h>

#include "certificate_facts.hpp"
#include "common/objects.hpp"
#include "common/open_file.hpp"
#include "common/pem_blocks.hpp"
#include "common/ossl_ptr.hpp"

namespace sealkeep {
namespace {

// A malloc'ed, NUL-terminated copy of the string's bytes, unconverted
// (a BMPString stays in its two-byte units). Null only when malloc fails.
char* copyStringBytes(const ASN1_STRING* text)
{
    auto length = static_cast<std::size_t>(ASN1_STRING_length(text));
    auto* copy = static_cast<char*>(malloc(length + 1));
    if (!copy)
        return nullptr;
    if (length > 0)
        memcpy(copy, ASN1_STRING_get0_data(text), length);
    copy[length] = '\0';
    return copy;
}

// Lower-case hexadecimal, high nibble first, no separators. Null only when
// malloc fails.
char* hexOf(const ASN1_OCTET_STRING* bytes)
{
    static const char digits[] = "0123456789abcdef";
    auto length = static_cast<std::size_t>(ASN1_STRING_length(bytes));
    const unsigned char* data = ASN1_STRING_get0_data(bytes);
    auto* text = static_cast<char*>(malloc(2 * length + 1));
    if (!text)
        return nullptr;
    for (std::size_t i = 0; i < length; ++i) {
        text[2 * i] = digits[data[i] >> 4];
        text[2 * i + 1] = digits[data[i] & 0x0F];
    }
    text[2 * length] = '\0';
    return text;
}

// The decoded extension, owned by the caller; null when the extension (or the
// certificate itself) is missing, repeated or undecodable.
template <typename Extension>
Extension* decodedExtension(X509* cert, int nid)
{
    if (!cert)
        return nullptr;
    return static_cast<Extension*>(X509_get_ext_d2i(cert, nid, nullptr, nullptr));
}

bool allowsPackageSigning(const EXTENDED_KEY_USAGE* usage)
{
    for (int i = 0; i < sk_ASN1_OBJECT_num(usage); ++i) {
        if (OBJ_obj2nid(sk_ASN1_OBJECT_value(usage, i)) == packageSigningNid)
            return true;
    }
    return false;
}

bool isCertificateLabel(std::string const& label)
{
    return label == PEM_STRING_X509 || label == PEM_STRING_X509_OLD || label == PEM_STRING_X509_TRUSTED;
}

// Every certificate up to the first certificate block that does not decode,
// as OpenSSL's reader would take them, other blocks stepped over; but a block
// too long for a certificate ends the read before it is held whole. The store
// keeps its own reference to each certificate, so the local one is always
// dropped, whether or not the store took it.
void addEveryCertificate(FILE* file, const char* path, X509_STORE* store)
{
    PemBlocks blocks(file);
    std::string block;
    for (;;) {
        PemBlocks::Next next = blocks.next(block);
        if (next == PemBlocks::Next::TooLarge)
            fprintf(stderr, "Certificate store \"%s\" holds a PEM block larger than any certificate\n", path);
        if (next != PemBlocks::Next::Block)
            return;
        if (!isCertificateLabel(PemBlocks::labelOf(block)))
            continue;
        BioPtr bio(BIO_new_mem_buf(block.data(), static_cast<int>(block.size())));
        X509Ptr certificate(bio ? PEM_read_bio_X509(bio.get(), nullptr, nullptr, nullptr) : nullptr);
        if (!certificate)
            return;
        if (X509_STORE_add_cert(store, certificate.get()) != 1)
            fprintf(stderr, "Could not add CA certificate to X509 store\n");
    }
}

}  // namespace

std::optional<std::string> certificateGroupText(X509* cert, const char** failure)
{
    EkuPtr usage(decodedExtension<EXTENDED_KEY_USAGE>(cert, NID_ext_key_usage));
    if (!usage) {
        *failure = "Failed to get certificate extensions\n";
        return std::nullopt;
    }
    if (!allowsPackageSigning(usage.get())) {
        *failure = "Package signing not allowed (there is no corresponding extended key usage)\n";
        return std::nullopt;
    }
    Asn1StringPtr group(decodedExtension<ASN1_IA5STRING>(cert, certificateGroupNid));
    if (!group) {
        *failure = "Failed to get package group from certificate\n";
        return std::nullopt;
    }
    MallocPtr text(copyStringBytes(group.get()));
    if (!text) {
        *failure = "Out of memory\n";
        return std::nullopt;
    }
    return std::string(text.get());
}

std::optional<std::string> certificateKeyId(X509* cert)
{
    Asn1OctetStringPtr identifier(decodedExtension<ASN1_OCTET_STRING>(cert, NID_subject_key_identifier));
    if (!identifier)
        return std::nullopt;
    MallocPtr text(hexOf(identifier.get()));
    if (!text)
        return std::nullopt;
    return std::string(text.get());
}

}  // namespace sealkeep

using namespace sealkeep;

extern "C" {

EVP_PKEY* private_key_read(const char* path, void* u)
{
    FilePtr file = openFile(path, "rb");
    if (!file) {
        fprintf(stderr, "Could not open private key \"%s\": %s\n", printablePath(path),
                strerror(errno));
        return nullptr;
    }
    EVP_PKEY* key = PEM_read_PrivateKey(file.get(), nullptr, nullptr, u);
    if (!key)
        fprintf(stderr, "Could not read private key \"%s\" (wrong passphrase?)\n", path);
    return key;
}

X509_STORE* certificate_store_read(const char* path)
{
    FilePtr file = openFile(path, "rb");
    if (!file) {
        fprintf(stderr, "Could not open certificate store \"%s\": %s\n", printablePath(path),
                strerror(errno));
        return nullptr;
    }
    X509StorePtr store(X509_STORE_new());
    if (!store) {
        fprintf(stderr, "Failed to allocate X509 store\n");
        return nullptr;
    }
    addEveryCertificate(file.get(), path, store.get());
    return store.release();
}

X509* certificate_read(const char* path)
{
    FilePtr file = openFile(path, "rb");
    if (!file) {
        fprintf(stderr, "Could not open certificate \"%s\": %s\n", printablePath(path),
                strerror(errno));
        return nullptr;
    }
    X509* certificate = PEM_read_X509(file.get(), nullptr, nullptr, nullptr);
    if (!certificate)
        fprintf(stderr, "Could not parse certificate \"%s\"\n", path);
    return certificate;
}

char* certificate_get_subject(X509* cert)
{
    X509_NAME* name = cert ? X509_get_subject_name(cert) : nullptr;
    int index = name ? X509_NAME_get_index_by_NID(name, NID_commonName, -1) : -1;
    if (index < 0) {
        fprintf(stderr, "No common name found\n");
        return nullptr;
    }
    const ASN1_STRING* data = X509_NAME_ENTRY_get_data(X509_NAME_get_entry(name, index));
    if (!data) {
        fprintf(stderr, "Could not get common name data\n");
        return nullptr;
    }
    return copyStringBytes(data);
}

char* certificate_get_group(X509* cert)
{
    const char* failure = nullptr;
    auto text = certificateGroupText(cert, &failure);
    if (!text) {
        fputs(failure, stderr);
        return nullptr;
    }
    return strdup(text->c_str());
}

char* certificate_get_keyid(X509* cert)
{
    auto keyId = certificateKeyId(cert);
    if (!keyId) {
        fprintf(stderr, "Failed to extract keyid from certificate\n");
        return nullptr;
    }
    return strdup(keyId->c_str());
}

bool certificate_verify(X509* cert, X509_STORE* store)
{
    X509StoreCtxPtr context(X509_STORE_CTX_new());
    if (!context || X509_STORE_CTX_init(context.get(), store, cert, nullptr) != 1) {
        fprintf(stderr, "Couldn't initialize x509 store context\n");
        return false;
    }
    return X509_verify_cert(context.get()) == 1;
}

}  // extern "C"
