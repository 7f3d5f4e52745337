// Digest helpers shared by signing, certificate issuing and verification.
#ifndef SEALKEEP_COMMON_DIGESTS_HPP
#define SEALKEEP_COMMON_DIGESTS_HPP

#include <cstddef>
#include <optional>
#include <vector>

#include <openssl/bio.h>
#include <openssl/evp.h>

namespace sealkeep {

// The digest a key signs with by default (a GOST R 34.10-2012 key: the
// GOST R 34.11-2012 digest of its size). Null after "No default digest found
// for provided key\n" or "Could not find digest by NID\n".
const EVP_MD* defaultDigestOfKey(EVP_PKEY* key);

// GOST R 34.11-2012 256-bit, looked up by name (only the legacy lookup sees
// the engine's digests). Null after "Could not get GOST 34.11-2012 256
// reference\n".
const EVP_MD* gostDigest256();

// The GOST R 34.11-2012 256-bit digest of len bytes, fed in pieces of at most
// 8192 bytes. Empty when the digest is unavailable (with the message above) or
// fails (silently).
std::optional<std::vector<unsigned char>> gostDigestOf(const unsigned char* data, std::size_t len);

// The same over everything a BIO yields until its end, read in pieces of at
// most 8192 bytes; empty also when a read fails.
std::optional<std::vector<unsigned char>> gostDigestOfBio(BIO* bio);

}  // namespace sealkeep

#endif
