// The file names recorded in an RPM package's header, by file index, so that
// per-file signatures can be shown with the path they belong to.
#ifndef SEALKEEP_TOOLS_PACKAGE_FILES_HPP
#define SEALKEEP_TOOLS_PACKAGE_FILES_HPP

#include <string>
#include <vector>

namespace sealkeep::cli {

// Empty when the file is no readable RPM package.
std::vector<std::string> packageFileNames(std::string const& path);

}  // namespace sealkeep::cli

#endif
