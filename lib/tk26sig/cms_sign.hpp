// Pieces of cms_sign that internal tests reach directly.
#ifndef SEALKEEP_TK26SIG_CMS_SIGN_HPP
#define SEALKEEP_TK26SIG_CMS_SIGN_HPP

#include <cstddef>

#include <openssl/x509.h>
#include <sys/types.h>

#include <sealkeep/sealkeep.h>

namespace sealkeep {

// True when the newest certificate of a non-empty chain has the same key id
// as cert (two certificates without a key id count as the same). Prints why
// when it is false.
bool rotationChainEndsAt(ProofOfRotationChain* chain, X509* cert);

// Where the bytes to sign come from: the caller's memory, or a range of an
// open file read with pread() (the descriptor's offset is left alone).
// Signing copies the range into a temporary file in pieces, so a range read
// from a file is never held or mapped whole.
struct SignedRange {
    static SignedRange inMemory(const unsigned char* data, std::size_t length)
    {
        return {data, -1, 0, length};
    }
    static SignedRange ofFile(int fd, off_t offset, std::size_t length)
    {
        return {nullptr, fd, offset, length};
    }

    const unsigned char* data;
    int fd;
    off_t offset;
    std::size_t length;
};

// cms_sign over range; the same result, ownership and messages.
unsigned char* signRange(SignedRange const& range, int signFiles, EVP_PKEY* key, EVP_PKEY* taKey,
                         unsigned int taAlgo, X509* cert, ProofOfRotationChain* chain,
                         std::size_t* outLength);

}  // namespace sealkeep

#endif
