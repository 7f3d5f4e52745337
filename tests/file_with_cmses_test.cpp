// The signed-file container through the class interface: opening, the block
// header format, the RPM lead test and removing signatures.
#include <gtest/gtest.h>

#include <sys/stat.h>

#include <sealkeep/file_with_cmses.hpp>

#include "support/blocks.hpp"
#include "support/process.hpp"
#include "support/temp_dir.hpp"

namespace {

using namespace sealkeep::test;
using PackageSignatures::CmsHeader;
using PackageSignatures::FileWithCmses;

const std::string reopenLinePrefix = "sealkeep: trying to reopen ";
const std::string reopenLineSuffix =
    " in read-only mode, as it failed to open in read-write mode "
    "(some features that modify a file may fail with an error)\n";

TEST(CmsHeader, DefaultHeaderIsZero)
{
    CmsHeader header;
    EXPECT_EQ(0u, header.version);
    EXPECT_EQ(0, header.length);
    EXPECT_EQ(12u, header.size());
}

TEST(CmsHeader, VersionZeroSerializesInTheLegacyForm)
{
    EXPECT_EQ((Bytes{0x34, 0x12, 0, 0, 0, 0, 0, 0, 0x83, 0x8E, 0x9F, 0xF0}),
              CmsHeader(0, 0x1234).serialize());
    EXPECT_EQ(CmsHeader(1, 0x1234).serialize(), CmsHeader(0, 0x1234).serialize());
}

TEST(CmsHeader, VersionTwoKeepsTheLowThirtyTwoBitsOfTheLength)
{
    EXPECT_EQ((Bytes{5, 0, 0, 0, 2, 0, 0, 0, 0xBB, 0x91, 0x9F, 0xF0}),
              CmsHeader(2, (1L << 32) + 5).serialize());
    EXPECT_EQ((Bytes{0x10, 0, 0, 0, 3, 0, 0, 0, 0xBB, 0x91, 0x9F, 0xF0}),
              CmsHeader(3, 16).serialize());
}

TEST(CmsHeader, ReadsBothFormsFromTheEndOfTheData)
{
    Bytes data = concat({patternBytes(5), CmsHeader(0, 77).serialize()});
    auto legacy = CmsHeader::read(data.data(), static_cast<long>(data.size()));
    ASSERT_TRUE(legacy);
    EXPECT_EQ(1u, legacy->version);
    EXPECT_EQ(77, legacy->length);

    data = concat({patternBytes(5), CmsHeader(9, 0xFFFFFFFF).serialize()});
    auto current = CmsHeader::read(data.data(), static_cast<long>(data.size()));
    ASSERT_TRUE(current);
    EXPECT_EQ(9u, current->version);
    EXPECT_EQ(0xFFFFFFFFL, current->length);
}

TEST(CmsHeader, NoHeaderInShortDataOrWithoutMagic)
{
    Bytes header = CmsHeader(2, 1).serialize();
    EXPECT_FALSE(CmsHeader::read(header.data() + 1, 11));
    Bytes noMagic = patternBytes(12);
    EXPECT_FALSE(CmsHeader::read(noMagic.data(), 12));
    EXPECT_TRUE(CmsHeader::read(header.data(), 12));
}

class FileWithCmsesTest : public ::testing::Test {
protected:
    TempDir dir;
    std::string path = dir.file("package");
};

TEST_F(FileWithCmsesTest, FromPathWithModeReturnsNullSilently)
{
    testing::internal::CaptureStderr();
    EXPECT_EQ(nullptr, FileWithCmses::fromPath(dir.file("missing").c_str(), "r"));
    EXPECT_EQ("", testing::internal::GetCapturedStderr());
}

TEST_F(FileWithCmsesTest, FromPathOpensReadWriteWithoutMessage)
{
    writeFile(path, patternBytes(8));
    testing::internal::CaptureStderr();
    auto file = FileWithCmses::fromPath(path);
    EXPECT_EQ("", testing::internal::GetCapturedStderr());
    ASSERT_NE(nullptr, file);
    EXPECT_GE(file->fd(), 0);
}

TEST_F(FileWithCmsesTest, FromPathFallsBackToReadOnlyWithTheReopenLine)
{
    // A directory opens for reading but never for writing, even as root.
    std::string directory = dir.file("directory");
    mkdir(directory.c_str(), 0755);
    testing::internal::CaptureStderr();
    auto file = FileWithCmses::fromPath(directory.c_str());
    EXPECT_EQ(reopenLinePrefix + directory + reopenLineSuffix, testing::internal::GetCapturedStderr());
    EXPECT_NE(nullptr, file);
}

TEST_F(FileWithCmsesTest, FromPathOfMissingFilePrintsTheReopenLineAndReturnsNull)
{
    std::string missing = dir.file("missing");
    testing::internal::CaptureStderr();
    auto file = FileWithCmses::fromPath(std::string(missing));
    EXPECT_EQ(reopenLinePrefix + missing + reopenLineSuffix, testing::internal::GetCapturedStderr());
    EXPECT_EQ(nullptr, file);
}

TEST_F(FileWithCmsesTest, IsRpmPackageLooksAtTheLeadMagic)
{
    writeFile(path, concat({Bytes{0xED, 0xAB, 0xEE, 0xDB}, patternBytes(50)}));
    EXPECT_TRUE(FileWithCmses::fromPath(path.c_str(), "r")->isRpmPackage());
    writeFile(path, Bytes{0xED, 0xAB, 0xEE, 0xDB});
    EXPECT_TRUE(FileWithCmses::fromPath(path.c_str(), "r")->isRpmPackage());
    writeFile(path, concat({Bytes{0xED, 0xAB, 0xEE, 0xDC}, patternBytes(50)}));
    EXPECT_FALSE(FileWithCmses::fromPath(path.c_str(), "r")->isRpmPackage());
    writeFile(path, Bytes{0x00, 0xED, 0xAB, 0xEE, 0xDB});
    EXPECT_FALSE(FileWithCmses::fromPath(path.c_str(), "r")->isRpmPackage());
}

TEST_F(FileWithCmsesTest, DeleteCmsesWithoutBlocksLeavesTheFileAlone)
{
    for (Bytes contents : {Bytes{}, patternBytes(300)}) {
        writeFile(path, contents);
        auto file = FileWithCmses::fromPath(path);
        EXPECT_TRUE(file->deleteCmses(true));
        EXPECT_TRUE(file->deleteCmses(false));
        file.reset();
        EXPECT_EQ(contents, readFile(path));
    }
}

TEST_F(FileWithCmsesTest, DeleteLastVersionThreeBlockCutsItsPrefixToo)
{
    Bytes package = patternBytes(100);
    Bytes first = makeBlock(patternBytes(30, 2), 2);
    writeFile(path, concat({package, first, makeBlock(patternBytes(40, 3), 3)}));
    auto file = FileWithCmses::fromPath(path);
    EXPECT_TRUE(file->deleteCmses(true));
    file.reset();
    EXPECT_EQ(concat({package, first}), readFile(path));
}

TEST_F(FileWithCmsesTest, DeleteAllCutsAtTheFirstBlock)
{
    Bytes package = patternBytes(100);
    writeFile(path, concat({package, makeBlock(patternBytes(30, 2), 3), makeBlock(patternBytes(20, 3), 2),
                            makeBlock(patternBytes(10, 4), 1)}));
    auto file = FileWithCmses::fromPath(path);
    EXPECT_TRUE(file->deleteCmses(false));
    file.reset();
    EXPECT_EQ(package, readFile(path));

    writeFile(path, concat({package, makeBlock(patternBytes(30, 2), 2), makeBlock(patternBytes(20, 3), 3)}));
    file = FileWithCmses::fromPath(path);
    EXPECT_TRUE(file->deleteCmses(false));
    file.reset();
    EXPECT_EQ(package, readFile(path));
}

TEST_F(FileWithCmsesTest, DeleteAllRemovesBlocksBeyondThoseOneScanCollects)
{
    Bytes package = patternBytes(100);
    Bytes contents = package;
    for (unsigned char i = 0; i < 10; ++i)
        contents = concat({contents, makeBlock(patternBytes(20 + i, i), i % 2 ? 3 : 2)});
    writeFile(path, contents);
    auto file = FileWithCmses::fromPath(path);
    ASSERT_EQ(4u, file->cmses().size());
    EXPECT_TRUE(file->deleteCmses(false));
    EXPECT_TRUE(file->cmses().empty());
    file.reset();
    EXPECT_EQ(package, readFile(path));
}

TEST_F(FileWithCmsesTest, BlockLocationsNameEachBlockAndWhatItSigns)
{
    Bytes package = patternBytes(100);
    Bytes first = makeBlock(patternBytes(30, 2), 3);   // 8 + 30 + 12
    Bytes second = makeBlock(patternBytes(20, 3), 2);  // 20 + 12
    Bytes third = makeBlock(patternBytes(10, 4), 1);   // 10 + 12
    Bytes fourth = makeBlock(patternBytes(10, 5), 3);  // 8 + 10 + 12
    writeFile(path, concat({package, first, second, third, fourth}));
    auto blocks = FileWithCmses::fromPath(path.c_str(), "r")->blockLocations();
    ASSERT_EQ(4u, blocks.size());

    EXPECT_EQ(3u, blocks[0].version);
    EXPECT_EQ(100, blocks[0].start);
    EXPECT_EQ(108, blocks[0].begin);
    EXPECT_EQ(138, blocks[0].end);
    EXPECT_TRUE(blocks[0].covered);
    EXPECT_EQ(0, blocks[0].coveredBegin);
    EXPECT_EQ(100, blocks[0].coveredEnd);

    EXPECT_EQ(2u, blocks[1].version);
    EXPECT_EQ(150, blocks[1].start);
    EXPECT_EQ(150, blocks[1].begin);
    EXPECT_EQ(170, blocks[1].end);
    EXPECT_EQ(108, blocks[1].coveredBegin) << "the previous CMS and its header";
    EXPECT_EQ(150, blocks[1].coveredEnd);

    EXPECT_EQ(1u, blocks[2].version);
    EXPECT_EQ(182, blocks[2].begin);
    EXPECT_EQ(0, blocks[2].coveredBegin) << "a legacy block covers everything before it";
    EXPECT_EQ(182, blocks[2].coveredEnd);

    EXPECT_EQ(3u, blocks[3].version);
    EXPECT_EQ(204, blocks[3].start);
    EXPECT_EQ(212, blocks[3].begin);
    EXPECT_EQ(182, blocks[3].coveredBegin);
    EXPECT_EQ(204, blocks[3].coveredEnd) << "its own frame prefix is not covered";
}

TEST_F(FileWithCmsesTest, BlockLocationOfALaterBlockOfUnknownVersionCoversNothing)
{
    writeFile(path, concat({patternBytes(100), makeBlock(patternBytes(30, 2), 2),
                            makeBlock(patternBytes(20, 3), 5)}));
    auto blocks = FileWithCmses::fromPath(path.c_str(), "r")->blockLocations();
    ASSERT_EQ(2u, blocks.size());
    EXPECT_TRUE(blocks[0].covered);
    EXPECT_EQ(5u, blocks[1].version);
    EXPECT_FALSE(blocks[1].covered);
    EXPECT_EQ(0, blocks[1].coveredBegin);
    EXPECT_EQ(0, blocks[1].coveredEnd);
}

TEST_F(FileWithCmsesTest, DeleteOnlyTheNewestOfSeveral)
{
    Bytes package = patternBytes(100);
    Bytes kept = concat({package, makeBlock(patternBytes(30, 2), 1), makeBlock(patternBytes(20, 3), 3)});
    writeFile(path, concat({kept, makeBlock(patternBytes(10, 4), 2)}));
    auto file = FileWithCmses::fromPath(path);
    EXPECT_TRUE(file->deleteCmses(true));
    file.reset();
    EXPECT_EQ(kept, readFile(path));
}

TEST_F(FileWithCmsesTest, DeleteOnAReadOnlyStreamFails)
{
    Bytes contents = concat({patternBytes(100), makeBlock(patternBytes(30, 2), 2)});
    writeFile(path, contents);
    auto file = FileWithCmses::fromPath(path.c_str(), "r");
    EXPECT_FALSE(file->deleteCmses(true));
    file.reset();
    EXPECT_EQ(contents, readFile(path));
}

TEST_F(FileWithCmsesTest, VersionThreeBlockIsASkippableZstdFrame)
{
    Bytes payload = patternBytes(5000);
    writeFile(dir.file("payload"), payload);
    auto compressed = runCommand({"zstd", "-q", "-f", dir.file("payload"), "-o", path});
    ASSERT_EQ(0, compressed.exitCode) << compressed.errors;

    Bytes cms = patternBytes(300, 11);
    Bytes block = makeBlock(cms, 3);
    EXPECT_EQ((Bytes{0x50, 0x2A, 0x4D, 0x18, 0x38, 0x01, 0x00, 0x00}), Bytes(block.begin(), block.begin() + 8))
        << "frame size must be L + 12 = 312";
    appendFile(path, block);
    appendFile(path, makeBlock(patternBytes(100, 12), 3));

    auto test = runCommand({"zstd", "-t", "-q", path});
    EXPECT_EQ(0, test.exitCode) << test.errors;
    auto decompressed = runCommand({"zstd", "-d", "-q", "-c", path});
    ASSERT_EQ(0, decompressed.exitCode) << decompressed.errors;
    EXPECT_EQ(std::string(payload.begin(), payload.end()), decompressed.output);
}

}  // namespace
