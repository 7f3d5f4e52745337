// FileWithCmses::sign: where each group may sign in the stack, replacement,
// the range each new signature covers, and the block it appends.
#include <gtest/gtest.h>

#include <sealkeep/sealkeep.hpp>

#include "signed_file_layout.hpp"
#include "support/blocks.hpp"
#include "support/cms_builder.hpp"
#include "support/process.hpp"
#include "support/shared_pki.hpp"
#include "support/signing.hpp"
#include "support/stderr_capture.hpp"
#include "support/temp_dir.hpp"

namespace {

using namespace sealkeep::test;
using namespace PackageSignatures;
using sealkeep::PkeyPtr;
using sealkeep::X509Ptr;

class PackageSigning : public SharedPkiTest {
protected:
    static void SetUpTestSuite()
    {
        SharedPkiTest::SetUpTestSuite();
        otherDeveloper = pki->issue("second developer", "developer");
        ungrouped = pki->issue("no group", nullptr);
    }

    void SetUp() override { writeFile(path, package); }

    std::vector<CmsLocation> blocks()
    {
        auto file = FileWithCmses::fromPath(path.c_str(), "r");
        FILE* stream = fdopen(dup(file->fd()), "r");
        auto found = locateCmses(stream);
        fclose(stream);
        return found;
    }

    std::vector<Group> signerGroups()
    {
        std::vector<Group> groups;
        for (auto const& certificate : Certificate::allFromFilePath(path.c_str()))
            groups.push_back(certificate.group());
        return groups;
    }

    // The CMS of block i checked with cms_verify over [begin, end) of the file.
    bool blockSigns(std::size_t i, std::int64_t begin, std::int64_t end)
    {
        Bytes contents = readFile(path);
        auto found = blocks();
        Cms cms(Bytes(contents.begin() + found[i].begin, contents.begin() + found[i].end));
        X509_STORE* store = certificate_store_read(pki->ca().certPath.c_str());
        bool valid = cms_verify(contents.data() + begin, static_cast<long>(end - begin), cms.parsed(), store);
        X509_STORE_free(store);
        return valid;
    }

