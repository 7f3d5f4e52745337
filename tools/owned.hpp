// The OpenSSL and library objects and the file descriptors the command owns,
// each released by its own free function (or close) when the owner goes out
// of scope.
#ifndef SEALKEEP_TOOLS_OWNED_HPP
#define SEALKEEP_TOOLS_OWNED_HPP

#include <memory>
#include <utility>

#include <unistd.h>

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
using X509ReqPtr = std::unique_ptr<X509_REQ, FreeWith<X509_REQ_free>>;
using PkeyPtr = std::unique_ptr<EVP_PKEY, FreeWith<EVP_PKEY_free>>;
using PkeyCtxPtr = std::unique_ptr<EVP_PKEY_CTX, FreeWith<EVP_PKEY_CTX_free>>;
using MdCtxPtr = std::unique_ptr<EVP_MD_CTX, FreeWith<EVP_MD_CTX_free>>;
using ChainPtr = std::unique_ptr<ProofOfRotationChain, FreeWith<ProofOfRotationChain_free>>;
using FileSignaturesPtr = std::unique_ptr<FileSignatures, FreeWith<FileSignatures_free>>;

// A file descriptor, closed by its owner; -1 when it holds none.
class UniqueFd {
public:
    explicit UniqueFd(int fd = -1) : fd_(fd) {}
    ~UniqueFd()
    {
        if (fd_ >= 0)
            close(fd_);
    }
    UniqueFd(UniqueFd&& other) noexcept : fd_(std::exchange(other.fd_, -1)) {}
    UniqueFd& operator=(UniqueFd&& other) noexcept
    {
        UniqueFd(std::move(other)).swap(*this);
        return *this;
    }
    UniqueFd(UniqueFd const&) = delete;
    UniqueFd& operator=(UniqueFd const&) = delete;

    int get() const { return fd_; }
    // Gives the descriptor up to the caller, who closes it.
    int release() { return std::exchange(fd_, -1); }
    explicit operator bool() const { return fd_ >= 0; }

private:
    void swap(UniqueFd& other) noexcept { std::swap(fd_, other.fd_); }

    int fd_;
};

}  // namespace sealkeep::cli

#endif
