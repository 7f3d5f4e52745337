// Handing caller-owned bytes to OpenSSL as a BIO. A memory BIO describes at
// most 0x7FFFFFFF bytes (its length is an int), so larger inputs are copied
// into an anonymous temporary file instead.
#ifndef SEALKEEP_COMMON_BIO_SOURCE_HPP
#define SEALKEEP_COMMON_BIO_SOURCE_HPP

#include <cstddef>
#include <functional>

#include <openssl/bio.h>

namespace sealkeep {

constexpr std::size_t maxMemoryBioLength = 0x7FFFFFFF;

// Copies len bytes into a tmpfile() and returns a file BIO over it, positioned
// at 0, that closes (and so deletes) the file when freed. Null on failure,
// after "Could not store inmemory data to temporary file\n" (the file cannot
// be made or written) or
// "Could not create BIO from temporary file\n".
BIO* openTempFileBio(const unsigned char* data, std::size_t len);
// The same, with the file's content written by fill (false when it could not
// write all of it), which keeps to the same messages.
BIO* openTempFileBio(std::function<bool(int fd)> const& fill);

// A read-only BIO over the bytes: a memory BIO without copying when len fits,
// else openTempFileBio. The bytes must outlive the BIO. Null on failure (the
// memory BIO fails silently).
BIO* bioOverBytes(const unsigned char* data, std::size_t len);

}  // namespace sealkeep

#endif
