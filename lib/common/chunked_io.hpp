// Reading and writing file data in pieces of at most 8192 bytes.
#ifndef SEALKEEP_COMMON_CHUNKED_IO_HPP
#define SEALKEEP_COMMON_CHUNKED_IO_HPP

#include <cstddef>

namespace sealkeep {

constexpr std::size_t ioPieceSize = 8192;

// write()s all len bytes to fd in pieces of at most ioPieceSize; a short write
// goes on with the rest. False as soon as a write returns -1 (what was
// written stays written).
bool writeInPieces(int fd, const unsigned char* data, std::size_t len);

}  // namespace sealkeep

#endif