    static inline Identity otherDeveloper;
    static inline Identity ungrouped;
    TempDir dir;
    std::string path = dir.file("package.bin");
    Bytes package = patternBytes(10000, 3);
};

TEST_F(PackageSigning, DeveloperSignsABarePackageWithOneVersionTwoBlock)
{
    ASSERT_TRUE(signFile(path, pki->developer()));
    auto found = blocks();
    ASSERT_EQ(1u, found.size());
    EXPECT_EQ(2u, found[0].header.version);
    EXPECT_EQ(static_cast<std::int64_t>(package.size()), found[0].begin);
    EXPECT_EQ(static_cast<long>(package.size() + found[0].header.length + 12), fileSize(path));
    Bytes contents = readFile(path);
    EXPECT_EQ(package, Bytes(contents.begin(), contents.begin() + static_cast<long>(package.size())));
    EXPECT_TRUE(blockSigns(0, 0, found[0].begin));
}

TEST_F(PackageSigning, SkippableFrameWritesAVersionThreeBlockWithItsFrameSize)
{
    ASSERT_TRUE(signFile(path, pki->developer(), framed()));
    auto found = blocks();
    ASSERT_EQ(1u, found.size());
    EXPECT_EQ(3u, found[0].header.version);
    EXPECT_EQ(static_cast<std::int64_t>(package.size() + 8), found[0].begin);
    Bytes contents = readFile(path);
    auto prefix = contents.begin() + static_cast<long>(package.size());
    EXPECT_EQ((Bytes{0x50, 0x2A, 0x4D, 0x18}), Bytes(prefix, prefix + 4));
    std::uint32_t frameSize = prefix[4] | prefix[5] << 8 | prefix[6] << 16 | static_cast<std::uint32_t>(prefix[7]) << 24;
    EXPECT_EQ(static_cast<std::uint32_t>(12 + found[0].header.length), frameSize);
    EXPECT_TRUE(blockSigns(0, 0, static_cast<std::int64_t>(package.size())));
}

TEST_F(PackageSigning, ABarePackageCannotBeSignedFirstBySeclabOrClient)
{
    EXPECT_FALSE(signFile(path, pki->seclab()));
    EXPECT_FALSE(signFile(path, pki->client()));
    EXPECT_EQ(package, readFile(path));
}

TEST_F(PackageSigning, ACertificateWithoutGroupNeverSigns)
{
    std::string errors = stderrOf([&] { EXPECT_FALSE(signFile(path, ungrouped)); });
    EXPECT_EQ("Package signing not allowed (there is no corresponding extended key usage)\n", errors);
    EXPECT_EQ(package, readFile(path));
}

TEST_F(PackageSigning, NullCertificateOrKeyIsRefused)
{
    auto file = FileWithCmses::fromPath(path.c_str(), "r+");
    PkeyPtr key = loadKey(pki->developer().keyPath);
    X509Ptr cert = loadCertificate(pki->developer().certPath);
    EXPECT_FALSE(file->sign(nullptr, key.get(), nullptr, 0, nullptr, false, false, false));
    EXPECT_FALSE(file->sign(cert.get(), nullptr, nullptr, 0, nullptr, false, false, false));
    file.reset();
    EXPECT_EQ(package, readFile(path));
}

TEST_F(PackageSigning, DeveloperThenClientIsAccepted)
{
    ASSERT_TRUE(signFile(path, pki->developer()));
    ASSERT_TRUE(signFile(path, pki->client()));
    EXPECT_EQ((std::vector<Group>{Group::Developer, Group::Client}), signerGroups());
}

TEST_F(PackageSigning, DeveloperClientThenSeclabIsRefused)
{
    ASSERT_TRUE(signFile(path, pki->developer()));
    ASSERT_TRUE(signFile(path, pki->client()));
    Bytes before = readFile(path);
    EXPECT_FALSE(signFile(path, pki->seclab()));
    EXPECT_FALSE(signFile(path, pki->client()));
    EXPECT_EQ(before, readFile(path));
}

TEST_F(PackageSigning, DeveloperSeclabClientIsAcceptedAndAFourthIsAlwaysRefused)
{
    ASSERT_TRUE(signFile(path, pki->developer()));
    ASSERT_TRUE(signFile(path, pki->seclab(), framed()));
    ASSERT_TRUE(signFile(path, pki->client()));
    EXPECT_EQ((std::vector<Group>{Group::Developer, Group::Seclab, Group::Client}), signerGroups());
    Bytes before = readFile(path);
    for (Identity const* who : {&pki->developer(), &pki->seclab(), &pki->client()})
        EXPECT_FALSE(signFile(path, *who));
    EXPECT_EQ(before, readFile(path));
}

TEST_F(PackageSigning, EachLaterSignatureCoversThePreviousCmsAndHeader)
{
    ASSERT_TRUE(signFile(path, pki->developer(), framed()));
    ASSERT_TRUE(signFile(path, pki->seclab()));
    ASSERT_TRUE(signFile(path, pki->client(), framed()));
    auto found = blocks();
    ASSERT_EQ(3u, found.size());
    EXPECT_TRUE(blockSigns(0, 0, static_cast<std::int64_t>(package.size())));
    EXPECT_TRUE(blockSigns(1, found[0].begin, found[1].begin));
    EXPECT_TRUE(blockSigns(2, found[1].begin, found[2].begin - 8));
    EXPECT_FALSE(blockSigns(1, 0, found[1].begin));
}

TEST_F(PackageSigning, ReplacingSeclabCutsTheSeclabBlockAndSignsTheDeveloperBlockAgain)
{
    ASSERT_TRUE(signFile(path, pki->developer()));
    long developerOnly = fileSize(path);
    ASSERT_TRUE(signFile(path, pki->seclab()));
    Bytes signedTwice = readFile(path);

    EXPECT_FALSE(signFile(path, pki->seclab()));
    EXPECT_EQ(signedTwice, readFile(path));

    ASSERT_TRUE(signFile(path, pki->seclab(), replacing()));
    auto found = blocks();
    ASSERT_EQ(2u, found.size());
    EXPECT_EQ(developerOnly, found[1].begin);
    EXPECT_NE(signedTwice, readFile(path));
    EXPECT_EQ((std::vector<Group>{Group::Developer, Group::Seclab}), signerGroups());
    EXPECT_TRUE(blockSigns(1, found[0].begin, found[1].begin));
}

TEST_F(PackageSigning, ReplacingAsDeveloperRemovesEverySignature)
{
    ASSERT_TRUE(signFile(path, pki->developer(), framed()));
    ASSERT_TRUE(signFile(path, pki->seclab()));
    ASSERT_TRUE(signFile(path, pki->client()));
    ASSERT_TRUE(signFile(path, otherDeveloper, replacing()));
    auto found = blocks();
    ASSERT_EQ(1u, found.size());
    EXPECT_EQ(static_cast<std::int64_t>(package.size()), found[0].begin);
    auto certificates = Certificate::allFromFilePath(path.c_str());
    ASSERT_EQ(1u, certificates.size());
    EXPECT_EQ("second developer", certificates[0].subject());
}

TEST_F(PackageSigning, ReplacingAsClientRemovesOnlyTheClientBlock)
{
    ASSERT_TRUE(signFile(path, pki->developer()));
    ASSERT_TRUE(signFile(path, pki->seclab(), framed()));
    long withoutClient = fileSize(path);
    ASSERT_TRUE(signFile(path, pki->client(), framed()));
    ASSERT_TRUE(signFile(path, pki->client(), replacing()));
    auto found = blocks();
    ASSERT_EQ(3u, found.size());
    EXPECT_EQ(withoutClient, found[2].begin);
    EXPECT_EQ(2u, found[2].header.version);
}

TEST_F(PackageSigning, ReplaceWithADifferentNonDeveloperGroupRemovesNothing)
{
    ASSERT_TRUE(signFile(path, pki->developer()));
    ASSERT_TRUE(signFile(path, pki->client()));
    Bytes before = readFile(path);
    EXPECT_FALSE(signFile(path, pki->seclab(), replacing()));
    EXPECT_EQ(before, readFile(path));
}

// The signature is made before the file is touched: a replacement whose
// signing fails leaves the block it would have cut.
TEST_F(PackageSigning, AFailedSigningAfterAReplacementLeavesTheFileAsItWas)
{
    ASSERT_TRUE(signFile(path, pki->developer()));
    ASSERT_TRUE(signFile(path, pki->seclab()));
    Bytes signedTwice = readFile(path);

    // The seclab certificate with the client's key: cms_sign refuses the pair.
    X509Ptr cert = loadCertificate(pki->seclab().certPath);
    PkeyPtr wrongKey = loadKey(pki->client().keyPath);
    auto file = FileWithCmses::fromPath(path.c_str(), "r+");
    std::string errors = stderrOf(
        [&] { EXPECT_FALSE(file->sign(cert.get(), wrongKey.get(), nullptr, 0, nullptr, true, false, false)); });
    file.reset();
    EXPECT_EQ("Could not add CMS signer\n", errors);
    EXPECT_EQ(signedTwice, readFile(path));
}

TEST_F(PackageSigning, AFailedSigningWithoutReplacementLeavesTheFileAlone)
{
    X509Ptr cert = loadCertificate(pki->developer().certPath);
    PkeyPtr wrongKey = loadKey(pki->client().keyPath);
    auto file = FileWithCmses::fromPath(path.c_str(), "r+");
    stderrOf([&] { EXPECT_FALSE(file->sign(cert.get(), wrongKey.get(), nullptr, 0, nullptr, false, false, false)); });
    file.reset();
    EXPECT_EQ(package, readFile(path));
}

TEST_F(PackageSigning, AReadOnlyStreamCannotBeSigned)
{
    X509Ptr cert = loadCertificate(pki->developer().certPath);
    PkeyPtr key = loadKey(pki->developer().keyPath);
    auto file = FileWithCmses::fromPath(path.c_str(), "r");
    EXPECT_FALSE(file->sign(cert.get(), key.get(), nullptr, 0, nullptr, false, false, false));
    file.reset();
    EXPECT_EQ(package, readFile(path));
}

TEST_F(PackageSigning, AnEmptyFileCannotBeMappedAndSoIsNotSigned)
{
    writeFile(path, {});
    EXPECT_FALSE(signFile(path, pki->developer()));
    EXPECT_EQ(0, fileSize(path));
}

// maySign answers with the rule sign() applies, and changes nothing.
TEST_F(PackageSigning, MaySignAnswersForTheStackAsItIs)
{
    auto may = [&](Group group, bool replace) {
        return FileWithCmses::fromPath(path.c_str(), "r")->maySign(group, replace);
    };
    EXPECT_TRUE(may(Group::Developer, false));
    EXPECT_FALSE(may(Group::Seclab, false));
    EXPECT_FALSE(may(Group::Client, false));
    EXPECT_FALSE(may(Group::None, false));

    ASSERT_TRUE(signFile(path, pki->developer()));
    EXPECT_FALSE(may(Group::Developer, false));
    EXPECT_TRUE(may(Group::Developer, true));
    EXPECT_TRUE(may(Group::Seclab, false));
    EXPECT_TRUE(may(Group::Client, false));

    ASSERT_TRUE(signFile(path, pki->client()));
    EXPECT_FALSE(may(Group::Client, false)) << "a client never countersigns a client";
    EXPECT_TRUE(may(Group::Client, true));
    EXPECT_FALSE(may(Group::Seclab, true));

    Bytes before = readFile(path);
    EXPECT_TRUE(may(Group::Developer, true));
    EXPECT_EQ(before, readFile(path)) << "asking cuts nothing";
}

// A newest block whose CMS does not decode has no signer to compare with: a
// replacement then removes nothing (and the signer is refused), even for a
// signer whose own certificate has no group either.
TEST_F(PackageSigning, ReplacingAboveAnUndecodableBlockRemovesNothing)
{
    ASSERT_TRUE(signFile(path, pki->developer()));
    appendFile(path, makeBlock(patternBytes(300, 7), 2));
    Bytes before = readFile(path);
    std::string errors = stderrOf([&] {
        EXPECT_FALSE(signFile(path, pki->seclab(), replacing()));
        EXPECT_FALSE(signFile(path, pki->client(), replacing()));
    });
    EXPECT_EQ(before, readFile(path));
    EXPECT_NE(std::string::npos, errors.find("Could not decode DER CMS")) << errors;
    // Nor does a signer without a group take the undecodable block for one
    // of its own.
    stderrOf([&] { EXPECT_FALSE(signFile(path, ungrouped, replacing())); });
    EXPECT_EQ(before, readFile(path));
    // A developer replaces everything, the undecodable block too.
    stderrOf([&] { EXPECT_TRUE(signFile(path, otherDeveloper, replacing())); });
    ASSERT_EQ(1u, blocks().size());
    EXPECT_EQ(static_cast<std::int64_t>(package.size()), blocks()[0].begin);
}

// A developer's replacement removes every block, also blocks in front of the
// newest four that one scan collects, so the new signature covers only the
// package.
TEST_F(PackageSigning, ReplacingAsDeveloperRemovesBlocksBeyondOneScan)
{
    Bytes stacked = package;
    for (unsigned char i = 0; i < 6; ++i)
        stacked = concat({stacked, makeBlock(patternBytes(40, i), 2)});
    writeFile(path, stacked);
    stderrOf([&] { EXPECT_TRUE(signFile(path, pki->developer(), replacing())); });
    ASSERT_EQ(1u, blocks().size());
    EXPECT_EQ(static_cast<std::int64_t>(package.size()), blocks()[0].begin);
    EXPECT_TRUE(verifyFile(path, pki->ca().certPath));
}

TEST_F(PackageSigning, ALongPackageIsAppendedInPieces)
{
    package = patternBytes(3 * 8192 + 123, 9);
    writeFile(path, package);
    ASSERT_TRUE(signFile(path, pki->developer(), framed()));
    ASSERT_TRUE(verifyFile(path, pki->ca().certPath));
}

}  // namespace

namespace {

using namespace sealkeep::test;
using namespace PackageSignatures;

class PackageSigningUndecodable : public SharedPkiTest {
protected:
    TempDir dir;
    std::string path = dir.file("package.bin");
};

// The newest block is read once per plan, so its complaint is heard once,
// also when a replacement compares its signer and the position rule then
// asks for it again.
TEST_F(PackageSigningUndecodable, ABlockThatDoesNotDecodeIsReportedOnce)
{
    writeFile(path, patternBytes(5000, 4));
    ASSERT_TRUE(signFile(path, pki->developer()));
    appendFile(path, makeBlock(Bytes(64, 0x5A), 2));
    Bytes before = readFile(path);
    std::string errors = stderrOf([&] {
        SignOptions options;
        options.replace = true;
        EXPECT_FALSE(signFile(path, pki->client(), options));
    });
    EXPECT_EQ(errors, "Could not decode DER CMS\n");
    EXPECT_EQ(readFile(path), before);
}

}  // namespace
