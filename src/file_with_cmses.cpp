// FileWithCmses: an open signed file; lists, removes and classifies the
// signature blocks appended to it.
#include <sealkeep/file_with_cmses.hpp>

#include <iostream>

#include <unistd.h>

#include "signed_file_layout.hpp"

namespace PackageSignatures {

FileWithCmses::FileWithCmses(FILE* file) : file_(file) {}

FileWithCmses::~FileWithCmses()
{
    if (file_)
        fclose(file_);
}

std::unique_ptr<FileWithCmses> FileWithCmses::fromPath(char const* path, char const* mode)
{
    FILE* file = fopen(path, mode);
    if (!file)
        return nullptr;
    return std::make_unique<FileWithCmses>(file);
}

std::unique_ptr<FileWithCmses> FileWithCmses::fromPath(char const* path)
{
    if (auto file = fromPath(path, "r+"))
        return file;
    std::cerr << "sealkeep: trying to reopen " << path << " "
              << "in read-only mode, as it failed to open in read-write mode "
              << "(some features that modify a file may fail with an error)" << std::endl;
    return fromPath(path, "r");
}

std::unique_ptr<FileWithCmses> FileWithCmses::fromPath(std::string const& path)
{
    return fromPath(path.c_str());
}

int FileWithCmses::fd()
{
    return fileno(file_);
}

bool FileWithCmses::isRpmPackage()
{
    static const std::vector<unsigned char> rpmLeadMagic{0xED, 0xAB, 0xEE, 0xDB};
    return readFileRange(file_, 0, 4) == rpmLeadMagic;
}

// No filtering and no decoding: a block that cannot be read becomes an empty
// Cms, and one that is not DER fails only when it is parsed.
std::vector<Cms> FileWithCmses::cmses() const
{
    return readCmses(file_, locateCmses(file_));
}

std::vector<BlockLocation> FileWithCmses::blockLocations() const
{
    auto locations = locateCmses(file_);
    std::vector<BlockLocation> blocks;
    blocks.reserve(locations.size());
    for (std::size_t i = 0; i < locations.size(); ++i) {
        BlockLocation block;
        block.version = locations[i].header.version;
        block.start = cutOffsetOf(locations[i]);
        block.begin = locations[i].begin;
        block.end = locations[i].end;
        if (auto range = coveredRange(file_, locations, i)) {
            block.covered = true;
            block.coveredBegin = range->begin;
            block.coveredEnd = range->end;
        }
        blocks.push_back(block);
    }
    return blocks;
}

bool FileWithCmses::deleteCmses(bool onlyLast)
{
    auto locations = locateCmses(file_);
    if (locations.empty())
        return true;
    if (onlyLast)
        return ftruncate(fd(), cutOffsetOf(locations.back())) == 0;
    return ftruncate(fd(), cutBeforeEveryBlock(file_)) == 0;
}

}  // namespace PackageSignatures
