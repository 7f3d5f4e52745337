// What the command reads of an RPM package itself: whether a file is one,
// and the file names recorded in its header, by file index, so that per-file
// signatures can be shown with the path they belong to.
#ifndef SEALKEEP_TOOLS_PACKAGE_FILES_HPP
#define SEALKEEP_TOOLS_PACKAGE_FILES_HPP

#include <sys/types.h>

#include <cstdint>
#include <optional>
#include <string>
#include <vector>

namespace sealkeep::cli {

// Whether the open file begins with the RPM lead magic ED AB EE DB. Read with
// pread, which stops at the end of the file: a file shorter than four bytes,
// or one truncated meanwhile, is simply no package.
bool hasRpmLead(int fd);

// Empty when the file is no readable RPM package.
std::vector<std::string> packageFileNames(std::string const& path);

// One file of a package's header, by file index.
struct PackageFile {
    std::string name;
    mode_t mode = 0;
    std::uint64_t size = 0;
    // How many names of the package share this file's content: 1 for a file
    // that is not hard-linked.
    std::size_t links = 1;
    // Listed but not in the payload (%ghost): the package installs nothing
    // there.
    bool ghost = false;
};

// The files that the header of the package open as fd lists; nothing when
// it is no readable RPM package. The descriptor's offset is left anywhere.
std::optional<std::vector<PackageFile>> packageFiles(int fd);

// The NAME of the header of the package open as fd; nothing when it is no
// readable RPM package. The descriptor's offset is left anywhere.
std::optional<std::string> packageName(int fd);

// Whether the package installs name as an OP-TEE trusted application, which
// is signed with its own header instead of an IMA record.
bool isTrustedApplicationName(std::string const& name);

}  // namespace sealkeep::cli

#endif
