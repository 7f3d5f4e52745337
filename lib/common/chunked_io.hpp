// Reading and writing file data in pieces, retrying what a signal
// interrupted, and copying file ranges.
#ifndef SEALKEEP_COMMON_CHUNKED_IO_HPP
#define SEALKEEP_COMMON_CHUNKED_IO_HPP

#include <cstddef>
#include <cstdint>

#include <sys/types.h>

namespace sealkeep {

constexpr std::size_t ioPieceSize = 8192;

// write()s all len bytes to fd in pieces of at most ioPieceSize; a short write
// goes on with the rest, an interrupted one is retried. False as soon as a
// write fails (what was written stays written; errno tells why).
bool writeInPieces(int fd, const unsigned char* data, std::size_t len);

// write()s all len bytes to fd in as few calls as the kernel takes; a short
// or interrupted write goes on with the rest. False (errno set) when a write
// fails.
bool writeFully(int fd, const unsigned char* data, std::size_t len);

// Copies len bytes of from, starting at offset, to the current position of
// to: pread() and write() in pieces of at most ioPieceSize, so that no more
// than one piece is ever held. from's own offset is left alone. False when a
// read or write fails or from ends before the range does.
bool copyRangeInPieces(int from, off_t offset, std::size_t len, int to);

// Appends the bytes [begin, end) of from at the current position of to,
// copied inside the kernel (copy_file_range) where the two files allow it,
// else as copyRangeInPieces does, and starts their write-back as it goes
// (see WriteBehind). False with errno set when the range cannot all be
// copied; from ending early is EIO.
bool appendFileRange(int from, std::int64_t begin, std::int64_t end, int to);

// Starts the kernel's write-back of what is appended to a file every few
// megabytes, so that it goes to disk while the writer works on, and a final
// fsync waits only for the last of it. Only a hint: nothing fails.
class WriteBehind {
public:
    // Counts from fd's current position.
    explicit WriteBehind(int fd);
    // Call after appending length bytes.
    void wrote(std::size_t length);

private:
    int fd_;
    std::int64_t flushed_;  // write-back started up to here
    std::int64_t written_;  // appended up to here
};

}  // namespace sealkeep

#endif
