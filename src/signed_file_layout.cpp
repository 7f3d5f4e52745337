// The backward scan over appended signature blocks and range reads.
#include "signed_file_layout.hpp"

#include <algorithm>

#include <sys/mman.h>
#include <sys/stat.h>
#include <unistd.h>

#include "common/chunked_io.hpp"

namespace PackageSignatures {

namespace {

std::int64_t sizeOf(FILE* file)
{
    struct stat st {};
    if (!file || fstat(fileno(file), &st) != 0)
        return 0;
    return st.st_size;
}

}  // namespace

ReadOnlyMapping::ReadOnlyMapping(FILE* file) : size_(sizeOf(file))
{
    if (size_ <= 0)
        return;
    void* map = mmap(nullptr, static_cast<size_t>(size_), PROT_READ, MAP_PRIVATE, fileno(file), 0);
    if (map != MAP_FAILED)
        data_ = static_cast<const unsigned char*>(map);
}

ReadOnlyMapping::~ReadOnlyMapping()
{
    if (data_)
        munmap(const_cast<unsigned char*>(data_), static_cast<size_t>(size_));
}

std::vector<CmsLocation> locateCmses(FILE* file)
{
    std::vector<CmsLocation> found;
    std::int64_t remaining = sizeOf(file);
    while (found.size() < maxScannedBlocks && remaining >= static_cast<std::int64_t>(CmsHeader().size())) {
        const auto headerSize = static_cast<std::int64_t>(CmsHeader().size());
        auto bytes = readFileRangeWithin(file, remaining - headerSize, remaining);
        auto header = CmsHeader::read(bytes.data(), static_cast<long>(bytes.size()));
        if (!header)
            break;
        // A legacy header stores 64 bits, so a hostile length can be negative
        // or overflow the sum: both end the scan like any length that does not
        // fit in front of its header, and so does one beyond the limit.
        if (header->length < 0 || header->length > maxCmsLength || remaining - headerSize < header->length)
            break;
        remaining -= headerSize + header->length;
        found.push_back(CmsLocation{remaining, remaining + header->length, *header});
        if (remaining >= frameHeaderSize && header->version == 3)
            remaining -= frameHeaderSize;
    }
    std::reverse(found.begin(), found.end());
    return found;
}

namespace {

// pread()s until len bytes are in or a read fails. The end of the file is
// retried (the contract of readFileRange) unless stopAtEnd.
bool preadAll(int fd, unsigned char* out, std::size_t len, std::int64_t at, bool stopAtEnd)
{
    std::size_t done = 0;
    while (done < len) {
        std::size_t piece = std::min(sealkeep::ioPieceSize, len - done);
        ssize_t got = pread(fd, out + done, piece, static_cast<off_t>(at + static_cast<std::int64_t>(done)));
        if (got == -1 || (got == 0 && stopAtEnd))
            return false;
        done += static_cast<std::size_t>(got);
    }
    return true;
}

std::vector<unsigned char> readRange(FILE* file, std::int64_t begin, std::int64_t end, bool stopAtEnd)
{
    if (!file || end <= begin || begin < 0)
        return {};
    std::vector<unsigned char> bytes(static_cast<std::size_t>(end - begin), 0);
    if (!preadAll(fileno(file), bytes.data(), bytes.size(), begin, stopAtEnd))
        return {};
    return bytes;
}

}  // namespace

std::vector<unsigned char> readFileRange(FILE* file, long begin, long end)
{
    return readRange(file, begin, end, false);
}

std::vector<unsigned char> readFileRangeWithin(FILE* file, std::int64_t begin, std::int64_t end)
{
    return readRange(file, begin, end, true);
}

std::vector<Cms> readCmses(FILE* file, std::vector<CmsLocation> const& locations)
{
    std::vector<Cms> cmses;
    cmses.reserve(locations.size());
    for (auto const& loc : locations)
        cmses.emplace_back(readFileRangeWithin(file, loc.begin, loc.end));
    return cmses;
}

long cutOffsetOf(CmsLocation const& loc)
{
    if (loc.header.version == 3 && loc.begin >= frameHeaderSize)
        return static_cast<long>(loc.begin - frameHeaderSize);
    return static_cast<long>(loc.begin);
}

}  // namespace PackageSignatures
