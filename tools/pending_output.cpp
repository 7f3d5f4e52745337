// Temporary output files made with mkstemp and renamed into place.
#include "pending_output.hpp"

#include <sys/stat.h>

#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <utility>
#include <vector>

#include "cli.hpp"
#include "owned.hpp"

namespace sealkeep::cli {
namespace {

// "dir/.name.XXXXXX" for "dir/name": in the same directory, so that the
// rename stays on one file system and replaces the destination at once.
std::string temporaryTemplate(std::string const& destination)
{
    std::size_t slash = destination.rfind('/');
    std::string directory = slash == std::string::npos ? "" : destination.substr(0, slash + 1);
    std::string name = slash == std::string::npos ? destination : destination.substr(slash + 1);
    return directory + "." + name + ".XXXXXX";
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
    std::string pattern = temporaryTemplate(destination);
    std::vector<char> name(pattern.begin(), pattern.end());
    name.push_back('\0');
    UniqueFd fd(mkstemp(name.data()));
    if (!fd) {
        why = "cannot create a file beside it: " + systemReason();
        return std::nullopt;
    }
    return PendingOutput(destination, name.data());
}

bool PendingOutput::commit()
{
    if (chmod(path_.c_str(), permissionsFor(destination_)) != 0 ||
        std::rename(path_.c_str(), destination_.c_str()) != 0)
        return false;
    path_.clear();
    return true;
}

}  // namespace sealkeep::cli
