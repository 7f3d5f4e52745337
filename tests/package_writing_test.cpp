// How FileWithCmses writes a package: under an exclusive lock that a second
// writer waits for, as a new version renamed over the old one (permissions,
// links and readers of the old version as a rename leaves them), never
// touching the package when it cannot complete.
#include <dirent.h>
#include <fcntl.h>
#include <sys/resource.h>
#include <sys/stat.h>
#include <sys/xattr.h>
#include <unistd.h>

#include <csignal>
#include <string>
#include <vector>

#include <gtest/gtest.h>

#include <sealkeep/sealkeep.hpp>

#include "support/files.hpp"
#include "support/process.hpp"
#include "support/shared_pki.hpp"
#include "support/signing.hpp"
#include "support/stderr_capture.hpp"
#include "support/temp_dir.hpp"

namespace {

using namespace sealkeep::test;
using namespace PackageSignatures;
using namespace std::chrono_literals;
using sealkeep::PkeyPtr;
using sealkeep::X509Ptr;

class PackageWriting : public SharedPkiTest {
protected:
    void SetUp() override { writeFile(path, patternBytes(20000, 7)); }

    std::vector<std::string> directoryEntries() const
    {
        std::vector<std::string> names;
        DIR* directory = opendir(dir.path().c_str());
        while (dirent* entry = readdir(directory))
            if (std::string(entry->d_name) != "." && std::string(entry->d_name) != "..")
                names.push_back(entry->d_name);
        closedir(directory);
        std::sort(names.begin(), names.end());
        return names;
    }

    std::size_t signatureCount() const { return FileWithCmses::fromPath(path.c_str(), "r")->cmses().size(); }

