// The payload walk: one IMA signature per regular file of an RPM package's
// payload and one OP-TEE signed header per trusted application, as the two
// tables that cms_sign attaches to a developer signature.
#ifndef SEALKEEP_TK26SIG_PAYLOAD_WALK_HPP
#define SEALKEEP_TK26SIG_PAYLOAD_WALK_HPP

#include <optional>

#include <openssl/evp.h>
#include <openssl/x509.h>

#include "common/ossl_ptr.hpp"

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

}  // namespace sealkeep

#endif
