// Decoders for the two per-file values a signature carries: the IMA
// signature record (as kept in security.ima) and the OP-TEE signed header of
// a trusted application, stored as hexadecimal text.
#ifndef SEALKEEP_TOOLS_SIGNATURE_RECORDS_HPP
#define SEALKEEP_TOOLS_SIGNATURE_RECORDS_HPP

#include <cstddef>
#include <cstdint>
#include <optional>
#include <string>
#include <vector>

#include <sealkeep/ima_hash_algorithms.hpp>

namespace sealkeep::cli {

// A digest as an IMA record numbers it: the kernel's enum hash_algo.
using PackageSignatures::ImaHashAlgorithm;

// The algorithm the kernel numbers so; nothing for a number it does not use.
std::optional<ImaHashAlgorithm> imaHashAlgorithm(unsigned number);

struct ImaRecord {
    std::string hashAlgorithm;  // the kernel's name, or "unknown(N)"
    int hashNid = 0;            // OpenSSL's NID of it; NID_undef (0) when none
    std::string keyId;          // the 4 key-id bytes in hexadecimal
    unsigned signatureSize = 0;
    std::vector<unsigned char> signature;
};

// Type 3, version 2, hash algorithm, 4-byte key id, big-endian signature
// size, signature. Nothing when the bytes are not such a record.
std::optional<ImaRecord> decodeImaRecord(unsigned char const* data, std::size_t size);

struct TaHeader {
    std::uint32_t imageSize = 0;
    std::uint32_t algorithm = 0;
    std::string algorithmName;  // OP-TEE's name, or "unknown"
    unsigned signatureSize = 0;
    std::string uuid;           // canonical text
};

// The little-endian header "HSTO", image type, image size, algorithm, hash
// and signature sizes, hash, signature, UUID, version; given as hexadecimal
// text. Nothing when the text is not such a header.
std::optional<TaHeader> decodeTaHeader(std::string const& hex);

}  // namespace sealkeep::cli

#endif
