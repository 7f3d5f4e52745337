// FileWithCmses: an open signed file; lists, removes and classifies the
// signature blocks appended to it.
#include <sealkeep/file_with_cmses.hpp>
#include <sealkeep/limits.hpp>

#include <algorithm>
#include <cerrno>
#include <iostream>
#include <iterator>

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include "file_with_cmses_impl.hpp"
#include "package_lock.hpp"
#include "package_rewrite.hpp"
#include "signed_file_layout.hpp"

namespace PackageSignatures {

FileWithCmses::FileWithCmses(FILE* file) : impl_(std::make_unique<Impl>())
{
    impl_->file = file;
}

FileWithCmses::~FileWithCmses()
{
    if (impl_->file)
        fclose(impl_->file);
}

std::unique_ptr<FileWithCmses> FileWithCmses::fromPath(char const* path, char const* mode)
{
    FILE* file = fopen(path, mode);
    if (!file)
        return nullptr;
    // The lock lives with the descriptor: a child the caller starts must not
    // inherit it.
    fcntl(fileno(file), F_SETFD, FD_CLOEXEC);
    auto opened = std::make_unique<FileWithCmses>(file);
    opened->impl_->path = path;
    opened->impl_->mode = mode;
    return opened;
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
    return fileno(impl_->file);
}

bool FileWithCmses::isRpmPackage()
{
    static const std::vector<unsigned char> magic(std::begin(rpmLeadMagic), std::end(rpmLeadMagic));
    return readFileRange(impl_->file, 0, sizeof rpmLeadMagic) == magic;
}

// No filtering and no decoding: a block that cannot be read becomes an empty
// Cms, and one that is not DER fails only when it is parsed.
std::vector<Cms> FileWithCmses::cmses() const
{
    return readCmses(impl_->file, locateCmses(impl_->file));
}

std::vector<BlockLocation> FileWithCmses::blockLocations() const
{
    auto locations = locateCmses(impl_->file);
    std::vector<BlockLocation> blocks;
    blocks.reserve(locations.size());
    for (std::size_t i = 0; i < locations.size(); ++i) {
        BlockLocation block;
        block.version = locations[i].header.version;
        block.start = cutOffsetOf(locations[i]);
        block.begin = locations[i].begin;
        block.end = locations[i].end;
        if (auto range = coveredRange(impl_->file, locations, i)) {
            block.covered = true;
            block.coveredBegin = range->begin;
            block.coveredEnd = range->end;
        }
        blocks.push_back(block);
    }
    return blocks;
}

FileWithCmses::LockStatus FileWithCmses::lockForWriting(std::chrono::milliseconds timeout)
{
    if (impl_->locked)
        return LockStatus::Locked;
    if (!impl_->file) {
        errno = EBADF;
        return LockStatus::Failed;
    }
    const auto deadline = std::chrono::steady_clock::now() + timeout;
    for (;;) {
        auto left = timeout.count() < 0 ? timeout
                                        : std::chrono::ceil<std::chrono::milliseconds>(
                                              std::max(deadline - std::chrono::steady_clock::now(),
                                                       std::chrono::steady_clock::duration::zero()));
        switch (lockExclusive(fd(), left)) {
        case LockOutcome::Busy:
            return LockStatus::Busy;
        case LockOutcome::Failed:
            return LockStatus::Failed;
        case LockOutcome::Locked:
            break;
        }
        // The writer waited for may have put a new version in place: the
        // package is what the path names now.
        if (impl_->path.empty() || pathNamesFile(impl_->path, fd())) {
            impl_->locked = true;
            return LockStatus::Locked;
        }
        FILE* current = fopen(impl_->path.c_str(), impl_->mode.c_str());
        if (current)
            fcntl(fileno(current), F_SETFD, FD_CLOEXEC);
        if (!current) {
            unlockFile(fd());
            return LockStatus::Failed;
        }
        impl_->replaceStream(current);
    }
}

void FileWithCmses::unlock()
{
    if (impl_->locked && impl_->file)
        unlockFile(fd());
    impl_->locked = false;
}

WriteLockScope::WriteLockScope(FileWithCmses& file) : file_(file)
{
    const bool already = file.impl_->locked;
    held_ = file.lockForWriting(std::chrono::milliseconds(-1)) == FileWithCmses::LockStatus::Locked;
    taken_ = held_ && !already;
}

WriteLockScope::~WriteLockScope()
{
    if (taken_)
        file_.unlock();
}

namespace {

bool isRegularFile(int fd)
{
    struct stat status {};
    return fstat(fd, &status) == 0 && S_ISREG(status.st_mode);
}

}  // namespace

// Truncation is one step: a reader sees the old end or the new one.
bool FileWithCmses::deleteCmses(bool onlyLast)
{
    WriteLockScope lock(*this);
    if (!lock.held() || !isRegularFile(fd()))
        return false;
    if (!impl_->path.empty())
        removeLeftoverVersion(impl_->path);
    auto locations = locateCmses(impl_->file);
    if (locations.empty())
        return true;
    const long cut = onlyLast ? cutOffsetOf(locations.back()) : cutBeforeEveryBlock(impl_->file);
    return ftruncate(fd(), cut) == 0 && fsync(fd()) == 0;
}

}  // namespace PackageSignatures
