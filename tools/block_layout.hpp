// Where each signature block of a file lies and which bytes it signs, read
// from the 12-byte headers at the end of the file. The command shows these
// offsets; the library itself hands out blocks without them.
#ifndef SEALKEEP_TOOLS_BLOCK_LAYOUT_HPP
#define SEALKEEP_TOOLS_BLOCK_LAYOUT_HPP

#include <cstdint>
#include <optional>
#include <string>
#include <vector>

namespace sealkeep::cli {

struct BlockLayout {
    std::uint32_t version = 0;
    std::int64_t start = 0;  // first byte of the block, frame prefix included
    std::int64_t begin = 0;  // first byte of the CMS
    std::int64_t end = 0;    // one past the CMS, where the header starts
    // The signed bytes: the whole package for the first block, then from the
    // CMS of the previous block up to this block.
    std::int64_t coveredBegin = 0;
    std::int64_t coveredEnd = 0;
};

// The blocks of the file at path in file order; nothing when the file cannot
// be opened (errno tells why).
std::optional<std::vector<BlockLayout>> readBlockLayout(std::string const& path);

}  // namespace sealkeep::cli

#endif
