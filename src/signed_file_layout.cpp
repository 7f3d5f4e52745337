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
    ReadOnlyMapping map(file);
    if (!map.valid())
        return found;

    std::int64_t remaining = map.size();
    while (auto header = CmsHeader::read(map.data(), static_cast<long>(remaining))) {
        // A legacy header stores 64 bits, so a hostile length can be negative
        // or overflow the sum: both end the scan like any length that does not
        // fit in front of its header.
        const auto headerSize = static_cast<std::int64_t>(header->size());
        if (header->length < 0 || remaining - headerSize < header->length)
            break;
        remaining -= static_cast<std::int64_t>(header->size()) + header->length;
        found.push_back(CmsLocation{remaining, remaining + header->length, *header});
        if (remaining >= frameHeaderSize && header->version == 3)
            remaining -= frameHeaderSize;
    }
    std::reverse(found.begin(), found.end());
    return found;
}

std::vector<unsigned char> readFileRange(FILE* file, long begin, long end)
{
    if (!file || end <= begin)
        return {};
    std::vector<unsigned char> bytes(static_cast<size_t>(end - begin), 0);
    const int fd = fileno(file);
    size_t done = 0;
    while (done < bytes.size()) {
        size_t piece = std::min(sealkeep::ioPieceSize, bytes.size() - done);
        ssize_t got = pread(fd, bytes.data() + done, piece, begin + static_cast<off_t>(done));
        if (got == -1)
            return {};
        done += static_cast<size_t>(got);
    }
    return bytes;
}

long cutOffsetOf(CmsLocation const& loc)
{
    if (loc.header.version == 3 && loc.begin >= frameHeaderSize)
        return static_cast<long>(loc.begin - frameHeaderSize);
    return static_cast<long>(loc.begin);
}

}  // namespace PackageSignatures