    TempDir dir;
    std::string path = dir.file("package.bin");
};

TEST_F(PackageWriting, ASecondWriterWaitsForTheFirst)
{
    auto first = FileWithCmses::fromPath(path.c_str(), "r+");
    auto second = FileWithCmses::fromPath(path.c_str(), "r+");
    ASSERT_EQ(first->lockForWriting(0ms), FileWithCmses::LockStatus::Locked);
    auto started = std::chrono::steady_clock::now();
    EXPECT_EQ(second->lockForWriting(200ms), FileWithCmses::LockStatus::Busy);
    EXPECT_GE(std::chrono::steady_clock::now() - started, 200ms);
    first->unlock();
    EXPECT_EQ(second->lockForWriting(0ms), FileWithCmses::LockStatus::Locked);
}

TEST_F(PackageWriting, AWriterThatWaitedWorksOnTheVersionTheFirstLeft)
{
    auto first = FileWithCmses::fromPath(path.c_str(), "r+");
    auto second = FileWithCmses::fromPath(path.c_str(), "r+");
    ASSERT_EQ(first->lockForWriting(0ms), FileWithCmses::LockStatus::Locked);
    X509Ptr cert = loadCertificate(pki->developer().certPath);
    PkeyPtr key = loadKey(pki->developer().keyPath);
    ASSERT_TRUE(first->sign(cert.get(), key.get(), nullptr, 0, nullptr, false, true, false));
    first->unlock();
    // second opened the package before it was replaced.
    ASSERT_EQ(second->lockForWriting(-1ms), FileWithCmses::LockStatus::Locked);
    EXPECT_EQ(second->cmses().size(), 1u);
    EXPECT_FALSE(second->maySign(Group::Developer, false));
    EXPECT_TRUE(second->maySign(Group::Client, false));
}

TEST_F(PackageWriting, SigningReplacesThePackageAndLeavesNothingBeside)
{
    chmod(path.c_str(), 0640);
    struct stat before {};
    stat(path.c_str(), &before);
    ASSERT_TRUE(signFile(path, pki->developer()));
    struct stat after {};
    stat(path.c_str(), &after);
    EXPECT_NE(before.st_ino, after.st_ino);
    EXPECT_EQ(after.st_mode & 07777, 0640u);
    EXPECT_EQ(after.st_uid, before.st_uid);
    EXPECT_EQ(directoryEntries(), std::vector<std::string>{"package.bin"});
}

// What describes the package file goes over to the new version; an IMA
// signature of the old content does not.
TEST_F(PackageWriting, SigningKeepsTheExtendedAttributesThatStillHold)
{
    const char note[] = "kept";
    if (setxattr(path.c_str(), "user.note", note, sizeof note - 1, 0) != 0)
        GTEST_SKIP() << "this file system takes no user attributes";
    const char stale[] = "\x03\x02stale";
    bool imaSet = setxattr(path.c_str(), "security.ima", stale, sizeof stale - 1, 0) == 0;
    ASSERT_TRUE(signFile(path, pki->developer()));
    char value[16] = {};
    ASSERT_EQ(getxattr(path.c_str(), "user.note", value, sizeof value), 4);
    EXPECT_EQ(std::string(value, 4), "kept");
    if (imaSet) {
        EXPECT_EQ(getxattr(path.c_str(), "security.ima", value, sizeof value), -1);
    }
}

TEST_F(PackageWriting, AReaderOfTheOldVersionKeepsReadingIt)
{
    Bytes original = readFile(path);
    int reader = open(path.c_str(), O_RDONLY);
    ASSERT_TRUE(signFile(path, pki->developer()));
    std::vector<unsigned char> seen(original.size() + 100);
    ssize_t got = pread(reader, seen.data(), seen.size(), 0);
    close(reader);
    ASSERT_EQ(got, static_cast<ssize_t>(original.size()));
    seen.resize(static_cast<std::size_t>(got));
    EXPECT_EQ(Bytes(seen.begin(), seen.end()), original);
}

TEST_F(PackageWriting, SigningThroughALinkReplacesTheFileItLeadsTo)
{
    std::string link = dir.file("link.bin");
    ASSERT_EQ(symlink("package.bin", link.c_str()), 0);
    ASSERT_TRUE(signFile(link, pki->developer()));
    struct stat status {};
    ASSERT_EQ(lstat(link.c_str(), &status), 0);
    EXPECT_TRUE(S_ISLNK(status.st_mode));
    EXPECT_EQ(signatureCount(), 1u);
}

TEST_F(PackageWriting, AFifoIsNeverSigned)
{
    std::string fifo = dir.file("fifo");
    ASSERT_EQ(mkfifo(fifo.c_str(), 0600), 0);
    auto result = runInChild(
        [&] {
            auto file = FileWithCmses::fromPath(fifo.c_str(), "r+");
            X509Ptr cert = loadCertificate(pki->developer().certPath);
            PkeyPtr key = loadKey(pki->developer().keyPath);
            return file && !file->sign(cert.get(), key.get(), nullptr, 0, nullptr, false, true, false) &&
                           !file->deleteCmses(false)
                       ? 0
                       : 1;
        },
        10000);
    EXPECT_FALSE(result.timedOut);
    EXPECT_EQ(result.exitCode, 0);
}

TEST_F(PackageWriting, ADirectoryThatTakesNoNewFileLeavesThePackageAsItWas)
{
    if (geteuid() == 0)
        GTEST_SKIP() << "root writes into a read-only directory";
    Bytes original = readFile(path);
    chmod(dir.path().c_str(), 0555);
    std::string errors = stderrOf([&] { EXPECT_FALSE(signFile(path, pki->developer())); });
    chmod(dir.path().c_str(), 0755);
    EXPECT_EQ(errors, "sealkeep: cannot write a new version of " + path + " beside it: Permission denied\n");
    EXPECT_EQ(readFile(path), original);
}

// A writer killed between naming its new version and renaming it leaves the
// named version; the next writer of that package (signing or stripping)
// removes it, and never another package's.
TEST_F(PackageWriting, TheNextWriterRemovesWhatAKilledWriterLeft)
{
    const std::string left = ".package.bin.sealkeep-new";
    const std::string other = ".other.bin.sealkeep-new";
    for (auto const& name : {left, other})
        writeText(dir.file(name), "left\n");
    ASSERT_TRUE(signFile(path, pki->developer()));
    EXPECT_EQ(directoryEntries(), (std::vector<std::string>{other, "package.bin"}));
    writeText(dir.file(left), "left\n");
    ASSERT_TRUE(FileWithCmses::fromPath(path.c_str(), "r+")->deleteCmses(true));
    EXPECT_EQ(directoryEntries(), (std::vector<std::string>{other, "package.bin"}));
}

// Past the file-size limit every write fails (SIGXFSZ ignored): the new
// version is dropped and the package keeps all it had.
TEST_F(PackageWriting, AFileSizeLimitLeavesThePackageAsItWas)
{
    ASSERT_TRUE(signFile(path, pki->developer()));
    const auto developerOnly = static_cast<rlim_t>(fileSize(path));
    ASSERT_TRUE(signFile(path, pki->seclab()));
    Bytes before = readFile(path);
    // Appending a client block, and replacing the seclab block, each beyond
    // the limit.
    const std::vector<std::pair<Identity const*, rlim_t>> cases{{&pki->client(), before.size() + 10},
                                                                {&pki->seclab(), developerOnly + 10}};
    for (auto const& [who, bytes] : cases) {
        auto result = runInChild(
            [&, who = who, bytes = bytes] {
                signal(SIGXFSZ, SIG_IGN);
                struct rlimit limit {};
                limit.rlim_cur = limit.rlim_max = bytes;
                setrlimit(RLIMIT_FSIZE, &limit);
                SignOptions options;
                options.replace = true;
                return signFile(path, *who, options) ? 1 : 0;
            },
            20000);
        EXPECT_EQ(result.exitCode, 0) << result.errors;
        EXPECT_EQ(readFile(path), before);
        EXPECT_EQ(directoryEntries(), std::vector<std::string>{"package.bin"});
    }
}

// An object made from a stream has no path to rename to: it signs first and
// then writes in place.
TEST_F(PackageWriting, AStreamWithoutAPathIsSignedInPlace)
{
    ASSERT_TRUE(signFile(path, pki->developer()));
    struct stat before {};
    stat(path.c_str(), &before);
    FileWithCmses file(fopen(path.c_str(), "r+"));
    X509Ptr cert = loadCertificate(pki->developer().certPath);
    PkeyPtr key = loadKey(pki->developer().keyPath);
    ASSERT_TRUE(file.sign(cert.get(), key.get(), nullptr, 0, nullptr, true, true, false));
    struct stat after {};
    stat(path.c_str(), &after);
    EXPECT_EQ(before.st_ino, after.st_ino);
    EXPECT_EQ(signatureCount(), 1u);
    EXPECT_TRUE(verifyFile(path, pki->ca().certPath));
}

}  // namespace
