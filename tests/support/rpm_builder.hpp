// Real RPM packages for tests, built with rpmbuild in a temporary directory.
#ifndef SEALKEEP_TESTS_SUPPORT_RPM_BUILDER_HPP
#define SEALKEEP_TESTS_SUPPORT_RPM_BUILDER_HPP

#include <string>
#include <vector>

namespace sealkeep::test {

struct PayloadEntry {
    enum class Kind { Regular, Directory, Symlink, HardLink, Ghost };
    Kind kind = Kind::Regular;
    std::string path;     // absolute path inside the package
    std::string content;  // Regular, Ghost: the bytes; Symlink/HardLink: the target path
};

PayloadEntry regularFile(std::string path, std::string content);
PayloadEntry directory(std::string path);
PayloadEntry symbolicLink(std::string path, std::string target);
PayloadEntry hardLink(std::string path, std::string existingPath);
// A regular file listed as %ghost: in the header, not in the payload.
PayloadEntry ghostFile(std::string path);

// Builds a noarch package named name-1.0-1 holding entries, with the payload
// compressed by compressor ("gzip", "zstd", "xz" or "bzip2") at level (0: the
// compressor's usual level here), under workDir. entries may be empty: the
// package then has no files. Returns the path of the .rpm file; throws when
// rpmbuild fails.
std::string buildRpm(std::string const& workDir, std::string const& name,
                     std::vector<PayloadEntry> const& entries, std::string const& compressor = "zstd",
                     int level = 0);

}  // namespace sealkeep::test

#endif
