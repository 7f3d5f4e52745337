// A new version of a package, made in the package's directory and renamed
// over it.
#include "package_rewrite.hpp"

#include <algorithm>
#include <cerrno>
#include <climits>
#include <cstdlib>
#include <cstring>
#include <random>
#include <string>
#include <utility>

#include <dirent.h>
#include <fcntl.h>
#include <signal.h>
#include <sys/file.h>
#include <sys/stat.h>
#include <unistd.h>

#include "common/chunked_io.hpp"
#include "package_lock.hpp"

namespace PackageSignatures {
namespace {

// A version that a writer named just before its rename is called
// ".NAME.sealkeep-PID-RANDOM", so that a later writer can tell which ones
// were left by a writer that no longer runs.
std::string leftoverPrefix(std::string const& name)
{
    return "." + name + ".sealkeep-";
}

bool processIsGone(pid_t pid)
{
    return pid > 0 && kill(pid, 0) != 0 && errno == ESRCH;
}

// Removes the named versions of this package whose writer has ended (it
// was killed between naming its version and renaming it). Called under the
// package's write lock, so no live writer of this package is in that step.
void removeLeftovers(int directoryFd, std::string const& name)
{
    int scanFd = openat(directoryFd, ".", O_RDONLY | O_DIRECTORY | O_CLOEXEC);
    DIR* directory = scanFd < 0 ? nullptr : fdopendir(scanFd);
    if (!directory) {
        if (scanFd >= 0)
            close(scanFd);
        return;
    }
    const std::string prefix = leftoverPrefix(name);
    while (dirent* entry = readdir(directory)) {
        if (std::strncmp(entry->d_name, prefix.c_str(), prefix.size()) != 0)
            continue;
        const char* pid = entry->d_name + prefix.size();
        char* end = nullptr;
        long value = std::strtol(pid, &end, 10);
        if (end != pid && *end == '-' && value > 0 && value <= INT_MAX && processIsGone(static_cast<pid_t>(value)))
            unlinkat(directoryFd, entry->d_name, 0);
    }
    closedir(directory);
}

std::string randomSuffix()
{
    static constexpr char letters[] = "abcdefghijklmnopqrstuvwxyz0123456789";
    std::random_device device;
    std::string suffix;
    for (int i = 0; i < 8; ++i)
        suffix += letters[device() % (sizeof letters - 1)];
    return suffix;
}

// Gives the new version the package's permissions and, where allowed, its
// owner and group (only root may give a file away; anybody may give it one
// of his own groups). The owner goes first: changing it clears set-id bits.
void copyOwnership(int from, int to)
{
    struct stat status {};
    if (fstat(from, &status) != 0)
        return;
    if (fchown(to, status.st_uid, status.st_gid) != 0 && fchown(to, static_cast<uid_t>(-1), status.st_gid) != 0) {
        // Keeps the writer's own owner and group, as any rewrite does.
    }
    fchmod(to, status.st_mode & 07777);
}

// An unnamed file in the directory (it disappears with its last descriptor,
// also when the writer is killed); where the file system has none, a named
// one that removeLeftovers finds if the writer dies.
int openNewVersion(int directoryFd, std::string const& name, std::string& namedAs)
{
    int fd = openat(directoryFd, ".", O_TMPFILE | O_RDWR | O_CLOEXEC, 0600);
    if (fd >= 0 || (errno != EOPNOTSUPP && errno != EISDIR && errno != EINVAL))
        return fd;
    for (int attempt = 0; attempt < 16; ++attempt) {
        std::string candidate = leftoverPrefix(name) + std::to_string(getpid()) + "-" + randomSuffix();
        fd = openat(directoryFd, candidate.c_str(), O_CREAT | O_EXCL | O_RDWR | O_CLOEXEC, 0600);
        if (fd >= 0) {
            namedAs = candidate;
            return fd;
        }
        if (errno != EEXIST)
            return -1;
    }
    return -1;
}

// Gives the unnamed file a name in the directory, so that it can be renamed.
bool nameNewVersion(int fd, int directoryFd, std::string const& name, std::string& namedAs)
{
    const std::string self = "/proc/self/fd/" + std::to_string(fd);
    for (int attempt = 0; attempt < 16; ++attempt) {
        std::string candidate = leftoverPrefix(name) + std::to_string(getpid()) + "-" + randomSuffix();
        if (linkat(AT_FDCWD, self.c_str(), directoryFd, candidate.c_str(), AT_SYMLINK_FOLLOW) == 0 ||
            linkat(fd, "", directoryFd, candidate.c_str(), AT_EMPTY_PATH) == 0) {
            namedAs = candidate;
            return true;
        }
        if (errno != EEXIST)
            return false;
    }
    return false;
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
    removeLeftovers(directoryFd, baseName(target));
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
    if (renameat(directoryFd_, name_.c_str(), AT_FDCWD, target_.c_str()) != 0)
        return -1;  // the destructor removes the named version
    name_.clear();
    const int fd = std::exchange(fd_, -1);
    if (fsync(directoryFd_) != 0) {
        int saved = errno;
        close(fd);
        errno = saved;
        return -1;
    }
    return fd;
}

}  // namespace PackageSignatures
