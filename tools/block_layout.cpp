// Backward scan over the headers that end the signature blocks.
#include "block_layout.hpp"

#include <fcntl.h>
#include <sys/mman.h>
#include <sys/stat.h>
#include <unistd.h>

#include <sealkeep/file_with_cmses.hpp>

namespace sealkeep::cli {
namespace {

constexpr std::int64_t framePrefixSize = 8;

std::vector<BlockLayout> scan(unsigned char const* data, std::int64_t size)
{
    std::vector<BlockLayout> blocks;
    std::int64_t remaining = size;
    while (auto header = PackageSignatures::CmsHeader::read(data, remaining)) {
        std::int64_t blockSize = static_cast<std::int64_t>(header->size()) + header->length;
        if (remaining < blockSize)
            break;
        remaining -= blockSize;
        BlockLayout block;
        block.version = header->version;
        block.begin = remaining;
        block.end = remaining + header->length;
        if (header->version == 3 && remaining >= framePrefixSize)
            remaining -= framePrefixSize;
        block.start = remaining;
        blocks.insert(blocks.begin(), block);
    }
    for (std::size_t i = 0; i < blocks.size(); ++i) {
        blocks[i].coveredBegin = i == 0 ? 0 : blocks[i - 1].begin;
        blocks[i].coveredEnd = blocks[i].start;
    }
    return blocks;
}

}  // namespace

std::optional<std::vector<BlockLayout>> readBlockLayout(std::string const& path)
{
    int fd = open(path.c_str(), O_RDONLY | O_CLOEXEC);
    if (fd < 0)
        return std::nullopt;
    struct stat status {};
    std::vector<BlockLayout> blocks;
    if (fstat(fd, &status) == 0 && status.st_size > 0) {
        void* map = mmap(nullptr, status.st_size, PROT_READ, MAP_PRIVATE, fd, 0);
        if (map != MAP_FAILED) {
            blocks = scan(static_cast<unsigned char const*>(map), status.st_size);
            munmap(map, status.st_size);
        }
    }
    close(fd);
    return blocks;
}

}  // namespace sealkeep::cli
