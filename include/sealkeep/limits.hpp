// The bounds of the signed-file container and of what the library reads from
// a file, and the versions of its formats, as named constants: the library's
// own checks use exactly these, so a tool that sizes a buffer, checks an
// option or prints a limit takes them from here instead of typing them again.
#ifndef SEALKEEP_LIMITS_HPP
#define SEALKEEP_LIMITS_HPP

#include <cstddef>
#include <cstdint>

namespace PackageSignatures {

// Signatures in one stack: a developer's, then a seclab's or client's, then
// a client's.
inline constexpr std::size_t maxStackSignatures = 3;

// The largest CMS one block may hold. One IMA record per payload file is
// about 160 bytes with its DER framing for a GOST-512 key, so 100,000 files
// need about 16 MiB; twice that leaves room for trusted-application headers.
inline constexpr std::int64_t maxCmsLength = 32 * 1024 * 1024;
// The 12-byte header that ends every block and the 8-byte frame prefix in
// front of a version-3 block's CMS.
inline constexpr std::int64_t blockHeaderSize = 12;
inline constexpr std::int64_t framePrefixSize = 8;
// The largest block, prefix and header included.
inline constexpr std::int64_t maxBlockSize = framePrefixSize + maxCmsLength + blockHeaderSize;
// Blocks the backward scan collects: one more than a stack holds, so that
// verification sees too many and signing sees a full stack.
inline constexpr std::size_t maxScannedBlocks = maxStackSignatures + 1;
// The most bytes of signatures a scan reads at the end of a file.
inline constexpr std::int64_t maxScannedBytes = static_cast<std::int64_t>(maxScannedBlocks) * maxBlockSize;

// Proofs in a rotation chain (a monthly rotation for five years is 60), and
// the bytes a chain may take, as DER in a signature or PEM in a file.
inline constexpr int maxRotationProofs = 64;
inline constexpr long maxRotationChainBytes = 1L << 20;

// The first four bytes of an RPM package (the magic of its lead): what
// FileWithCmses::isRpmPackage and signing look for.
inline constexpr unsigned char rpmLeadMagic[4] = {0xED, 0xAB, 0xEE, 0xDB};

// The trust database's schema, as PRAGMA user_version holds it.
inline constexpr int databaseSchemaVersion = 4;

}  // namespace PackageSignatures

#endif
