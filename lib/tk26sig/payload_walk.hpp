// The payload walk: one IMA signature per regular file of an RPM package's
// payload and one OP-TEE signed header per trusted application, as the two
// tables that cms_sign attaches to a developer signature.
#ifndef SEALKEEP_TK26SIG_PAYLOAD_WALK_HPP
#define SEALKEEP_TK26SIG_PAYLOAD_WALK_HPP

#include <array>
#include <cstdint>
#include <optional>
#include <vector>

#include <openssl/evp.h>
#include <openssl/x509.h>

#include "common/ossl_ptr.hpp"
#include "tk26sig/trusted_application.hpp"

namespace sealkeep {

struct PayloadSignatures {
    FileSignaturesPtr ima;  // IMA signature records, in archive order
    FileSignaturesPtr ta;   // trusted-application headers as hex text
};

// Reads the package in fd (through a duplicate, from its start) with librpm
// and signs every regular payload file with key and md; cert gives the key id
// written into each record, taKey and taAlgo sign trusted applications. Every
// signed file is followed by one entry per further name of its hard-link set.
// Empty when any file cannot be signed, after the messages saying why: there
// are no partial tables.
std::optional<PayloadSignatures> signPayloadFiles(int fd, EVP_PKEY* key, const EVP_MD* md, X509* cert,
                                                  EVP_PKEY* taKey, unsigned int taAlgo);

// The same walk split in two, for signing on a host that never sees the
// package: digestPayloadFiles reads the payload and makes every digest that
// signPayloadFiles would sign; signPayloadDigests signs them into the same
// two tables, entry for entry.

// One content of the payload hashed for IMA: names are the file indexes its
// record goes to, in table order (the file that carries the content first).
struct ImaFileDigest {
    std::vector<int> names;
    std::vector<unsigned char> digest;
};

// One trusted-application name: the SHA-256 hash its header carries.
struct TaFileDigest {
    int index;
    std::array<unsigned char, taUuidSize> uuid;
    uint32_t imageSize;
    std::array<unsigned char, taHashSize> hash;
};

struct PayloadDigests {
    std::vector<ImaFileDigest> ima;  // archive order
    std::vector<TaFileDigest> ta;    // archive order
};

// What a TA's hash covers besides its image: the header fields of the
// algorithm and the signature size of the key that will sign it. present is
// false when no TA key is known (a package with a TA then fails, as in
// signPayloadFiles).
struct TaHashing {
    bool present = false;
    unsigned int taAlgo = 0;
    std::size_t signatureSize = 0;
};

// Digests with md every file that signPayloadFiles would sign. Empty after
// the messages saying why (as signPayloadFiles, with "Could not digest file
// from rpm: %s\n" for the failed file).
std::optional<PayloadDigests> digestPayloadFiles(int fd, const EVP_MD* md, TaHashing const& ta);

// The tables signPayloadFiles makes, from digests made with md. Empty after
// the messages saying why: a digest of the wrong length, a TA without taKey
// or with a key of another signature size than taSignatureSize.
std::optional<PayloadSignatures> signPayloadDigests(PayloadDigests const& digests, EVP_PKEY* key, const EVP_MD* md,
                                                    X509* cert, EVP_PKEY* taKey, unsigned int taAlgo,
                                                    std::size_t taSignatureSize);

}  // namespace sealkeep

#endif
