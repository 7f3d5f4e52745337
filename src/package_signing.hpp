// Internal: the pieces of FileWithCmses::sign that attaching a signature made
// elsewhere shares with it: where a signer goes in the stack, the block it
// writes, and the write itself. One rule each, used by both.
#ifndef SEALKEEP_SRC_PACKAGE_SIGNING_HPP
#define SEALKEEP_SRC_PACKAGE_SIGNING_HPP

#include <cstddef>
#include <cstdint>
#include <cstdio>
#include <optional>
#include <string>
#include <vector>

#include <sealkeep/groups.hpp>

struct x509_st;

namespace PackageSignatures {

class PackageRewrite;

// The group a certificate's group text names (None for none).
Group groupOf(x509_st* certificate);

// The size of the regular file open as fd; -1 for anything else.
std::int64_t sizeOf(int fd);

// Whether fd was opened for writing.
bool openForWriting(int fd);

// What signing a signer of some group does to the file as it is now.
struct SigningPlan {
    std::optional<long> cut;      // where a replacement truncates the file first
    bool allowed = false;         // whether the signer then takes the next position
    std::size_t position = 0;     // that position, 0-based (when allowed)
    std::int64_t rangeBegin = 0;  // the first byte the new signature covers
};

// The position rule and the replacement cut for a signer of group on the file
// as it stands (the caller holds the write lock).
SigningPlan planSigning(FILE* file, Group group, bool replace);

// Whether a CMS of derLength bytes fits in one block; false after a line on
// std::cerr.
bool fitsInOneBlock(std::size_t derLength);

// [skippable-frame prefix] + DER + header, as the scan expects to find it.
std::vector<unsigned char> makeBlock(unsigned char const* der, std::size_t length, bool skippableFrame);

// Completes a new version that holds exactly the package's first end bytes:
// appends block and puts it in place. Its descriptor (locked), or -1 after
// one line on std::cerr naming path.
int commitWithBlock(PackageRewrite& rewrite, std::string const& path, std::int64_t end,
                    std::vector<unsigned char> const& block);

// For an object without a path: cuts the file at cut (if any), appends block
// at end, undoing a partial append, and syncs. False when block is empty.
bool appendInPlace(int fd, std::optional<long> cut, std::int64_t end, std::vector<unsigned char> const& block);

// The stream an object continues with once signedFd (from commitWithBlock)
// is in place; relock when the caller's own lock must be taken on it again.
FILE* streamOfNewVersion(int signedFd, std::string const& path, bool relock);

}  // namespace PackageSignatures

#endif
