// Reading and writing file data in pieces, and copying file ranges.
#include "common/chunked_io.hpp"

#include <algorithm>
#include <cerrno>

#include <fcntl.h>
#include <unistd.h>

namespace sealkeep {
namespace {

// How much is appended between two write-back starts.
constexpr std::int64_t writeBehindStep = 8 * 1024 * 1024;

// write()s len bytes, at most piece bytes per call.
bool writeAll(int fd, const unsigned char* data, std::size_t len, std::size_t piece)
{
    std::size_t done = 0;
    while (done < len) {
        ssize_t written = write(fd, data + done, std::min(piece, len - done));
        if (written == -1 && errno == EINTR)
            continue;
        if (written == -1)
            return false;
        done += static_cast<std::size_t>(written);
    }
    return true;
}

}  // namespace

bool writeInPieces(int fd, const unsigned char* data, std::size_t len)
{
    return writeAll(fd, data, len, ioPieceSize);
}

bool writeFully(int fd, const unsigned char* data, std::size_t len)
{
    return writeAll(fd, data, len, len);
}

bool copyRangeInPieces(int from, off_t offset, std::size_t len, int to)
{
    unsigned char piece[ioPieceSize];
    std::size_t done = 0;
    while (done < len) {
        const ssize_t got = pread(from, piece, std::min(ioPieceSize, len - done),
                                  offset + static_cast<off_t>(done));
        if (got == -1 && errno == EINTR)
            continue;
        if (got == 0)
            errno = EIO;
        if (got <= 0 || !writeInPieces(to, piece, static_cast<std::size_t>(got)))
            return false;
        done += static_cast<std::size_t>(got);
    }
    return true;
}

WriteBehind::WriteBehind(int fd) : fd_(fd), flushed_(lseek(fd, 0, SEEK_CUR)), written_(flushed_)
{
    if (flushed_ < 0)
        flushed_ = written_ = 0;
}

void WriteBehind::wrote(std::size_t length)
{
    written_ += static_cast<std::int64_t>(length);
    if (written_ - flushed_ < writeBehindStep)
        return;
    sync_file_range(fd_, flushed_, written_ - flushed_, SYNC_FILE_RANGE_WRITE);
    flushed_ = written_;
}

bool appendFileRange(int from, std::int64_t begin, std::int64_t end, int to)
{
    WriteBehind behind(to);
    loff_t at = begin;
    while (at < end) {
        const auto want = static_cast<std::size_t>(std::min<std::int64_t>(end - at, writeBehindStep));
        ssize_t copied = copy_file_range(from, &at, to, nullptr, want, 0);
        if (copied == -1 && errno == EINTR)
            continue;
        if (copied == -1 && (errno == EXDEV || errno == ENOSYS || errno == EINVAL || errno == EOPNOTSUPP)) {
            // The kernel cannot copy between these two files: copy through
            // memory what is left.
            if (!copyRangeInPieces(from, at, static_cast<std::size_t>(end - at), to))
                return false;
            behind.wrote(static_cast<std::size_t>(end - at));
            return true;
        }
        if (copied == 0)
            errno = EIO;
        if (copied <= 0)
            return false;
        behind.wrote(static_cast<std::size_t>(copied));
    }
    return true;
}

}  // namespace sealkeep
