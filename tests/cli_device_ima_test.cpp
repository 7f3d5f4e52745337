// sealkeep ima apply: the per-file IMA signatures of a package put onto its
// payload unpacked with rpm2cpio | cpio, checked by getfattr and evmctl; files
// changed or missing after unpacking are reported and left without a value.
#include <fcntl.h>
#include <sys/xattr.h>
#include <unistd.h>

#include <algorithm>
#include <chrono>

#include <cstdio>
#include <string>
#include <vector>

#include <openssl/sha.h>
#include <openssl/x509.h>

#include <gtest/gtest.h>

#include <sealkeep/file_with_cmses.hpp>

#include "support/cli_test.hpp"
#include "support/device_root.hpp"
#include "support/payload_signatures.hpp"
#include "support/pki.hpp"

namespace sealkeep::test {
namespace {

class CliDeviceIma : public CliTest {
protected:
    void SetUp() override
    {
        package = freshPackage();
        auto signing = signAs(pki->developer(), package);
        ASSERT_EQ(signing.exitCode, 0) << signing.errors;
        names = packageFileNames(package);
        root = work.file("root");
        unpackPayload(package, root);
    }

    // The IMA record the developer signature carries for file index.
    Bytes recordOf(std::size_t index) const
    {
        auto file = PackageSignatures::FileWithCmses::fromPath(package.c_str(), "r");
        return file->cmses().at(0).fileSignature(static_cast<int>(index));
    }

    // The user.ima value of path as getfattr -e hex shows it; empty when none.
    static std::string getfattrHex(std::string const& path)
    {
        auto result = runCommand({"getfattr", "--only-values", "-e", "hex", "-n", "user.ima", path});
        if (result.exitCode != 0)
            return {};
        auto shown = runCommand({"getfattr", "-e", "hex", "-n", "user.ima", path}).output;
        std::string prefix = "user.ima=0x";
        auto at = shown.find(prefix);
        if (at == std::string::npos)
            return {};
        return shown.substr(at + prefix.size(), shown.find('\n', at) - at - prefix.size());
    }

    // evmctl ima_verify --xattr-user of path, after rewriting the record's key
    // id to the one evmctl derives itself (the last four bytes of SHA-1 over
    // the public key's bits).
    bool evmctlAccepts(std::string const& path, Bytes record) const
    {
        X509Ptr cert = loadCertificate(pki->developer().certPath);
        ASN1_BIT_STRING* bits = X509_get0_pubkey_bitstr(cert.get());
        unsigned char sha1[SHA_DIGEST_LENGTH];
        SHA1(ASN1_STRING_get0_data(bits), static_cast<std::size_t>(ASN1_STRING_length(bits)), sha1);
        std::copy(sha1 + SHA_DIGEST_LENGTH - 4, sha1 + SHA_DIGEST_LENGTH, record.begin() + 3);
        if (setxattr(path.c_str(), "user.ima", record.data(), record.size(), 0) != 0)
            return false;
        std::string der = work.file("developer.der");
        runCommand({"openssl", "x509", "-in", pki->developer().certPath, "-outform", "DER", "-out", der});
        return runCommand({"evmctl", "--engine", "gost", "ima_verify", "--xattr-user", "--key", der, path}).exitCode == 0;
    }

    static std::string ca() { return pki->ca().certPath; }

