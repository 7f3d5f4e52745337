// Read-only BIOs that hand OpenSSL any number of bytes in bounded memory:
// over a caller's buffer too large for a memory BIO (whose length is an int),
// and over a range of an open file read with pread. Neither copies the bytes
// anywhere first, so verifying a package of any size needs neither a
// temporary file nor a mapping of the whole package.
#ifndef SEALKEEP_COMMON_STREAMING_BIO_HPP
#define SEALKEEP_COMMON_STREAMING_BIO_HPP

#include <cstddef>
#include <cstdint>

#include <openssl/bio.h>

namespace sealkeep {

class BackgroundCopy;

// A BIO reading the len bytes at data, which must outlive it: a memory BIO
// when len fits in one, else a BIO of this file's own that has no such limit.
// Null on failure, silently.
BIO* bioStreamingBytes(const unsigned char* data, std::size_t len);

// A BIO reading the bytes [begin, end) of fd with pread in pieces of at most
// 256 KiB, without moving the descriptor's position. Reaching the end of the
// file before end is a read error, so a file truncated while it is read
// fails instead of yielding fewer bytes. fd stays the caller's. Null on
// failure, silently. With a copy (whose target is fd), each piece is read
// once the copy has written it, and a failed copy is a read error.
BIO* bioOverFileRange(int fd, std::int64_t begin, std::int64_t end, BackgroundCopy* copy = nullptr);

}  // namespace sealkeep

#endif
