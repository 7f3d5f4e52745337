// Internal: writing a new version of a package beside it and putting it in
// the package's place with one rename, as rpmsign does. Until the rename a
// reader (and a crash, a kill, a full disk or a size limit) sees the package
// exactly as it was; after it, exactly as the write leaves it; and the new
// version is on disk, directory entry included, before the write reports
// success. The caller holds the package's write lock throughout.
#ifndef SEALKEEP_SRC_PACKAGE_REWRITE_HPP
#define SEALKEEP_SRC_PACKAGE_REWRITE_HPP

#include <cstddef>
#include <cstdint>
#include <memory>
#include <string>

namespace PackageSignatures {

class PackageRewrite {
public:
    // A new, empty version of the package open as packageFd and named by
    // path (through symbolic links: the file they lead to is replaced, not
    // the link): an unnamed file in the package's directory with its
    // permissions and, where the caller may set them, its owner and group.
    // Also removes what a killed writer of this package left behind. Null,
    // with errno set, when the directory takes no new file or path no longer
    // names the open package.
    static std::unique_ptr<PackageRewrite> begin(std::string const& path, int packageFd);

    // Drops a version that was not committed; the package stays as it was.
    ~PackageRewrite();
    PackageRewrite(PackageRewrite const&) = delete;
    PackageRewrite& operator=(PackageRewrite const&) = delete;

    // The new version, written at its file offset. The caller may append to
    // it with write().
    int fd() const { return fd_; }

    // Appends the bytes [begin, end) of the package (copied in the kernel
    // where it can). False with errno set when they cannot all be copied.
    bool copyFrom(int packageFd, std::int64_t begin, std::int64_t end);

    // Appends length bytes. False with errno set.
    bool append(const unsigned char* data, std::size_t length);

    // Syncs the new version, renames it over the package and syncs the
    // directory. Returns its descriptor, now the caller's to close, with the
    // write lock already taken on it, so that a writer that opens the new
    // version waits as it would have for the old one; -1 with errno set on
    // failure, when the package is as it was. When only the final sync of the
    // directory failed, the new version is in place but durable() is false
    // (errno tells why).
    int commit();
    bool durable() const { return durable_; }

private:
    PackageRewrite(std::string target, int directoryFd, int fd, std::string name);

    std::string target_;     // the package's own path, links resolved
    int directoryFd_;
    int fd_;
    std::string name_;       // empty while the new version is an unnamed file
    bool durable_ = false;
};

// Removes the new version of the package at path that a writer killed just
// before its rename left behind. Call under the package's write lock.
void removeLeftoverVersion(std::string const& path);

}  // namespace PackageSignatures

#endif