    std::string package, root;
    std::vector<std::string> names;
};

TEST_F(CliDeviceIma, EveryRecordLandsOnItsFile)
{
    auto applied = run({"ima", "apply", package, "--root", root, "--ca", ca(), "--xattr-user"});
    ASSERT_EQ(applied.exitCode, 0) << applied.errors;
    EXPECT_EQ(applied.errors, "");
    std::string expected;
    for (std::size_t index = 0; index < names.size(); ++index)
        expected += root + names[index] + ": user.ima set\n";
    expected += std::to_string(names.size()) + " files labelled, 0 refused\n";
    EXPECT_EQ(applied.output, expected);
    // Every value first: evmctl's key id is written over a hard link's shared one.
    for (std::size_t index = 0; index < names.size(); ++index) {
        SCOPED_TRACE(names[index]);
        ASSERT_FALSE(recordOf(index).empty());
        EXPECT_EQ(getfattrHex(root + names[index]), hexOf(recordOf(index)));
    }
    for (std::size_t index = 0; index < names.size(); ++index) {
        SCOPED_TRACE(names[index]);
        EXPECT_TRUE(evmctlAccepts(root + names[index], recordOf(index)));
    }
}

TEST_F(CliDeviceIma, ChangedAndMissingFilesAreReportedAndLeftAlone)
{
    // Changed in place, to content of the same size.
    std::string changed = root + "/usr/share/cli/hello.txt";
    writeText(changed, "jello\n");
    std::string missing = root + "/usr/share/cli/hello-again.txt";
    std::remove(missing.c_str());
    auto applied = run({"ima", "apply", package, "--root", root, "--ca", ca(), "--xattr-user"});
    EXPECT_EQ(applied.exitCode, 1);
    std::string errors;
    for (auto const& name : names) {
        if (root + name == changed)
            errors += "sealkeep: " + changed + ": changed since it was signed\n";
        if (root + name == missing)
            errors += "sealkeep: " + missing + ": missing\n";
    }
    EXPECT_EQ(applied.errors, errors);
    EXPECT_NE(applied.output.find("1 file labelled, 2 refused\n"), std::string::npos) << applied.output;
    EXPECT_EQ(getfattrHex(changed), "");
    EXPECT_EQ(getfattrHex(root + "/usr/share/cli/empty").empty(), false);
}

TEST_F(CliDeviceIma, DryRunWritesNothing)
{
    auto listed = run({"ima", "apply", package, "--root", root, "--ca", ca(), "--xattr-user", "--dry-run"});
    ASSERT_EQ(listed.exitCode, 0) << listed.errors;
    std::string expected;
    for (std::size_t index = 0; index < names.size(); ++index)
        expected += root + names[index] + ": would set user.ima (" + std::to_string(recordOf(index).size()) + " bytes)\n";
    expected += std::to_string(names.size()) + " files to label, 0 refused\n";
    EXPECT_EQ(listed.output, expected);
    for (auto const& name : names)
        EXPECT_EQ(getfattrHex(root + name), "");
}

TEST_F(CliDeviceIma, ASymbolicLinkInPlaceOfAFileIsNotLabelled)
{
    std::string file = root + "/usr/share/cli/empty";
    std::remove(file.c_str());
    runCommand({"ln", "-s", "hello.txt", file});
    auto applied = run({"ima", "apply", package, "--root", root, "--ca", ca(), "--xattr-user"});
    EXPECT_EQ(applied.exitCode, 1);
    EXPECT_EQ(applied.errors, "sealkeep: " + file + ": not a regular file\n");
}

// /usr under the root is a link to a tree outside it: the files are reached
// only through the link, so they count as missing, and nothing outside the
// root gets a value.
TEST_F(CliDeviceIma, ALinkOnThePathLeadsNowhereOutsideTheRoot)
{
    std::string outside = work.file("outside");
    ASSERT_EQ(runCommand({"mv", root + "/usr", outside}).exitCode, 0);
    ASSERT_EQ(runCommand({"ln", "-s", outside, root + "/usr"}).exitCode, 0);
    for (bool dryRun : {true, false}) {
        std::vector<std::string> args = {"ima", "apply", package, "--root", root, "--ca", ca(), "--xattr-user"};
        if (dryRun)
            args.push_back("--dry-run");
        auto applied = run(args);
        EXPECT_EQ(applied.exitCode, 1);
        std::string errors;
        for (auto const& name : names)
            errors += "sealkeep: " + root + name + ": missing: the path crosses a symbolic link\n";
        EXPECT_EQ(applied.errors, errors);
        EXPECT_EQ(applied.output, std::string("0 files ") + (dryRun ? "to label" : "labelled") + ", " +
                                      std::to_string(names.size()) + " refused\n");
    }
    for (auto const& name : names) {
        ASSERT_EQ(name.rfind("/usr/", 0), 0u);
        std::string reached = outside + name.substr(4);
        ASSERT_TRUE(fileExists(reached)) << reached;
        EXPECT_EQ(getfattrHex(reached), "") << reached;
    }
}

// A link anywhere on the path is refused, even one that stays in the root.
TEST_F(CliDeviceIma, ALinkInsideTheRootIsNotFollowedEither)
{
    std::string real = root + "/usr/share/cli-real";
    ASSERT_EQ(runCommand({"mv", root + "/usr/share/cli", real}).exitCode, 0);
    ASSERT_EQ(runCommand({"ln", "-s", "cli-real", root + "/usr/share/cli"}).exitCode, 0);
    auto applied = run({"ima", "apply", package, "--root", root, "--ca", ca(), "--xattr-user"});
    EXPECT_EQ(applied.exitCode, 1);
    EXPECT_NE(applied.errors.find("sealkeep: " + root + "/usr/share/cli/hello.txt: missing: the path crosses a "
                                  "symbolic link\n"),
              std::string::npos)
        << applied.errors;
    EXPECT_EQ(getfattrHex(real + "/hello.txt"), "");
}

TEST_F(CliDeviceIma, ARootThatCannotBeOpenedIsReported)
{
    auto applied = run({"ima", "apply", package, "--root", work.file("no-such-root"), "--ca", ca(), "--xattr-user"});
    EXPECT_EQ(applied.exitCode, 1);
    EXPECT_EQ(applied.errors,
              "sealkeep: " + work.file("no-such-root") + ": cannot open the root directory: No such file or directory\n");
    EXPECT_EQ(applied.output, "");
}

TEST_F(CliDeviceIma, ADeveloperSignatureWithoutFileSignaturesIsRefused)
{
    std::string plain = freshPackage("plain.rpm");
    ASSERT_EQ(signAs(pki->developer(), plain, {"--no-file-signatures"}).exitCode, 0);
    auto result = run({"ima", "apply", plain, "--root", root, "--ca", ca(), "--xattr-user"});
    EXPECT_EQ(result.exitCode, 1);
    EXPECT_EQ(result.errors, "sealkeep: " + plain + ": the developer signature carries no per-file IMA signatures\n");
    EXPECT_EQ(result.output, "");
}

TEST_F(CliDeviceIma, AnUnsignedPackageIsRefused)
{
    std::string plain = freshPackage("plain.rpm");
    auto result = run({"ima", "apply", plain, "--root", root, "--ca", ca()});
    EXPECT_EQ(result.exitCode, 1);
    EXPECT_EQ(result.errors, "sealkeep: " + plain + ": the signatures do not verify against " + ca() + ": no signatures\n");
}

// The records are only as good as the certificate that signed them: one from
// a CA the device does not trust labels nothing, whatever key it carries.
TEST_F(CliDeviceIma, APackageSignedUnderAnotherCaIsRefused)
{
    Pki other("another CA");
    std::string foreign = freshPackage("foreign.rpm");
    ASSERT_EQ(signAs(other.developer(), foreign).exitCode, 0);
    auto result = run({"ima", "apply", foreign, "--root", root, "--ca", ca(), "--xattr-user"});
    EXPECT_EQ(result.exitCode, 1);
    // After the library's own lines about the failed check.
    std::string refusal = "sealkeep: " + foreign + ": the signatures do not verify against " + ca() +
                          ": block 1 of 1 (developer, covers bytes [0, " + std::to_string(readFile(rpmTemplate).size()) +
                          ")): the signer's certificate does not chain to the CA\n";
    ASSERT_GE(result.errors.size(), refusal.size());
    EXPECT_EQ(result.errors.substr(result.errors.size() - refusal.size()), refusal) << result.errors;
    EXPECT_EQ(result.output, "");
    for (auto const& name : names)
        EXPECT_EQ(getfattrHex(root + name), "") << name;
}

// Without --ca, the root CA of the device's configuration decides.
TEST_F(CliDeviceIma, TheConfiguredRootCaIsTheDefault)
{
    DeviceRoot trusting(ca());
    auto applied = run({"ima", "apply", package, "--root", root, "--conf", trusting.conf(), "--xattr-user"});
    EXPECT_EQ(applied.exitCode, 0) << applied.errors;
    Pki other("another CA");
    DeviceRoot distrusting(other.ca().certPath);
    auto refused = run({"ima", "apply", package, "--root", root, "--conf", distrusting.conf(), "--xattr-user"});
    EXPECT_EQ(refused.exitCode, 1);
    EXPECT_NE(refused.errors.find(": the signer's certificate does not chain to the CA\n"), std::string::npos)
        << refused.errors;
}

// A payload that ended early was signed with a notice: the files after the
// damage have no record, and would stay unreadable on a device that enforces
// appraisal. Each is named, and the command fails.
TEST_F(CliDeviceIma, FilesWithoutARecordAreRefused)
{
    std::string rpm = buildRpm(work.path(), "partial",
                               {regularFile("/usr/share/partial/a", "aaa"), regularFile("/usr/share/partial/b", "bbb"),
                                regularFile("/usr/share/partial/c", "ccc")},
                               "gzip");
    Bytes archive = archiveOf(rpm, "./usr/share/partial/a\\n./usr/share/partial/b\\n./usr/share/partial/c\\n");
    const std::string magic = "070701";
    auto second = std::search(archive.begin() + 1, archive.end(), magic.begin(), magic.end());
    ASSERT_NE(archive.end(), second);
    *(second + 5) = '9';
    std::string partial = work.file("partial-damaged.rpm");
    writeFile(partial, withPayload(rpm, archive));
    std::string partialRoot = work.file("partial-root");
    unpackPayload(rpm, partialRoot);
    auto signing = signAs(pki->developer(), partial);
    ASSERT_EQ(signing.exitCode, 0) << signing.errors;

    auto applied = run({"ima", "apply", partial, "--root", partialRoot, "--ca", ca(), "--xattr-user"});
    EXPECT_EQ(applied.exitCode, 1);
    EXPECT_EQ(applied.errors, "sealkeep: " + partialRoot + "/usr/share/partial/b: no signature in the package\n"
                              "sealkeep: " + partialRoot + "/usr/share/partial/c: no signature in the package\n");
    EXPECT_EQ(applied.output, partialRoot + "/usr/share/partial/a: user.ima set\n1 file labelled, 2 refused\n");
}

// A %ghost file is listed in the header but installs nothing: it needs no
// record.
TEST_F(CliDeviceIma, AGhostFileNeedsNoRecord)
{
    std::string rpm = buildRpm(work.path(), "ghostly",
                               {regularFile("/usr/share/ghostly/a", "aaa"), ghostFile("/var/log/ghostly.log")}, "gzip");
    std::string ghostRoot = work.file("ghost-root");
    unpackPayload(rpm, ghostRoot);
    ASSERT_EQ(signAs(pki->developer(), rpm).exitCode, 0);
    auto applied = run({"ima", "apply", rpm, "--root", ghostRoot, "--ca", ca(), "--xattr-user"});
    EXPECT_EQ(applied.exitCode, 0) << applied.errors;
    EXPECT_EQ(applied.output, ghostRoot + "/usr/share/ghostly/a: user.ima set\n1 file labelled, 0 refused\n");
}

// A payload compressed otherwise than its header says cannot be read at all
// when it is signed: no file has a record, and none is labelled.
TEST_F(CliDeviceIma, APayloadOfTheWrongCompressorLabelsNothingAndFails)
{
    std::string rpm = buildRpm(work.path(), "miscompressed",
                               {regularFile("/usr/share/mis/a", "aaa"), regularFile("/usr/share/mis/b", "bbb")}, "xz");
    std::string mislabelled = work.file("miscompressed-gzip.rpm");
    writeFile(mislabelled, withPayload(rpm, archiveOf(rpm, "./usr/share/mis/a\\n./usr/share/mis/b\\n")));
    std::string misRoot = work.file("mis-root");
    unpackPayload(rpm, misRoot);
    auto signing = signAs(pki->developer(), mislabelled);
    ASSERT_EQ(signing.exitCode, 0) << signing.errors;

    auto applied = run({"ima", "apply", mislabelled, "--root", misRoot, "--ca", ca(), "--xattr-user"});
    EXPECT_EQ(applied.exitCode, 1);
    EXPECT_EQ(applied.errors, "sealkeep: " + misRoot + "/usr/share/mis/a: no signature in the package\n"
                              "sealkeep: " + misRoot + "/usr/share/mis/b: no signature in the package\n");
    EXPECT_EQ(applied.output, "0 files labelled, 2 refused\n");
}

// A file is measured before it is read: a 4 GiB sparse file where the
// package installed 6 bytes is refused at once, without hashing it.
TEST_F(CliDeviceIma, AFileOfAnotherSizeIsRefusedWithoutReadingIt)
{
    std::string big = root + "/usr/share/cli/hello.txt";
    int fd = open(big.c_str(), O_WRONLY);
    ASSERT_GE(fd, 0);
    ASSERT_EQ(ftruncate(fd, off_t(4) << 30), 0);
    close(fd);
    auto started = std::chrono::steady_clock::now();
    auto applied = run({"ima", "apply", package, "--root", root, "--ca", ca(), "--xattr-user"});
    auto took = std::chrono::steady_clock::now() - started;
    EXPECT_EQ(applied.exitCode, 1);
    // hello-again.txt is the same inode.
    std::string errors;
    for (auto const& name : names)
        if (name != "/usr/share/cli/empty")
            errors += "sealkeep: " + root + name + ": its size (4294967296 bytes) is not the package's (6 bytes)\n";
    EXPECT_EQ(applied.errors, errors);
    EXPECT_LT(took, std::chrono::seconds(3));
    EXPECT_EQ(getfattrHex(big), "");
}

// The label would land on every name of the inode: a file that also has a
// name outside what the package installs is refused, and the name outside
// the root gets nothing.
TEST_F(CliDeviceIma, AFileHardLinkedFromOutsideThePackageIsRefused)
{
    std::string outside = work.file("outside-link");
    ASSERT_EQ(link((root + "/usr/share/cli/empty").c_str(), outside.c_str()), 0);
    std::string outsideSet = work.file("outside-set-link");
    ASSERT_EQ(link((root + "/usr/share/cli/hello.txt").c_str(), outsideSet.c_str()), 0);
    auto applied = run({"ima", "apply", package, "--root", root, "--ca", ca(), "--xattr-user"});
    EXPECT_EQ(applied.exitCode, 1);
    std::string errors;
    for (auto const& name : names)
        errors += "sealkeep: " + root + name + ": hard-linked from outside the package " +
                  (name == "/usr/share/cli/empty" ? "(2 links, the package makes 1)\n"
                                                  : "(3 links, the package makes 2)\n");
    EXPECT_EQ(applied.errors, errors);
    EXPECT_EQ(getfattrHex(outside), "");
    EXPECT_EQ(getfattrHex(outsideSet), "");
}

}  // namespace
}  // namespace sealkeep::test
