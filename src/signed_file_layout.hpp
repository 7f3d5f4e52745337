// Internal: where the signature blocks of a signed file lie, and reading
// byte ranges of it. Shared by listing, removing, signing and verifying.
#ifndef SEALKEEP_SRC_SIGNED_FILE_LAYOUT_HPP
#define SEALKEEP_SRC_SIGNED_FILE_LAYOUT_HPP

#include <cstdint>
#include <cstdio>
#include <functional>
#include <optional>
#include <vector>

#include <sealkeep/file_with_cmses.hpp>
#include <sealkeep/limits.hpp>

#include "signature_stack.hpp"

namespace PackageSignatures {

constexpr long frameHeaderSize = framePrefixSize;  // skippable-frame magic + frame size

// maxCmsLength and maxScannedBlocks (sealkeep/limits.hpp) bound the scan. A
// header claiming a larger CMS ends the scan like a header longer than the
// file: it would make every reader of the block allocate whatever the sender
// wrote in 12 bytes. Without a bound on the blocks collected, megabytes of
// empty headers would become a million blocks.

// One block found by the backward scan.
struct CmsLocation {
    std::int64_t begin;  // first byte of the CMS (after a version-3 prefix)
    std::int64_t end;    // one past the CMS, where its header starts
    CmsHeader header;
};

// The blocks appended to the file, in file order: at most maxScannedBlocks
// (the newest ones), each at most maxCmsLength long. Reads only the headers,
// with pread, so a file truncated meanwhile just ends the scan.
std::vector<CmsLocation> locateCmses(FILE* file);

// The backward scan itself, unbounded in count: visit is called with each
// block, newest first, until it returns false or no further block fits in
// front. Reads 12 bytes per block and keeps nothing.
void scanBlocks(FILE* file, std::function<bool(CmsLocation const&)> const& visit);

// The bytes [begin, end) of the file, read with pread in pieces of at most
// 8192 bytes; empty when the stream is null, the range is empty or a read
// fails. A range reaching past the end of the file never completes: callers
// only pass ranges inside the file.
std::vector<unsigned char> readFileRange(FILE* file, long begin, long end);

// Like readFileRange, but the end of the file ends the read as a failure
// (empty result), so a file truncated after it was scanned cannot stall.
std::vector<unsigned char> readFileRangeWithin(FILE* file, std::int64_t begin, std::int64_t end);

// The CMS bytes of the block at location; an empty Cms when they cannot be read.
Cms readCms(FILE* file, CmsLocation const& location);

// The CMS bytes of each block, one Cms per location in the same order.
std::vector<Cms> readCmses(FILE* file, std::vector<CmsLocation> const& locations);

// The bytes [begin, end) of the file that a signature covers.
struct ByteRange {
    std::int64_t begin;
    std::int64_t end;
};

// What block i of locations signs. The first block covers the package, and
// so does a later legacy block; a later version-2 or version-3 block covers
// the previous block's CMS and header. A block's own frame prefix is never
// covered: it is recognised by the skippable-frame magic 8 bytes in front of
// the CMS. Empty for a later block of any other version.
std::optional<ByteRange> coveredRange(FILE* file, std::vector<CmsLocation> const& locations,
                                      std::size_t i);

// Where a cut removes the block at loc, together with its frame prefix when
// the block is version 3.
long cutOffsetOf(CmsLocation const& loc);

// Where a cut removes every block, also those in front of the newest few
// that locateCmses collects; the file size when there is none.
long cutBeforeEveryBlock(FILE* file);

}  // namespace PackageSignatures

#endif
