// Keeping the tail of a package before signing and writing it back after a
// failure, with pread and pwrite on the descriptor the library signs through.
#include "package_snapshot.hpp"

#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <utility>

#include <sealkeep/file_with_cmses.hpp>

#include "cli.hpp"

namespace sealkeep::cli {
namespace {

// Four blocks of at most 32 MiB of CMS each, with their headers and frame
// prefixes: more than this in front of the end is not signature blocks.
constexpr std::int64_t maxKept = 4 * (std::int64_t{32} * 1024 * 1024 + 20);

// pread()s length bytes at offset; the end of the file ends it as a failure.
bool readAll(int fd, unsigned char* out, std::size_t length, std::int64_t offset)
{
    std::size_t done = 0;
    while (done < length) {
        ssize_t got = pread(fd, out + done, length - done, static_cast<off_t>(offset + done));
        if (got < 0 && errno == EINTR)
            continue;
        if (got <= 0) {
            if (got == 0)
                errno = EIO;
            return false;
        }
        done += static_cast<std::size_t>(got);
    }
    return true;
}

bool writeAll(int fd, unsigned char const* data, std::size_t length, std::int64_t offset)
{
    std::size_t done = 0;
    while (done < length) {
        ssize_t put = pwrite(fd, data + done, length - done, static_cast<off_t>(offset + done));
        if (put < 0 && errno == EINTR)
            continue;
        if (put <= 0)
            return false;
        done += static_cast<std::size_t>(put);
    }
    return true;
}

}  // namespace

PackageSnapshot::PackageSnapshot(std::int64_t size, std::int64_t keptFrom, std::vector<unsigned char> kept)
    : size_(size), keptFrom_(keptFrom), kept_(std::move(kept))
{
}

std::optional<PackageSnapshot> PackageSnapshot::take(PackageSignatures::FileWithCmses& file, bool withBlocks,
                                                     std::string& why)
{
    auto locations = withBlocks ? file.blockLocations() : std::vector<PackageSignatures::BlockLocation>{};
    struct stat status {};
    if (fstat(file.fd(), &status) != 0) {
        why = "cannot read its size: " + systemReason();
        return std::nullopt;
    }
    const std::int64_t size = status.st_size;
    const std::int64_t keptFrom = locations.empty() ? size : locations.front().start;
    if (keptFrom > size || size - keptFrom > maxKept) {
        why = "changed while its signature blocks were read";
        return std::nullopt;
    }
    std::vector<unsigned char> kept(static_cast<std::size_t>(size - keptFrom));
    if (!readAll(file.fd(), kept.data(), kept.size(), keptFrom)) {
        why = "cannot read its signature blocks: " + systemReason();
        return std::nullopt;
    }
    return PackageSnapshot(size, keptFrom, std::move(kept));
}

bool PackageSnapshot::restore(int fd) const
{
    return ftruncate(fd, static_cast<off_t>(keptFrom_)) == 0 &&
           writeAll(fd, kept_.data(), kept_.size(), keptFrom_) &&
           ftruncate(fd, static_cast<off_t>(size_)) == 0;
}

}  // namespace sealkeep::cli
