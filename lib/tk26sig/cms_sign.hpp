// Pieces of cms_sign that internal tests reach directly.
#ifndef SEALKEEP_TK26SIG_CMS_SIGN_HPP
#define SEALKEEP_TK26SIG_CMS_SIGN_HPP

#include <cstddef>

#include <openssl/x509.h>
#include <sys/types.h>

#include <sealkeep/sealkeep.h>

namespace sealkeep {

class BackgroundCopy;

// True when the newest certificate of a non-empty chain has the same key id
// as cert (two certificates without a key id count as the same). Prints why
// when it is false.
bool rotationChainEndsAt(ProofOfRotationChain* chain, X509* cert);

// Where the bytes to sign come from: the caller's memory, or a range of an
// open file read with pread() (the descriptor's offset is left alone).
// Bytes in memory are copied into a temporary file, which the payload walk
// reads through librpm. A file range is digested straight from the file, in
// pieces, and never copied anywhere; the payload walk reads the file itself,
// so its range must begin at 0 to carry per-file signatures. With a copy of
// the file under way (copy's source is fd), the range is digested from the
// copy, behind it, so that the signature covers exactly what the copy holds.
struct SignedRange {
    static SignedRange inMemory(const unsigned char* data, std::size_t length)
    {
        return {data, -1, 0, length, nullptr};
    }
    static SignedRange ofFile(int fd, off_t offset, std::size_t length, BackgroundCopy* copy = nullptr)
    {
        return {nullptr, fd, offset, length, copy};
    }

    const unsigned char* data;
    int fd;
    off_t offset;
    std::size_t length;
    BackgroundCopy* copy;
};

// cms_sign over range; the same result, ownership and messages.
unsigned char* signRange(SignedRange const& range, int signFiles, EVP_PKEY* key, EVP_PKEY* taKey,
                         unsigned int taAlgo, X509* cert, ProofOfRotationChain* chain,
                         std::size_t* outLength);

// cms_sign_digest: the CMS cms_sign makes, for a range known only by its
// digest, with per-file tables made elsewhere; the same ownership and
// messages.
unsigned char* signDigest(const unsigned char* digest, std::size_t digestLength, FileSignatures* imaSignatures,
                          FileSignatures* taSignatures, EVP_PKEY* key, X509* cert, ProofOfRotationChain* chain,
                          std::size_t* outLength);

}  // namespace sealkeep

#endif
