// The command's decoders of IMA signature records and OP-TEE signed headers,
// on values built byte by byte after the formats.
#include <cstdio>
#include <string>
#include <vector>

#include <gtest/gtest.h>
#include <openssl/obj_mac.h>

#include "signature_records.hpp"

namespace sealkeep::cli {
namespace {

std::vector<unsigned char> imaRecord(unsigned char hashAlgorithm, unsigned signatureSize)
{
    std::vector<unsigned char> record = {3, 2, hashAlgorithm, 0xde, 0xad, 0xbe, 0xef,
                                         static_cast<unsigned char>(signatureSize >> 8),
                                         static_cast<unsigned char>(signatureSize)};
    record.resize(9 + signatureSize, 0x5a);
    return record;
}

void putLe(std::vector<unsigned char>& bytes, std::size_t at, unsigned value, int width)
{
    for (int i = 0; i < width; ++i)
        bytes[at + i] = static_cast<unsigned char>(value >> (8 * i));
}

std::string hexOf(std::vector<unsigned char> const& bytes)
{
    std::string text;
    char pair[3];
    for (unsigned char byte : bytes) {
        std::snprintf(pair, sizeof pair, "%.2x", byte);
        text += pair;
    }
    return text;
}

// A bootstrap TA header with a 256-byte signature, as signing writes it.
std::vector<unsigned char> taHeader(unsigned algorithm)
{
    std::vector<unsigned char> header(72 + 256, 0);
    putLe(header, 0, 0x4F545348u, 4);
    putLe(header, 4, 1, 4);
    putLe(header, 8, 4096, 4);
    putLe(header, 12, algorithm, 4);
    putLe(header, 16, 32, 2);
    putLe(header, 18, 256, 2);
    unsigned char const uuid[16] = {0x8a, 0xaa, 0xf2, 0x00, 0x24, 0x50, 0x11, 0xe4,
                                    0xab, 0xe2, 0x00, 0x02, 0xa5, 0xd5, 0xc5, 0x1b};
    std::copy(uuid, uuid + 16, header.begin() + 52 + 256);
    return header;
}

TEST(CliSignatureRecords, DecodesAGostImaRecord)
{
    auto bytes = imaRecord(18, 64);
    auto record = decodeImaRecord(bytes.data(), bytes.size());
    ASSERT_TRUE(record);
    EXPECT_EQ(record->hashAlgorithm, "streebog256");
    EXPECT_EQ(record->keyId, "deadbeef");
    EXPECT_EQ(record->signatureSize, 64u);
    auto sha256 = imaRecord(4, 256);
    EXPECT_EQ(decodeImaRecord(sha256.data(), sha256.size())->hashAlgorithm, "sha256");
    auto unknown = imaRecord(0xFF, 8);
    EXPECT_EQ(decodeImaRecord(unknown.data(), unknown.size())->hashAlgorithm, "unknown(255)");
}

// One table serves display and checking: the kernel's name and the digest
// OpenSSL computes for it.
TEST(CliSignatureRecords, NamesAndDigestsComeFromOneTable)
{
    auto streebog = imaHashAlgorithm(18);
    ASSERT_TRUE(streebog);
    EXPECT_STREQ(streebog->name, "streebog256");
    EXPECT_EQ(streebog->nid, NID_id_GostR3411_2012_256);
    EXPECT_EQ(imaHashAlgorithm(19)->nid, NID_id_GostR3411_2012_512);
    EXPECT_EQ(imaHashAlgorithm(4)->nid, NID_sha256);
    EXPECT_STREQ(imaHashAlgorithm(8)->name, "rmd128");
    EXPECT_EQ(imaHashAlgorithm(8)->nid, NID_undef);
    EXPECT_FALSE(imaHashAlgorithm(20));

    auto bytes = imaRecord(19, 128);
    auto record = decodeImaRecord(bytes.data(), bytes.size());
    ASSERT_TRUE(record);
    EXPECT_EQ(record->hashNid, NID_id_GostR3411_2012_512);
    EXPECT_EQ(record->signature, std::vector<unsigned char>(bytes.begin() + 9, bytes.end()));
    auto unknown = imaRecord(0xFF, 8);
    EXPECT_EQ(decodeImaRecord(unknown.data(), unknown.size())->hashNid, NID_undef);
}

TEST(CliSignatureRecords, RefusesWhatIsNoImaRecord)
{
    auto bytes = imaRecord(18, 64);
    EXPECT_FALSE(decodeImaRecord(bytes.data(), bytes.size() - 1));
    EXPECT_FALSE(decodeImaRecord(bytes.data(), 8));
    EXPECT_FALSE(decodeImaRecord(nullptr, 0));
    bytes[0] = 2;
    EXPECT_FALSE(decodeImaRecord(bytes.data(), bytes.size()));
}

TEST(CliSignatureRecords, DecodesATaHeader)
{
    auto header = decodeTaHeader(hexOf(taHeader(0x70414930u)));
    ASSERT_TRUE(header);
    EXPECT_EQ(header->uuid, "8aaaf200-2450-11e4-abe2-0002a5d5c51b");
    EXPECT_EQ(header->algorithmName, "TEE_ALG_RSASSA_PKCS1_PSS_MGF1_SHA256");
    EXPECT_EQ(header->imageSize, 4096u);
    EXPECT_EQ(header->signatureSize, 256u);
    EXPECT_EQ(decodeTaHeader(hexOf(taHeader(0x70004830u)))->algorithmName, "TEE_ALG_RSASSA_PKCS1_V1_5_SHA256");
    EXPECT_EQ(decodeTaHeader(hexOf(taHeader(7)))->algorithmName, "unknown");
}

TEST(CliSignatureRecords, RefusesWhatIsNoTaHeader)
{
    std::string hex = hexOf(taHeader(0x70414930u));
    EXPECT_FALSE(decodeTaHeader(hex.substr(0, hex.size() - 1)));
    EXPECT_FALSE(decodeTaHeader(hex.substr(0, hex.size() - 2)));
    EXPECT_FALSE(decodeTaHeader("zz" + hex.substr(2)));
    EXPECT_FALSE(decodeTaHeader("00" + hex.substr(2)));
    EXPECT_FALSE(decodeTaHeader(""));
}

}  // namespace
}  // namespace sealkeep::cli
