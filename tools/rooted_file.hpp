// Opening a file that a package installed under a root directory, one path
// component at a time from a descriptor of the root, never following a
// symbolic link. What is then checked and labelled is the file under the
// root that the path names, and nothing outside it, even while the tree
// changes.
#ifndef SEALKEEP_TOOLS_ROOTED_FILE_HPP
#define SEALKEEP_TOOLS_ROOTED_FILE_HPP

#include <string>

#include "owned.hpp"

namespace sealkeep::cli {

// The root directory itself, which must not be a symbolic link; an invalid
// descriptor (errno set) when it cannot be opened.
UniqueFd openRoot(std::string const& root);

struct RootedFile {
    UniqueFd fd;          // the regular file, open for reading
    std::string refusal;  // why not, when fd holds none
};

// The regular file at path (as a package header lists it, from "/") under
// the directory rootFd. Refused: a path that leaves the root (".."), one
// that crosses a symbolic link or is missing ("missing ..."), and a final
// component that is no regular file (a link, a directory, a device).
RootedFile openUnderRoot(int rootFd, std::string const& path);

}  // namespace sealkeep::cli

#endif
