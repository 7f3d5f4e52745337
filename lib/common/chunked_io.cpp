// Reading and writing file data in pieces of at most 8192 bytes.
#include "common/chunked_io.hpp"

#include <algorithm>

#include <unistd.h>

namespace sealkeep {

bool writeInPieces(int fd, const unsigned char* data, std::size_t len)
{
    std::size_t done = 0;
    while (done < len) {
        ssize_t written = write(fd, data + done, std::min(ioPieceSize, len - done));
        if (written == -1)
            return false;
        done += static_cast<std::size_t>(written);
    }
    return true;
}

bool copyRangeInPieces(int from, off_t offset, std::size_t len, int to)
{
    unsigned char piece[ioPieceSize];
    std::size_t done = 0;
    while (done < len) {
        const ssize_t got = pread(from, piece, std::min(ioPieceSize, len - done),
                                  offset + static_cast<off_t>(done));
        if (got <= 0 || !writeInPieces(to, piece, static_cast<std::size_t>(got)))
            return false;
        done += static_cast<std::size_t>(got);
    }
    return true;
}

}  // namespace sealkeep
