// Feeding one payload file's content, as the archive reader delivers it, into
// a digest: the payload is never held whole, only one piece at a time.
#ifndef SEALKEEP_TK26SIG_PAYLOAD_READ_HPP
#define SEALKEEP_TK26SIG_PAYLOAD_READ_HPP

#include <cstddef>
#include <vector>

#include <openssl/evp.h>
#include <rpm/rpmtypes.h>

namespace sealkeep {

// Largest piece read from the archive at a time: large enough that the
// archive reader's per-call cost (it times every read) does not count, small
// enough for the stack.
constexpr std::size_t payloadPieceSize = 64 * 1024;

// Reads size bytes of the current file of fi with rpmfiArchiveRead and feeds
// them to ctx. False after "Could not read file from rpm payload\n" when the
// archive gives fewer bytes than asked; false silently when the digest fails.
bool digestArchiveContent(rpmfi fi, EVP_MD_CTX* ctx, std::size_t size);
// The same, each piece fed to every one of ctxs: one pass over the content
// for several digests.
bool digestArchiveContent(rpmfi fi, std::vector<EVP_MD_CTX*> const& ctxs, std::size_t size);

}  // namespace sealkeep

#endif
