// What the command reads of an RPM package itself: whether a file is one,
// and the file names recorded in its header, by file index, so that per-file
// signatures can be shown with the path they belong to.
#ifndef SEALKEEP_TOOLS_PACKAGE_FILES_HPP
#define SEALKEEP_TOOLS_PACKAGE_FILES_HPP

#include <string>
#include <vector>

namespace sealkeep::cli {

// Whether the open file begins with the RPM lead magic ED AB EE DB. Read with
// pread, which stops at the end of the file: a file shorter than four bytes,
// or one truncated meanwhile, is simply no package.
bool hasRpmLead(int fd);

// Empty when the file is no readable RPM package.
std::vector<std::string> packageFileNames(std::string const& path);

}  // namespace sealkeep::cli

#endif
