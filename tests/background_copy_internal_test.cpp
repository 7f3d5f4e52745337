// The copy of a package made on a thread of its own, and the digest that
// reads the copy behind it.
#include <gtest/gtest.h>

#include <cerrno>

#include <fcntl.h>
#include <unistd.h>

#include "common/background_copy.hpp"
#include "common/ossl_ptr.hpp"
#include "common/streaming_bio.hpp"
#include "support/files.hpp"
#include "support/temp_dir.hpp"

namespace {

using namespace sealkeep::test;
using sealkeep::BackgroundCopy;
using sealkeep::BioPtr;

class BackgroundCopyTest : public ::testing::Test {
protected:
    int openNew(std::string const& name)
    {
        int fd = ::open(dir.file(name).c_str(), O_RDWR | O_CREAT | O_TRUNC | O_CLOEXEC, 0600);
        EXPECT_GE(fd, 0);
        fds.push_back(fd);
        return fd;
    }
    int openExisting(std::string const& name)
    {
        int fd = ::open(dir.file(name).c_str(), O_RDONLY | O_CLOEXEC);
        EXPECT_GE(fd, 0);
        fds.push_back(fd);
        return fd;
    }
    void TearDown() override
    {
        for (int fd : fds)
            ::close(fd);
    }

    TempDir dir;
    std::vector<int> fds;
};

// Several megabytes, so that the copy takes several steps and the reader
// really follows it.
TEST_F(BackgroundCopyTest, ReaderBehindTheCopySeesExactlyTheSourceBytes)
{
    Bytes contents = patternBytes(5 * 1024 * 1024 + 12345, 7);
    writeFile(dir.file("source"), contents);
    int from = openExisting("source");
    int to = openNew("copy");
    const auto end = static_cast<std::int64_t>(contents.size()) - 100;
    BackgroundCopy copy(from, to, end);
    BioPtr bio(sealkeep::bioOverFileRange(copy.target(), 1000, end, &copy));
    ASSERT_TRUE(bio);
    Bytes read(contents.size());
    std::size_t total = 0;
    int got = 0;
    while ((got = BIO_read(bio.get(), read.data() + total, 4096)) > 0)
        total += static_cast<std::size_t>(got);
    EXPECT_EQ(total, static_cast<std::size_t>(end - 1000));
    EXPECT_EQ(1, BIO_eof(bio.get()));
    read.resize(total);
    EXPECT_EQ(read, Bytes(contents.begin() + 1000, contents.begin() + end));
    ASSERT_TRUE(copy.finish());
    EXPECT_EQ(readFile(dir.file("copy")), Bytes(contents.begin(), contents.begin() + end));
    // The copy appended at the target's position, where a block follows.
    EXPECT_EQ(end, lseek(to, 0, SEEK_CUR));
}

TEST_F(BackgroundCopyTest, ASourceShorterThanTheRangeFailsTheCopyAndItsReader)
{
    writeFile(dir.file("source"), patternBytes(3 * 1024 * 1024, 1));
    int from = openExisting("source");
    int to = openNew("copy");
    BackgroundCopy copy(from, to, 4 * 1024 * 1024);
    BioPtr bio(sealkeep::bioOverFileRange(copy.target(), 0, 4 * 1024 * 1024, &copy));
    ASSERT_TRUE(bio);
    unsigned char piece[4096];
    int got = 0;
    long total = 0;
    while ((got = BIO_read(bio.get(), piece, sizeof piece)) > 0)
        total += got;
    EXPECT_EQ(-1, got);
    EXPECT_LE(total, 3 * 1024 * 1024);
    EXPECT_EQ(0, BIO_eof(bio.get()));
    errno = 0;
    EXPECT_FALSE(copy.finish());
    EXPECT_EQ(EIO, errno);
    EXPECT_FALSE(copy.unfailed());
}

TEST_F(BackgroundCopyTest, AFullTargetFailsWithItsError)
{
    writeFile(dir.file("source"), patternBytes(100000, 2));
    int from = openExisting("source");
    int full = ::open("/dev/full", O_WRONLY | O_CLOEXEC);
    if (full < 0)
        GTEST_SKIP() << "no /dev/full";
    fds.push_back(full);
    BackgroundCopy copy(from, full, 100000);
    errno = 0;
    EXPECT_FALSE(copy.waitFor(1));
    EXPECT_EQ(ENOSPC, errno);
}

// A signing that fails for its own reason leaves the copy unfinished: the
// copy stops and is waited for, with nothing left running.
TEST_F(BackgroundCopyTest, ACopyAbandonedHalfWayStops)
{
    Bytes contents = patternBytes(16 * 1024 * 1024, 3);
    writeFile(dir.file("source"), contents);
    int from = openExisting("source");
    int to = openNew("copy");
    {
        BackgroundCopy copy(from, to, static_cast<std::int64_t>(contents.size()));
        EXPECT_TRUE(copy.waitFor(1));
        EXPECT_TRUE(copy.unfailed());
    }
    EXPECT_LE(readFile(dir.file("copy")).size(), contents.size());
}

TEST_F(BackgroundCopyTest, AnEmptyRangeIsCopiedAtOnce)
{
    writeFile(dir.file("source"), patternBytes(10, 1));
    int from = openExisting("source");
    int to = openNew("copy");
    BackgroundCopy copy(from, to, 0);
    EXPECT_TRUE(copy.finish());
    EXPECT_TRUE(readFile(dir.file("copy")).empty());
}

}  // namespace
