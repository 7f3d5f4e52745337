// Temporary output files made with mkstemp and renamed into place.
#include "pending_output.hpp"

#include <dirent.h>
#include <fcntl.h>
#include <signal.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <climits>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <memory>
#include <utility>
#include <vector>

#include "cli.hpp"
#include "owned.hpp"

namespace sealkeep::cli {
namespace {

std::string directoryOf(std::string const& destination)
{
    std::size_t slash = destination.rfind('/');
    return slash == std::string::npos ? "." : slash == 0 ? "/" : destination.substr(0, slash);
}

std::string nameOf(std::string const& destination)
{
    std::size_t slash = destination.rfind('/');
    return slash == std::string::npos ? destination : destination.substr(slash + 1);
}

// ".name.sealkeep-PID-" for "dir/name": the temporary file lives in the same
// directory, so that the rename stays on one file system and replaces the
// destination at once, and its name tells which process made it.
std::string leftoverPrefix(std::string const& destination)
{
    return "." + nameOf(destination) + ".sealkeep-";
}

// Removes the temporary files that killed runs left for this destination:
// those whose process no longer exists.
void removeLeftovers(std::string const& destination)
{
    std::unique_ptr<DIR, int (*)(DIR*)> directory(opendir(directoryOf(destination).c_str()), closedir);
    if (!directory)
        return;
    const std::string prefix = leftoverPrefix(destination);
    while (dirent* entry = readdir(directory.get())) {
        if (std::strncmp(entry->d_name, prefix.c_str(), prefix.size()) != 0)
            continue;
        const char* pid = entry->d_name + prefix.size();
        char* end = nullptr;
        long value = std::strtol(pid, &end, 10);
        if (end != pid && *end == '-' && value > 0 && value <= INT_MAX && kill(static_cast<pid_t>(value), 0) != 0 &&
            errno == ESRCH)
            unlinkat(dirfd(directory.get()), entry->d_name, 0);
    }
}

// Syncs what path names (a file or a directory) to disk.
bool syncPath(std::string const& path, int flags)
{
    UniqueFd fd(open(path.c_str(), O_RDONLY | O_CLOEXEC | flags));
    return fd && fsync(fd.get()) == 0;
}

// The permissions the library's fopen would have left: an existing file
// keeps its own, a new one gets 0666 less the umask.
mode_t permissionsFor(std::string const& destination)
{
    struct stat status {};
    if (stat(destination.c_str(), &status) == 0)
        return status.st_mode & 07777;
    mode_t mask = umask(0);
    umask(mask);
    return 0666 & ~mask;
}

}  // namespace

PendingOutput::PendingOutput(std::string destination, std::string path)
    : destination_(std::move(destination)), path_(std::move(path))
{
}

PendingOutput::PendingOutput(PendingOutput&& other) noexcept
    : destination_(std::move(other.destination_)), path_(std::exchange(other.path_, std::string()))
{
}

PendingOutput::~PendingOutput()
{
    if (!path_.empty())
        std::remove(path_.c_str());
}

std::optional<PendingOutput> PendingOutput::create(std::string const& destination, std::string& why)
{
    removeLeftovers(destination);
    std::string directory = directoryOf(destination);
    std::string pattern = directory + "/" + leftoverPrefix(destination) + std::to_string(getpid()) + "-XXXXXX";
    std::vector<char> name(pattern.begin(), pattern.end());
    name.push_back('\0');
    UniqueFd fd(mkstemp(name.data()));
    if (!fd) {
        why = "cannot create a file beside it: " + systemReason();
        return std::nullopt;
    }
    return PendingOutput(destination, name.data());
}

// The content reaches the disk before the name does, and the name before
// the command reports success: a power cut leaves the old file or the new
// one, never an empty one.
bool PendingOutput::commit()
{
    if (chmod(path_.c_str(), permissionsFor(destination_)) != 0 || !syncPath(path_, 0) ||
        std::rename(path_.c_str(), destination_.c_str()) != 0)
        return false;
    path_.clear();
    return syncPath(directoryOf(destination_), O_DIRECTORY);
}

}  // namespace sealkeep::cli
