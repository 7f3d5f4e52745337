// What signing may change in a package, kept so that a signing that fails
// leaves the package byte for byte as it was. Signing appends one block, and
// a replacement first cuts blocks away; the library keeps neither the cut
// nor a partial append when it fails, so the command keeps them itself.
#ifndef SEALKEEP_TOOLS_PACKAGE_SNAPSHOT_HPP
#define SEALKEEP_TOOLS_PACKAGE_SNAPSHOT_HPP

#include <cstdint>
#include <optional>
#include <string>
#include <vector>

namespace PackageSignatures {
class FileWithCmses;
}

namespace sealkeep::cli {

class PackageSnapshot {
public:
    // Remembers the size of the file and, when withBlocks, its signature
    // blocks: the bytes from the start of the oldest block the library's
    // scan finds to the end. The scan finds at most four blocks of at most
    // 32 MiB each, so what is kept stays bounded. Nothing when the file
    // cannot be read; why is then set.
    static std::optional<PackageSnapshot> take(PackageSignatures::FileWithCmses& file, bool withBlocks,
                                               std::string& why);

    // Puts the file back as it was taken: cuts it where the kept bytes began
    // (dropping whatever was appended), writes them again and ends it at its
    // former size. False with errno set when a step fails.
    bool restore(int fd) const;

private:
    PackageSnapshot(std::int64_t size, std::int64_t keptFrom, std::vector<unsigned char> kept);

    std::int64_t size_;
    std::int64_t keptFrom_;  // equals size_ when no bytes are kept
    std::vector<unsigned char> kept_;
};

}  // namespace sealkeep::cli

#endif
