// Opening and locking a package before the library writes it.
#include "package_writing.hpp"

#include <cerrno>
#include <chrono>
#include <cmath>
#include <sstream>

#include <fcntl.h>
#include <sys/resource.h>
#include <sys/stat.h>

#include <sealkeep/file_with_cmses.hpp>

#include "cli.hpp"
#include "owned.hpp"

namespace sealkeep::cli {
namespace {

std::string secondsText(double seconds)
{
    std::ostringstream text;
    text << seconds << " s";
    return text.str();
}

// Why a write of a file of size bytes would run into the process's file-size
// limit; empty when it would not.
std::string fileSizeLimitProblem(off_t size)
{
    struct rlimit limit {};
    if (getrlimit(RLIMIT_FSIZE, &limit) != 0 || limit.rlim_cur == RLIM_INFINITY ||
        limit.rlim_cur > static_cast<rlim_t>(size))
        return {};
    return "the file-size limit of this process (" + std::to_string(limit.rlim_cur) +
           " bytes) is not above the size of the package it would write (" + std::to_string(size) + " bytes)";
}

}  // namespace

std::unique_ptr<PackageSignatures::FileWithCmses> openPackageForWriting(std::string const& path,
                                                                        std::string const& verb,
                                                                        double waitSeconds)
{
    // Never wait on a FIFO or a device: look at what the path is first, on a
    // descriptor opened without blocking.
    UniqueFd probe(open(path.c_str(), O_RDONLY | O_NONBLOCK | O_CLOEXEC));
    struct stat status {};
    if (!probe || fstat(probe.get(), &status) != 0) {
        reportFailure(path, verb + ": cannot open: " + systemReason());
        return nullptr;
    }
    if (!S_ISREG(status.st_mode)) {
        reportFailure(path, verb + ": not a regular file");
        return nullptr;
    }
    auto file = PackageSignatures::FileWithCmses::fromPath(path.c_str(), "r+");
    if (!file) {
        reportFailure(path, verb + ": cannot open for writing: " + systemReason());
        return nullptr;
    }
    auto wait = std::chrono::milliseconds(std::llround(waitSeconds * 1000));
    switch (file->lockForWriting(wait)) {
    case PackageSignatures::FileWithCmses::LockStatus::Locked:
        break;
    case PackageSignatures::FileWithCmses::LockStatus::Busy:
        reportFailure(path, verb + ": another process is writing it (waited " + secondsText(waitSeconds) + ")");
        return nullptr;
    case PackageSignatures::FileWithCmses::LockStatus::Failed:
        reportFailure(path, verb + ": cannot lock it: " + systemReason());
        return nullptr;
    }
    return file;
}

std::string fileSizeLimitRefusal(PackageSignatures::FileWithCmses& file, bool replace)
{
    struct stat status {};
    if (fstat(file.fd(), &status) != 0)
        return {};
    off_t least = status.st_size;
    if (replace) {
        auto blocks = file.blockLocations();
        if (!blocks.empty())
            least = static_cast<off_t>(blocks.front().start);
    }
    return fileSizeLimitProblem(least);
}

}  // namespace sealkeep::cli
