// The backward scan over appended blocks and range reads.
#include <gtest/gtest.h>

#include "signed_file_layout.hpp"
#include "support/blocks.hpp"
#include "support/process.hpp"
#include "support/temp_dir.hpp"

namespace {

using namespace sealkeep::test;
using PackageSignatures::CmsLocation;
using PackageSignatures::locateCmses;
using PackageSignatures::readFileRange;

class SignedFileLayout : public ::testing::Test {
protected:
    std::vector<CmsLocation> scan(Bytes const& contents)
    {
        writeFile(path, contents);
        FILE* file = fopen(path.c_str(), "r");
        auto found = locateCmses(file);
        fclose(file);
        return found;
    }

    TempDir dir;
    std::string path = dir.file("signed");
};

TEST_F(SignedFileLayout, EmptyFileHasNoBlocks)
{
    EXPECT_TRUE(scan({}).empty());
}

TEST_F(SignedFileLayout, NullStreamHasNoBlocks)
{
    EXPECT_TRUE(locateCmses(nullptr).empty());
}

TEST_F(SignedFileLayout, FileWithoutMagicHasNoBlocks)
{
    EXPECT_TRUE(scan(patternBytes(1000)).empty());
}

TEST_F(SignedFileLayout, ShortFileHasNoBlocks)
{
    // The magic alone, with too few bytes for a whole header.
    EXPECT_TRUE(scan(Bytes{0xBB, 0x91, 0x9F, 0xF0}).empty());
}

TEST_F(SignedFileLayout, VersionThreeBlockBeginsAfterItsPrefix)
{
    Bytes package = patternBytes(100);
    Bytes cms = patternBytes(40, 2);
    auto found = scan(concat({package, makeBlock(cms, 3)}));
    ASSERT_EQ(1u, found.size());
    EXPECT_EQ(108, found[0].begin);
    EXPECT_EQ(148, found[0].end);
    EXPECT_EQ(3u, found[0].header.version);
    EXPECT_EQ(40, found[0].header.length);
    EXPECT_EQ(100, PackageSignatures::cutOffsetOf(found[0]));
}

TEST_F(SignedFileLayout, LegacyVersionTwoAndThreeBlocksAreFoundInFileOrder)
{
    Bytes package = patternBytes(64);
    Bytes first = patternBytes(30, 3), second = patternBytes(20, 4), third = patternBytes(10, 5);
    auto found = scan(concat({package, makeBlock(first, 1), makeBlock(second, 2), makeBlock(third, 3)}));
    ASSERT_EQ(3u, found.size());
    EXPECT_EQ(1u, found[0].header.version);
    EXPECT_EQ(64, found[0].begin);
    EXPECT_EQ(94, found[0].end);
    EXPECT_EQ(2u, found[1].header.version);
    EXPECT_EQ(106, found[1].begin);
    EXPECT_EQ(126, found[1].end);
    EXPECT_EQ(3u, found[2].header.version);
    EXPECT_EQ(138 + 8, found[2].begin);
    EXPECT_EQ(156, found[2].end);
}

TEST_F(SignedFileLayout, OversizedLengthEndsTheScanButKeepsLaterBlocks)
{
    Bytes cms = patternBytes(16, 6);
    // A header claiming more bytes than stand before it, then a valid block.
    Bytes contents = concat({patternBytes(10), makeHeader(2, 5000), makeBlock(cms, 2)});
    auto found = scan(contents);
    ASSERT_EQ(1u, found.size());
    EXPECT_EQ(22, found[0].begin);
    EXPECT_EQ(16, found[0].header.length);
}

TEST_F(SignedFileLayout, HostileLegacyLengthsEndTheScan)
{
    for (std::uint64_t length : {0xFFFFFFFFFFFFFFFFull, 0x8000000000000000ull, 0x7FFFFFFFFFFFFFFFull}) {
        Bytes contents = concat({patternBytes(50), makeHeader(1, length)});
        EXPECT_TRUE(scan(contents).empty()) << length;
    }
}

TEST_F(SignedFileLayout, UnknownVersionIsABlockWithoutPrefix)
{
    Bytes cms = patternBytes(24, 7);
    Bytes contents = concat({patternBytes(40), makeBlock(cms, 2)});
    // Rewrite the version field of the header to 5.
    contents[contents.size() - 8] = 5;
    auto found = scan(contents);
    ASSERT_EQ(1u, found.size());
    EXPECT_EQ(5u, found[0].header.version);
    EXPECT_EQ(40, found[0].begin);
    EXPECT_EQ(40, PackageSignatures::cutOffsetOf(found[0]));
}

TEST_F(SignedFileLayout, VersionThreeStepsBackEightMoreBytes)
{
    // Two version-2-shaped blocks; the newer one claims version 3, so the
    // scan skips 8 bytes it takes for a prefix and must then find the older
    // block's header 8 bytes earlier than where it really ends.
    Bytes older = patternBytes(20, 8), newer = patternBytes(12, 9);
    Bytes newerBlock = makeBlock(newer, 2);
    newerBlock[newerBlock.size() - 8] = 3;
    Bytes asVersionTwo = concat({patternBytes(30), makeBlock(older, 2), makeBlock(newer, 2)});
    Bytes asVersionThree = concat({patternBytes(30), makeBlock(older, 2), newerBlock});
    EXPECT_EQ(2u, scan(asVersionTwo).size());
    auto found = scan(asVersionThree);
    ASSERT_EQ(1u, found.size());
    EXPECT_EQ(3u, found[0].header.version);
}

TEST_F(SignedFileLayout, ReadFileRangeReadsAcrossPieces)
{
    Bytes contents = patternBytes(3 * 8192 + 77);
    writeFile(path, contents);
    FILE* file = fopen(path.c_str(), "r");
    auto range = readFileRange(file, 100, 3 * 8192 + 50);
    fclose(file);
    EXPECT_EQ(Bytes(contents.begin() + 100, contents.begin() + 3 * 8192 + 50), range);
}

TEST_F(SignedFileLayout, ReadFileRangeOfEmptyOrReversedRangeIsEmpty)
{
    writeFile(path, patternBytes(10));
    FILE* file = fopen(path.c_str(), "r");
    EXPECT_TRUE(readFileRange(file, 5, 5).empty());
    EXPECT_TRUE(readFileRange(file, 6, 2).empty());
    EXPECT_TRUE(readFileRange(nullptr, 0, 4).empty());
    fclose(file);
}

TEST_F(SignedFileLayout, ReadFileRangeDoesNotMoveTheStreamPosition)
{
    writeFile(path, patternBytes(100));
    FILE* file = fopen(path.c_str(), "r");
    fseek(file, 17, SEEK_SET);
    readFileRange(file, 0, 50);
    EXPECT_EQ(17, ftell(file));
    fclose(file);
}

TEST_F(SignedFileLayout, ReadFileRangePastTheEndNeverReturns)
{
    writeFile(path, patternBytes(10));
    std::string target = path;
    auto result = runInChild(
        [target] {
            FILE* file = fopen(target.c_str(), "r");
            readFileRange(file, 0, 11);
            return 0;
        },
        500);
    EXPECT_TRUE(result.timedOut);
}

}  // namespace
