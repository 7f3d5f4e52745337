// Opening a package for a write (sign, strip): a regular file, opened
// without blocking, locked against other writers with a bounded wait; and
// whether the process may write a new version of it at all.
#ifndef SEALKEEP_TOOLS_PACKAGE_WRITING_HPP
#define SEALKEEP_TOOLS_PACKAGE_WRITING_HPP

#include <memory>
#include <string>

namespace PackageSignatures {
class FileWithCmses;
}

namespace sealkeep::cli {

// How long a write waits for another writer of the same package, unless
// --wait says otherwise.
constexpr double defaultLockWaitSeconds = 10;

// The package at path, open for writing and locked; null when it cannot be,
// after one line that says why, beginning with verb ("not signed",
// "not stripped").
std::unique_ptr<PackageSignatures::FileWithCmses> openPackageForWriting(std::string const& path,
                                                                        std::string const& verb,
                                                                        double waitSeconds);

// Why signing would run into this process's file-size limit before it could
// even copy the part of the package it keeps (all of it, or with replace
// what lies in front of the first block); empty when it would not. A limit
// that the new block alone passes shows later, as EFBIG from the library.
std::string fileSizeLimitRefusal(PackageSignatures::FileWithCmses& file, bool replace);

}  // namespace sealkeep::cli

#endif
