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

bool FileWithCmses::deleteCmses(bool onlyLast)
{
    auto locations = locateCmses(file_);
    if (locations.empty())
        return true;
    CmsLocation const& chosen = onlyLast ? locations.back() : locations.front();
    return ftruncate(fd(), cutOffsetOf(chosen)) == 0;
}

}  // namespace PackageSignatures
