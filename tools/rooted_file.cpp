// openat() with O_NOFOLLOW, component by component below the root.
#include "rooted_file.hpp"

#include <fcntl.h>
#include <sys/stat.h>

#include <cerrno>
#include <vector>

#include "cli.hpp"

namespace sealkeep::cli {
namespace {

// The names between slashes, without the empty ones and ".".
std::vector<std::string> componentsOf(std::string const& path)
{
    std::vector<std::string> components;
    std::size_t at = 0;
    while (at <= path.size()) {
        std::size_t slash = path.find('/', at);
        if (slash == std::string::npos)
            slash = path.size();
        std::string component = path.substr(at, slash - at);
        if (!component.empty() && component != ".")
            components.push_back(component);
        at = slash + 1;
    }
    return components;
}

// Why the directory name in at could not be opened (errno tells), worded
// like a missing file when the path does not lead to one under the root.
// O_NOFOLLOW with O_DIRECTORY refuses a link as not a directory, so the
// entry itself tells which of the two it is.
std::string directoryRefusal(int at, std::string const& name)
{
    int error = errno;
    if (error == ENOENT)
        return "missing";
    if (error != ENOTDIR && error != ELOOP)
        return "cannot read: " + systemReason();
    struct stat status {};
    if (fstatat(at, name.c_str(), &status, AT_SYMLINK_NOFOLLOW) == 0 && S_ISLNK(status.st_mode))
        return "missing: the path crosses a symbolic link";
    return "missing: the path crosses something that is not a directory";
}

RootedFile refused(std::string refusal)
{
    return RootedFile{UniqueFd(), std::move(refusal)};
}

// Opens the last component, a regular file, in the directory at. Its type is
// looked at first, so that no device or FIFO is ever opened, and again on
// the descriptor, which is what counts.
RootedFile openRegular(int at, std::string const& name)
{
    struct stat status {};
    if (fstatat(at, name.c_str(), &status, AT_SYMLINK_NOFOLLOW) != 0)
        return refused(errno == ENOENT ? "missing" : "cannot read: " + systemReason());
    if (!S_ISREG(status.st_mode))
        return refused("not a regular file");
    UniqueFd fd(openat(at, name.c_str(), O_RDONLY | O_NOFOLLOW | O_NONBLOCK | O_NOCTTY | O_CLOEXEC));
    if (!fd) {
        if (errno == ELOOP)
            return refused("not a regular file");
        return refused(errno == ENOENT ? "missing" : "cannot read: " + systemReason());
    }
    if (fstat(fd.get(), &status) != 0)
        return refused("cannot read: " + systemReason());
    if (!S_ISREG(status.st_mode))
        return refused("not a regular file");
    return RootedFile{std::move(fd), {}};
}

}  // namespace

UniqueFd openRoot(std::string const& root)
{
    return UniqueFd(open(root.c_str(), O_RDONLY | O_DIRECTORY | O_NOFOLLOW | O_CLOEXEC));
}

RootedFile openUnderRoot(int rootFd, std::string const& path)
{
    std::vector<std::string> components = componentsOf(path);
    for (auto const& component : components) {
        if (component == "..")
            return refused("the path leaves the root");
    }
    if (components.empty())
        return refused("not a regular file");
    UniqueFd directory;
    int at = rootFd;
    for (std::size_t i = 0; i + 1 < components.size(); ++i) {
        UniqueFd next(openat(at, components[i].c_str(), O_RDONLY | O_DIRECTORY | O_NOFOLLOW | O_CLOEXEC));
        if (!next)
            return refused(directoryRefusal(at, components[i]));
        directory = std::move(next);
        at = directory.get();
    }
    return openRegular(at, components.back());
}

}  // namespace sealkeep::cli
