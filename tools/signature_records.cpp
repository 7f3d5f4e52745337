// Decoding IMA signature records and OP-TEE signed headers, for display and
// for checking a record against the file it labels.
#include "signature_records.hpp"

#include <array>
#include <cstdio>
#include <vector>

#include <openssl/obj_mac.h>

namespace sealkeep::cli {
namespace {

constexpr std::size_t imaHeaderSize = 9;
constexpr std::uint32_t taMagic = 0x4F545348u;  // "HSTO"
constexpr std::size_t taFixedSize = 20;         // magic .. sig_size
constexpr std::size_t taTrailerSize = 20;       // UUID and TA version

std::string taAlgorithmName(std::uint32_t algorithm)
{
    switch (algorithm) {
    case 0x70414930u:
        return "TEE_ALG_RSASSA_PKCS1_PSS_MGF1_SHA256";
    case 0x70004830u:
        return "TEE_ALG_RSASSA_PKCS1_V1_5_SHA256";
    default:
        return "unknown";
    }
}

std::string hexOf(unsigned char const* data, std::size_t size)
{
    static const char digits[] = "0123456789abcdef";
    std::string text;
    for (std::size_t i = 0; i < size; ++i) {
        text += digits[data[i] >> 4];
        text += digits[data[i] & 0x0F];
    }
    return text;
}

std::optional<std::vector<unsigned char>> bytesOfHex(std::string const& hex)
{
    if (hex.size() % 2 != 0)
        return std::nullopt;
    std::vector<unsigned char> bytes;
    for (std::size_t i = 0; i < hex.size(); i += 2) {
        unsigned value = 0;
        if (std::sscanf(hex.substr(i, 2).c_str(), "%2x", &value) != 1)
            return std::nullopt;
        bytes.push_back(static_cast<unsigned char>(value));
    }
    return bytes;
}

std::uint32_t le32(unsigned char const* p)
{
    return p[0] | (p[1] << 8) | (p[2] << 16) | (static_cast<std::uint32_t>(p[3]) << 24);
}

unsigned le16(unsigned char const* p)
{
    return p[0] | (p[1] << 8);
}

}  // namespace

std::optional<ImaHashAlgorithm> imaHashAlgorithm(unsigned number)
{
    if (number >= PackageSignatures::imaHashAlgorithmCount)
        return std::nullopt;
    return PackageSignatures::imaHashAlgorithms[number];
}

std::optional<ImaRecord> decodeImaRecord(unsigned char const* data, std::size_t size)
{
    if (!data || size < imaHeaderSize || data[0] != 3 || data[1] != 2)
        return std::nullopt;
    ImaRecord record;
    if (auto algorithm = imaHashAlgorithm(data[2])) {
        record.hashAlgorithm = algorithm->name;
        record.hashNid = algorithm->nid;
    } else {
        record.hashAlgorithm = "unknown(" + std::to_string(data[2]) + ")";
        record.hashNid = NID_undef;
    }
    record.keyId = hexOf(data + 3, 4);
    record.signatureSize = (data[7] << 8) | data[8];
    if (size != imaHeaderSize + record.signatureSize)
        return std::nullopt;
    record.signature.assign(data + imaHeaderSize, data + size);
    return record;
}

std::optional<TaHeader> decodeTaHeader(std::string const& hex)
{
    auto bytes = bytesOfHex(hex);
    if (!bytes || bytes->size() < taFixedSize || le32(bytes->data()) != taMagic)
        return std::nullopt;
    unsigned char const* p = bytes->data();
    TaHeader header;
    header.imageSize = le32(p + 8);
    header.algorithm = le32(p + 12);
    header.algorithmName = taAlgorithmName(header.algorithm);
    unsigned hashSize = le16(p + 16);
    header.signatureSize = le16(p + 18);
    std::size_t uuidAt = taFixedSize + hashSize + header.signatureSize;
    if (bytes->size() != uuidAt + taTrailerSize)
        return std::nullopt;
    std::string u = hexOf(p + uuidAt, 16);
    header.uuid = u.substr(0, 8) + "-" + u.substr(8, 4) + "-" + u.substr(12, 4) + "-" + u.substr(16, 4) + "-" +
                  u.substr(20);
    return header;
}

}  // namespace sealkeep::cli
