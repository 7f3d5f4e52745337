// The write lock of a package, with a bounded wait.
#include "package_lock.hpp"

#include <algorithm>
#include <cerrno>
#include <thread>

#include <sys/file.h>
#include <sys/stat.h>

namespace PackageSignatures {

LockOutcome lockExclusive(int fd, std::chrono::milliseconds timeout)
{
    if (timeout.count() < 0) {
        while (flock(fd, LOCK_EX) != 0)
            if (errno != EINTR)
                return LockOutcome::Failed;
        return LockOutcome::Locked;
    }
    // flock has no timeout: poll, with pauses that grow from 1 ms to 50 ms,
    // so that a short wait is answered quickly and a long one costs little.
    const auto deadline = std::chrono::steady_clock::now() + timeout;
    auto pause = std::chrono::milliseconds(1);
    for (;;) {
        if (flock(fd, LOCK_EX | LOCK_NB) == 0)
            return LockOutcome::Locked;
        if (errno != EWOULDBLOCK && errno != EINTR)
            return LockOutcome::Failed;
        const auto now = std::chrono::steady_clock::now();
        if (now >= deadline)
            return LockOutcome::Busy;
        std::this_thread::sleep_for(std::min<std::chrono::steady_clock::duration>(pause, deadline - now));
        pause = std::min(pause * 2, std::chrono::milliseconds(50));
    }
}

void unlockFile(int fd)
{
    flock(fd, LOCK_UN);
}

bool pathNamesFile(std::string const& path, int fd)
{
    struct stat named {};
    struct stat open {};
    return stat(path.c_str(), &named) == 0 && fstat(fd, &open) == 0 && named.st_dev == open.st_dev &&
           named.st_ino == open.st_ino;
}

}  // namespace PackageSignatures
