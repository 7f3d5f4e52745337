// Hand-made signature blocks in the container format, for tests of the scan
// that need exact control over versions, lengths and prefixes.
#ifndef SEALKEEP_TESTS_SUPPORT_BLOCKS_HPP
#define SEALKEEP_TESTS_SUPPORT_BLOCKS_HPP

#include <cstdint>

#include "support/files.hpp"

namespace sealkeep::test {

// [8-byte skippable-frame prefix when version is 3] + cms + 12-byte header of
// that version (legacy 64-bit form for versions 0 and 1).
Bytes makeBlock(Bytes const& cms, unsigned version);
// The header alone, with a length that need not match anything.
Bytes makeHeader(unsigned version, std::uint64_t length);

}  // namespace sealkeep::test

#endif
