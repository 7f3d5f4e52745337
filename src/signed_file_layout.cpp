// The backward scan over appended signature blocks and range reads.
#include "signed_file_layout.hpp"

#include <algorithm>
#include <array>

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

std::vector<CmsLocation> locateCmses(FILE* file)
{
    std::vector<CmsLocation> found;
    scanBlocks(file, [&found](CmsLocation const& location) {
        found.push_back(location);
        return found.size() < maxScannedBlocks;
    });
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

void scanBlocks(FILE* file, std::function<bool(CmsLocation const&)> const& visit)
{
    const auto headerSize = static_cast<std::int64_t>(CmsHeader().size());
    std::int64_t remaining = sizeOf(file);
    std::array<unsigned char, 12> bytes{};
    while (remaining >= headerSize) {
        if (!preadAll(fileno(file), bytes.data(), bytes.size(), remaining - headerSize, true))
            break;
        auto header = CmsHeader::read(bytes.data(), static_cast<long>(bytes.size()));
        if (!header)
            break;
        // A legacy header stores 64 bits, so a hostile length can be negative
        // or overflow the sum: both end the scan like any length that does not
        // fit in front of its header, and so does one beyond the limit.
        if (header->length < 0 || header->length > maxCmsLength || remaining - headerSize < header->length)
            break;
        remaining -= headerSize + header->length;
        if (!visit(CmsLocation{remaining, remaining + header->length, *header}))
            break;
        if (remaining >= frameHeaderSize && header->version == 3)
            remaining -= frameHeaderSize;
    }
}

std::vector<unsigned char> readFileRange(FILE* file, long begin, long end)
{
    return readRange(file, begin, end, false);
}

std::vector<unsigned char> readFileRangeWithin(FILE* file, std::int64_t begin, std::int64_t end)
{
    return readRange(file, begin, end, true);
}

Cms readCms(FILE* file, CmsLocation const& location)
{
    return Cms(readFileRangeWithin(file, location.begin, location.end));
}

std::vector<Cms> readCmses(FILE* file, std::vector<CmsLocation> const& locations)
{
    std::vector<Cms> cmses;
    cmses.reserve(locations.size());
    for (auto const& loc : locations)
        cmses.push_back(readCms(file, loc));
    return cmses;
}

namespace {

// Where the covered bytes of a block end: before its frame prefix when the
// four bytes 8 before its CMS are the skippable-frame magic.
std::int64_t coveredEnd(FILE* file, CmsLocation const& loc)
{
    // No frame prefix fits in front of a block this close to the start (a
    // version-2 signature of a tiny file), and the test would read before
    // the start of the file.
    if (loc.begin < frameHeaderSize)
        return loc.begin;
    auto bytes = readFileRangeWithin(file, loc.begin - frameHeaderSize, loc.begin - frameHeaderSize + 4);
    if (bytes.empty())
        return loc.begin - frameHeaderSize;
    const std::uint32_t magic = static_cast<std::uint32_t>(bytes[0]) |
                                static_cast<std::uint32_t>(bytes[1]) << 8 |
                                static_cast<std::uint32_t>(bytes[2]) << 16 |
                                static_cast<std::uint32_t>(bytes[3]) << 24;
    return magic == CmsHeader::skippableFrameMagic ? loc.begin - frameHeaderSize : loc.begin;
}

}  // namespace

std::optional<ByteRange> coveredRange(FILE* file, std::vector<CmsLocation> const& locations,
                                      std::size_t i)
{
    const std::int64_t end = coveredEnd(file, locations[i]);
    if (i == 0 || locations[i].header.version == 1)
        return ByteRange{0, end};
    if (locations[i].header.version == 2 || locations[i].header.version == 3)
        return ByteRange{locations[i - 1].begin, end};
    return std::nullopt;
}

long cutOffsetOf(CmsLocation const& loc)
{
    if (loc.header.version == 3 && loc.begin >= frameHeaderSize)
        return static_cast<long>(loc.begin - frameHeaderSize);
    return static_cast<long>(loc.begin);
}

long cutBeforeEveryBlock(FILE* file)
{
    long cut = static_cast<long>(sizeOf(file));
    scanBlocks(file, [&cut](CmsLocation const& location) {
        cut = cutOffsetOf(location);
        return true;
    });
    return cut;
}

}  // namespace PackageSignatures
