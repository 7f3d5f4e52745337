// A new version of a package, made in the package's directory and renamed
// over it.
#include "package_rewrite.hpp"

#include <algorithm>
#include <cerrno>
#include <cstdlib>
#include <cstring>
#include <string>
#include <utility>
#include <vector>

#include <fcntl.h>
#include <sys/file.h>
#include <sys/xattr.h>
#include <sys/stat.h>
#include <unistd.h>

#include "common/chunked_io.hpp"
#include "package_lock.hpp"

namespace PackageSignatures {
namespace {

// What a writer calls its new version just before the rename (or, where
// the file system has no unnamed files, all along): one name per package.
// Writers of a package hold its lock, so a file of that name found under the
// lock was left by a writer that was killed.
std::string leftoverName(std::string const& name)
{
    return "." + name + ".sealkeep-new";
}

// Extended attributes that describe the content itself (IMA and EVM
// signatures) would be wrong for the new content; every other one (ACLs, a
// security label, a user's own) belongs to the package and goes over.
bool describesContent(std::string const& name)
{
    return name == "security.ima" || name == "security.evm";
}

// Copies what extended attributes the writer may read and set; one that
// cannot be copied is left behind, as any rewrite would.
void copyExtendedAttributes(int from, int to)
{
    ssize_t listed = flistxattr(from, nullptr, 0);
    if (listed <= 0)
        return;
    std::vector<char> names(static_cast<std::size_t>(listed));
    listed = flistxattr(from, names.data(), names.size());
    if (listed <= 0)
        return;
    std::vector<char> value;
    for (std::size_t at = 0; at < static_cast<std::size_t>(listed);) {
        std::string name(names.data() + at);
        at += name.size() + 1;
        ssize_t size = describesContent(name) ? -1 : fgetxattr(from, name.c_str(), nullptr, 0);
        if (size < 0)
            continue;
        value.resize(static_cast<std::size_t>(size));
        size = fgetxattr(from, name.c_str(), value.data(), value.size());
        if (size >= 0)
            fsetxattr(to, name.c_str(), value.data(), static_cast<std::size_t>(size), 0);
    }
}

// Gives the new version the package's permissions and, where allowed, its
// owner and group (only root may give a file away; anybody may give it one
// of his own groups) and extended attributes. The owner goes first: changing
// it clears set-id bits.
void copyOwnership(int from, int to)
{
    struct stat status {};
    if (fstat(from, &status) != 0)
        return;
    if (fchown(to, status.st_uid, status.st_gid) != 0 && fchown(to, static_cast<uid_t>(-1), status.st_gid) != 0) {
        // Keeps the writer's own owner and group, as any rewrite does.
    }
    fchmod(to, status.st_mode & 07777);
    copyExtendedAttributes(from, to);
}

// An unnamed file in the directory (it disappears with its last descriptor,
// also when the writer is killed); where the file system has none, the
// named one.
int openNewVersion(int directoryFd, std::string const& name, std::string& namedAs)
{
    int fd = openat(directoryFd, ".", O_TMPFILE | O_RDWR | O_CLOEXEC, 0600);
    if (fd >= 0 || (errno != EOPNOTSUPP && errno != EISDIR && errno != EINVAL))
        return fd;
    fd = openat(directoryFd, leftoverName(name).c_str(), O_CREAT | O_EXCL | O_RDWR | O_CLOEXEC, 0600);
    if (fd >= 0)
        namedAs = leftoverName(name);
    return fd;
}

// Gives the unnamed file its name in the directory, so that it can be
// renamed.
bool nameNewVersion(int fd, int directoryFd, std::string const& name, std::string& namedAs)
{
    const std::string self = "/proc/self/fd/" + std::to_string(fd);
    const std::string candidate = leftoverName(name);
    if (linkat(AT_FDCWD, self.c_str(), directoryFd, candidate.c_str(), AT_SYMLINK_FOLLOW) != 0 &&
        linkat(fd, "", directoryFd, candidate.c_str(), AT_EMPTY_PATH) != 0)
        return false;
    namedAs = candidate;
    return true;
}

std::string baseName(std::string const& path)
{
    return path.substr(path.rfind('/') + 1);
}

std::string directoryOf(std::string const& path)
{
    std::size_t slash = path.rfind('/');
    return slash == 0 ? "/" : path.substr(0, slash);
}

}  // namespace

PackageRewrite::PackageRewrite(std::string target, int directoryFd, int fd, std::string name)
    : target_(std::move(target)), directoryFd_(directoryFd), fd_(fd), name_(std::move(name))
{
}

std::unique_ptr<PackageRewrite> PackageRewrite::begin(std::string const& path, int packageFd)
{
    // The package itself is replaced, wherever links lead to it.
    char* resolved = realpath(path.c_str(), nullptr);
    if (!resolved)
        return nullptr;
    std::string target(resolved);
    free(resolved);
    if (!pathNamesFile(target, packageFd)) {
        errno = ESTALE;
        return nullptr;
    }
    const std::string directory = directoryOf(target);
    int directoryFd = open(directory.c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC);
    if (directoryFd < 0)
        return nullptr;
    unlinkat(directoryFd, leftoverName(baseName(target)).c_str(), 0);
    std::string namedAs;
    int fd = openNewVersion(directoryFd, baseName(target), namedAs);
    if (fd < 0) {
        int saved = errno;
        close(directoryFd);
        errno = saved;
        return nullptr;
    }
    copyOwnership(packageFd, fd);
    return std::unique_ptr<PackageRewrite>(new PackageRewrite(target, directoryFd, fd, namedAs));
}

PackageRewrite::~PackageRewrite()
{
    if (fd_ >= 0) {
        close(fd_);
        if (!name_.empty())
            unlinkat(directoryFd_, name_.c_str(), 0);
    }
    close(directoryFd_);
}

bool PackageRewrite::copyFrom(int packageFd, std::int64_t begin, std::int64_t end)
{
    return sealkeep::appendFileRange(packageFd, begin, end, fd_);
}

bool PackageRewrite::append(const unsigned char* data, std::size_t length)
{
    // Whoever read the new version meanwhile (the payload walk) may have
    // moved its offset.
    return lseek(fd_, 0, SEEK_END) >= 0 && sealkeep::writeInPieces(fd_, data, length);
}

int PackageRewrite::commit()
{
    if (fsync(fd_) != 0)
        return -1;
    // Nobody else can hold the lock of a file nobody else has opened yet.
    if (flock(fd_, LOCK_EX | LOCK_NB) != 0)
        return -1;
    if (name_.empty() && !nameNewVersion(fd_, directoryFd_, baseName(target_), name_))
        return -1;
    if (renameat(directoryFd_, name_.c_str(), directoryFd_, baseName(target_).c_str()) != 0)
        return -1;  // the destructor removes the named version
    name_.clear();
    durable_ = fsync(directoryFd_) == 0;
    return std::exchange(fd_, -1);
}

void removeLeftoverVersion(std::string const& path)
{
    char* resolved = realpath(path.c_str(), nullptr);
    if (!resolved)
        return;
    std::string target(resolved);
    free(resolved);
    unlink((directoryOf(target) + "/" + leftoverName(baseName(target))).c_str());
}

}  // namespace PackageSignatures
