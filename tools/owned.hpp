// The OpenSSL and library objects the command owns, each released by its own
// free function when the owner goes out of scope.
#ifndef SEALKEEP_TOOLS_OWNED_HPP
#define SEALKEEP_TOOLS_OWNED_HPP

#include <memory>

#include <openssl/bio.h>
#include <openssl/evp.h>
#include <openssl/x509.h>

#include <sealkeep/sealkeep.h>

namespace sealkeep::cli {

// Calls Free on the pointer; unique_ptr never passes it null.
template <auto Free>
struct FreeWith {
    template <typename T>
    void operator()(T* pointer) const
    {
        Free(pointer);
    }
};

using BioPtr = std::unique_ptr<BIO, FreeWith<BIO_free_all>>;
using X509Ptr = std::unique_ptr<X509, FreeWith<X509_free>>;
using PkeyPtr = std::unique_ptr<EVP_PKEY, FreeWith<EVP_PKEY_free>>;
using PkeyCtxPtr = std::unique_ptr<EVP_PKEY_CTX, FreeWith<EVP_PKEY_CTX_free>>;
using MdCtxPtr = std::unique_ptr<EVP_MD_CTX, FreeWith<EVP_MD_CTX_free>>;
using ChainPtr = std::unique_ptr<ProofOfRotationChain, FreeWith<ProofOfRotationChain_free>>;
using FileSignaturesPtr = std::unique_ptr<FileSignatures, FreeWith<FileSignatures_free>>;

}  // namespace sealkeep::cli

#endif
