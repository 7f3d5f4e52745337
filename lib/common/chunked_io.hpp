// Reading and writing file data in pieces of at most 8192 bytes.
#ifndef SEALKEEP_COMMON_CHUNKED_IO_HPP
#define SEALKEEP_COMMON_CHUNKED_IO_HPP

#include <cstddef>

#include <sys/types.h>

namespace sealkeep {

constexpr std::size_t ioPieceSize = 8192;

// write()s all len bytes to fd in pieces of at most ioPieceSize; a short write
// goes on with the rest. False as soon as a write returns -1 (what was
// written stays written).
bool writeInPieces(int fd, const unsigned char* data, std::size_t len);

// Copies len bytes of from, starting at offset, to the current position of
// to: pread() and write() in pieces of at most ioPieceSize, so that no more
// than one piece is ever held. from's own offset is left alone. False when a
// read or write fails or from ends before the range does.
bool copyRangeInPieces(int from, off_t offset, std::size_t len, int to);

}  // namespace sealkeep

#endif
