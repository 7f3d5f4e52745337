// Internal: sizing the base64 text of a signature value.
#ifndef SEALKEEP_BASE64_SIZE_HPP
#define SEALKEEP_BASE64_SIZE_HPP

#include <cstddef>

namespace sealkeep {

// Bytes to allocate for the base64 text of n bytes and its NUL:
// (4n + 12) / 3 + 1, computed without overflow.
std::size_t base64BufferSize(int n);

// EVP_EncodeBlock returns the text length as an int, so longer input cannot
// be encoded.
constexpr int maxBase64Input = 1610612733;

}  // namespace sealkeep

#endif
