// Internal: where the signature blocks of a signed file lie, and reading
// byte ranges of it. Shared by listing, removing, signing and verifying.
#ifndef SEALKEEP_SRC_SIGNED_FILE_LAYOUT_HPP
#define SEALKEEP_SRC_SIGNED_FILE_LAYOUT_HPP

#include <cstdint>
#include <cstdio>
#include <vector>

#include <sealkeep/file_with_cmses.hpp>

namespace PackageSignatures {

constexpr long frameHeaderSize = 8;  // skippable-frame magic + frame size

// One block found by the backward scan.
struct CmsLocation {
    std::int64_t begin;  // first byte of the CMS (after a version-3 prefix)
    std::int64_t end;    // one past the CMS, where its header starts
    CmsHeader header;
};

// A private read-only mapping of a whole file, removed on destruction.
class ReadOnlyMapping {
public:
    // Maps the file behind the stream; invalid when the stream is null, fstat
    // fails or the file is empty.
    explicit ReadOnlyMapping(FILE* file);
    ~ReadOnlyMapping();
    ReadOnlyMapping(ReadOnlyMapping const&) = delete;
    ReadOnlyMapping& operator=(ReadOnlyMapping const&) = delete;

    bool valid() const { return data_ != nullptr; }
    const unsigned char* data() const { return data_; }
    std::int64_t size() const { return size_; }

private:
    const unsigned char* data_ = nullptr;
    std::int64_t size_ = 0;
};

// The blocks appended to the file, in file order. Reads only the headers.
std::vector<CmsLocation> locateCmses(FILE* file);

// The bytes [begin, end) of the file, read with pread in pieces of at most
// 8192 bytes; empty when the stream is null, the range is empty or a read
// fails. A range reaching past the end of the file never completes: callers
// only pass ranges inside the file.
std::vector<unsigned char> readFileRange(FILE* file, long begin, long end);

// Where a cut removes the block at loc, together with its frame prefix when
// the block is version 3.
long cutOffsetOf(CmsLocation const& loc);

}  // namespace PackageSignatures

#endif
