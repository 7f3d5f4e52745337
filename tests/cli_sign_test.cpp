// sealkeep sign: the layout it writes, its options, parallel signing and its
// refusals, checked by running the command in a temporary directory.
#include <string>
#include <vector>

#include <gtest/gtest.h>

#include <sealkeep/file_with_cmses.hpp>

#include "support/blocks.hpp"
#include "support/cli_test.hpp"
#include "support/signing.hpp"

namespace sealkeep::test {
namespace {

using PackageSignatures::CmsHeader;

struct Block {
    std::uint32_t version;
    long start, begin, end;
};

// The blocks at the end of bytes, in file order, read from their headers.
std::vector<Block> blocksOf(Bytes const& bytes)
{
    std::vector<Block> blocks;
    long remaining = static_cast<long>(bytes.size());
    while (auto header = CmsHeader::read(bytes.data(), remaining)) {
        if (remaining < 12 + header->length)
            break;
        remaining -= 12 + header->length;
        Block block{header->version, remaining, remaining, remaining + static_cast<long>(header->length)};
        if (header->version == 3)
            remaining -= 8;
        block.start = remaining;
        blocks.insert(blocks.begin(), block);
    }
    return blocks;
}

Bytes slice(Bytes const& bytes, long begin, long end)
{
    return Bytes(bytes.begin() + begin, bytes.begin() + end);
}

class CliSign : public CliTest {};

TEST_F(CliSign, SignsAsDeveloperSeclabAndClient)
{
    std::string package = freshPackage();
    auto developer = signAs(pki->developer(), package);
    EXPECT_EQ(developer.exitCode, 0) << developer.errors;
    EXPECT_EQ(developer.output, package + ": signed as developer (1 signature)\n");
    EXPECT_EQ(signAs(pki->seclab(), package).exitCode, 0);
    auto client = signAs(pki->client(), package);
    EXPECT_EQ(client.exitCode, 0);
    EXPECT_EQ(client.output, package + ": signed as client (3 signatures)\n");
    EXPECT_TRUE(verifyFile(package, pki->ca().certPath));
}

TEST_F(CliSign, WritesTheSameLayoutAsTheLibrary)
{
    std::string byCommand = freshPackage("command.rpm");
    std::string byLibrary = freshPackage("library.rpm");
    SignOptions options = framed();
    options.signFiles = true;
    for (Identity const* who : {&pki->developer(), &pki->seclab(), &pki->client()}) {
        ASSERT_EQ(signAs(*who, byCommand).exitCode, 0);
        ASSERT_TRUE(signFile(byLibrary, *who, options));
    }
    Bytes command = readFile(byCommand);
    Bytes library = readFile(byLibrary);
    ASSERT_EQ(command.size(), library.size());
    auto commandBlocks = blocksOf(command);
    auto libraryBlocks = blocksOf(library);
    ASSERT_EQ(commandBlocks.size(), 3u);
    ASSERT_EQ(libraryBlocks.size(), 3u);
    for (std::size_t i = 0; i < 3; ++i) {
        EXPECT_EQ(commandBlocks[i].version, 3u);
        EXPECT_EQ(commandBlocks[i].start, libraryBlocks[i].start);
        EXPECT_EQ(commandBlocks[i].begin, libraryBlocks[i].begin);
        EXPECT_EQ(commandBlocks[i].end, libraryBlocks[i].end);
        // Frame prefix and header are the same bytes; the CMS differs only in
        // its signing time and signature value.
        EXPECT_EQ(slice(command, commandBlocks[i].start, commandBlocks[i].begin),
                  slice(library, libraryBlocks[i].start, libraryBlocks[i].begin));
        EXPECT_EQ(slice(command, commandBlocks[i].end, commandBlocks[i].end + 12),
                  slice(library, libraryBlocks[i].end, libraryBlocks[i].end + 12));
    }
    EXPECT_EQ(slice(command, 0, commandBlocks[0].start), readFile(rpmTemplate));

    auto verified = run({"verify", byCommand, "--ca", pki->ca().certPath});
    EXPECT_EQ(verified.exitCode, 0) << verified.errors;

    // Each block verifies with openssl over the range it covers: the package
    // for the first, then from the previous CMS up to the block.
    for (std::size_t i = 0; i < 3; ++i) {
        long coveredBegin = i == 0 ? 0 : commandBlocks[i - 1].begin;
        writeFile(work.file("covered.bin"), slice(command, coveredBegin, commandBlocks[i].start));
        writeFile(work.file("sig.der"), slice(command, commandBlocks[i].begin, commandBlocks[i].end));
        auto peer = runShell("cd " + shellQuoted(work.path()) +
                             " && openssl cms -verify -engine gost -binary -inform DER -in sig.der"
                             " -content covered.bin -CAfile " +
                             shellQuoted(pki->ca().certPath) + " -out /dev/null");
        EXPECT_EQ(peer.exitCode, 0) << "block " << i << ": " << peer.errors;
        EXPECT_NE(peer.errors.find("CMS Verification successful"), std::string::npos) << peer.errors;
    }
}

TEST_F(CliSign, FormatTwoWritesBlocksWithoutFramePrefix)
{
    std::string package = freshPackage();
    ASSERT_EQ(signAs(pki->developer(), package, {"--format", "2"}).exitCode, 0);
    auto blocks = blocksOf(readFile(package));
    ASSERT_EQ(blocks.size(), 1u);
    EXPECT_EQ(blocks[0].version, 2u);
    EXPECT_EQ(blocks[0].start, blocks[0].begin);
    EXPECT_TRUE(verifyFile(package, pki->ca().certPath));
}

TEST_F(CliSign, SignedZstdStreamStillPassesZstdTest)
{
    writeText(work.file("data.txt"), std::string(100000, 'z') + "end\n");
    ASSERT_EQ(runShell("cd " + shellQuoted(work.path()) + " && zstd -q data.txt -o data.zst").exitCode, 0);
    for (Identity const* who : {&pki->developer(), &pki->seclab(), &pki->client()})
        ASSERT_EQ(signAs(*who, "data.zst", {"--format", "3"}).exitCode, 0);
    EXPECT_EQ(blocksOf(readFile(work.file("data.zst"))).size(), 3u);
    auto tested = runShell("cd " + shellQuoted(work.path()) + " && zstd -t data.zst");
    EXPECT_EQ(tested.exitCode, 0) << tested.errors;
    auto decoded = runShell("cd " + shellQuoted(work.path()) + " && zstd -dc data.zst | cmp - data.txt");
    EXPECT_EQ(decoded.exitCode, 0) << decoded.output << decoded.errors;
}

TEST_F(CliSign, SignsTwentyPackagesOnTwoJobsAndLeavesTheCorruptOneUntouched)
{
    std::vector<std::string> args = {"sign", "--cert", pki->developer().certPath, "--key",
                                      pki->developer().keyPath, "--jobs", "2"};
    std::vector<std::string> packages;
    for (int i = 0; i < 20; ++i)
        packages.push_back(freshPackage("p" + std::to_string(i) + ".rpm"));
    // A package that ends in a signature block of garbage: a developer cannot
    // sign above it.
    std::string corrupt = packages[7];
    appendFile(corrupt, makeBlock(patternBytes(300), 2));
    Bytes corruptBefore = readFile(corrupt);
    args.insert(args.end(), packages.begin(), packages.end());

    auto result = run(args);
    EXPECT_EQ(result.exitCode, 1);
    // The library's own line on the garbage block, then the command's.
    EXPECT_EQ(result.errors, "Could not decode DER CMS\nsealkeep: " + corrupt +
                                 ": not signed: a developer signature cannot take the next position of the stack "
                                 "as it stands (signatures: unreadable)\n");
    EXPECT_EQ(readFile(corrupt), corruptBefore);
    int signedCount = 0;
    for (auto const& package : packages) {
        if (package != corrupt && verifyFile(package, pki->ca().certPath))
            ++signedCount;
    }
    EXPECT_EQ(signedCount, 19);
}

TEST_F(CliSign, RefusesAFourthSignatureAndLeavesTheFile)
{
    std::string package = freshPackage();
    for (Identity const* who : {&pki->developer(), &pki->seclab(), &pki->client()})
        ASSERT_EQ(signAs(*who, package).exitCode, 0);
    Bytes before = readFile(package);
    auto fourth = signAs(pki->client(), package);
    EXPECT_EQ(fourth.exitCode, 1);
    EXPECT_EQ(fourth.errors, "sealkeep: " + package +
                                 ": not signed: a client signature cannot take the next position of the stack as "
                                 "it stands (signatures: developer, seclab, client)\n");
    EXPECT_EQ(readFile(package), before);
}

TEST_F(CliSign, RefusesASignerOutOfPlaceNamingTheStack)
{
    std::string package = freshPackage();
    Bytes unsignedBytes = readFile(package);
    auto first = signAs(pki->seclab(), package);
    EXPECT_EQ(first.exitCode, 1);
    EXPECT_EQ(first.output, "");
    EXPECT_EQ(first.errors, "sealkeep: " + package +
                                ": not signed: a seclab signature cannot take the next position of the stack as it "
                                "stands (signatures: none)\n");
    EXPECT_EQ(readFile(package), unsignedBytes);

    for (Identity const* who : {&pki->developer(), &pki->seclab(), &pki->client()})
        ASSERT_EQ(signAs(*who, package).exitCode, 0);
    Bytes full = readFile(package);
    // The newest signature is a client's: a seclab replacement cuts nothing
    // and finds the stack full.
    auto replaced = signAs(pki->seclab(), package, {"--replace"});
    EXPECT_EQ(replaced.exitCode, 1);
    EXPECT_EQ(replaced.errors, "sealkeep: " + package +
                                   ": not signed: a seclab signature cannot take the next position of the stack as "
                                   "it stands, even with --replace (signatures: developer, seclab, client)\n");
    EXPECT_EQ(readFile(package), full);
}

// The package holds a trusted application and no TA key is given, so the
// developer's signing fails after the replacement has cut every block: they
// are put back. (A key that is not the certificate's no longer gets this
// far: the credentials are checked before any package is opened.)
TEST_F(CliSign, AReplacementThatFailsLeavesThePackageAsItWas)
{
    std::string package = work.file("with-ta.rpm");
    writeFile(package, readFile(buildRpm(work.path(), "with-ta",
                                         {regularFile("/usr/lib/optee_armtz/8aaaf200-2450-11e4-abe2-0002a5d5c51b.ta",
                                                      "a trusted application")})));
    auto made = runShell("openssl genpkey -algorithm RSA -pkeyopt rsa_keygen_bits:2048 -out " +
                         shellQuoted(work.file("ta.key")) + " 2>&1");
    ASSERT_EQ(made.exitCode, 0) << made.output;
    ASSERT_EQ(signAs(pki->developer(), package, {"--ta-key", "ta.key", "--ta-algorithm", "pss"}).exitCode, 0);
    ASSERT_EQ(signAs(pki->client(), package).exitCode, 0);
    Bytes before = readFile(package);
    auto result = signAs(pki->developer(), package, {"--replace"});
    EXPECT_EQ(result.exitCode, 1);
    EXPECT_EQ(result.output, "");
    std::string line =
        "sealkeep: " + package + ": not signed: signing as developer failed; the package is left as it was\n";
    ASSERT_GE(result.errors.size(), line.size()) << result.errors;
    EXPECT_EQ(result.errors.substr(result.errors.size() - line.size()), line) << result.errors;
    EXPECT_EQ(readFile(package), before);
    EXPECT_TRUE(verifyFile(package, pki->ca().certPath));
}

// The file may grow by 100 bytes only: the new version is cut short by the
// system and dropped.
TEST_F(CliSign, AnAppendCutShortLeavesThePackageAsItWas)
{
    std::string package = freshPackage();
    ASSERT_EQ(signAs(pki->developer(), package).exitCode, 0);
    Bytes before = readFile(package);
    auto result = runSealkeepWithFileSizeLimit(static_cast<long>(before.size()) + 100, work.path(),
                                               {"sign", package, "--no-file-signatures", "--cert",
                                                pki->client().certPath, "--key", pki->client().keyPath});
    EXPECT_EQ(result.exitCode, 1) << result.errors;
    EXPECT_EQ(result.errors, "sealkeep: cannot write a new version of " + package + " beside it: File too large\n"
                             "sealkeep: " + package +
                                 ": not signed: signing as client failed; the package is left as it was\n");
    EXPECT_EQ(readFile(package), before);
}

// A developer replacement cuts every block, also those beyond the four that
// the command can keep: with more than a stack holds, it is refused.
// The new version is complete before it replaces the package, so a
// developer replacement may cut any number of blocks.
TEST_F(CliSign, ADeveloperReplacementOverTooManyBlocksCutsThemAll)
{
    std::string package = freshPackage();
    Bytes bare = readFile(package);
    for (Identity const* who : {&pki->developer(), &pki->seclab(), &pki->client()})
        ASSERT_EQ(signAs(*who, package).exitCode, 0);
    appendFile(package, makeBlock(signRange(readFile(package), pki->client()), 2));
    auto result = signAs(pki->developer(), package, {"--replace"});
    EXPECT_EQ(result.exitCode, 0) << result.errors;
    EXPECT_EQ(result.output, package + ": signed as developer (1 signature)\n");
    Bytes after = readFile(package);
    ASSERT_GT(after.size(), bare.size());
    EXPECT_TRUE(std::equal(bare.begin(), bare.end(), after.begin()));
}

TEST_F(CliSign, RefusesTheSameFileNamedTwice)
{
    std::string package = freshPackage();
    std::string other = freshPackage("other.rpm");
    ASSERT_EQ(runCommand({"ln", "-s", package, work.file("link.rpm")}).exitCode, 0);
    Bytes before = readFile(package);
    Bytes otherBefore = readFile(other);
    for (std::string const& again : {std::string("./package.rpm"), std::string("link.rpm")}) {
        auto result = run({"sign", "package.rpm", "other.rpm", again, "--cert", pki->developer().certPath, "--key",
                           pki->developer().keyPath, "--jobs", "2"});
        EXPECT_EQ(result.exitCode, 2) << again;
        EXPECT_EQ(result.errors,
                  "sealkeep: " + again + ": the same file as package.rpm, named twice; name each package once\n");
        EXPECT_EQ(result.output, "");
    }
    EXPECT_EQ(readFile(package), before);
    EXPECT_EQ(readFile(other), otherBefore);
}

// Signing reads only the newest block; an older one that does not decode is
// no reason for the library to speak when signing succeeds.
TEST_F(CliSign, SigningAboveAnUndecodableOlderBlockPrintsOnlyItsLine)
{
    std::string package = freshPackage();
    appendFile(package, makeBlock(patternBytes(60, 5), 2));
    appendFile(package, makeBlock(signRange(readFile(package), pki->seclab()), 2));
    auto result = signAs(pki->client(), package);
    EXPECT_EQ(result.exitCode, 0) << result.errors;
    EXPECT_EQ(result.errors, "");
    EXPECT_EQ(result.output, package + ": signed as client (3 signatures)\n");
}

TEST_F(CliSign, ReplaceSwapsTheNewestSignatureOfTheSameGroup)
{
    std::string package = freshPackage();
    ASSERT_EQ(signAs(pki->developer(), package).exitCode, 0);
    ASSERT_EQ(signAs(pki->client(), package).exitCode, 0);
    long signedSize = fileSize(package);
    auto replaced = signAs(pki->client(), package, {"--replace"});
    EXPECT_EQ(replaced.exitCode, 0) << replaced.errors;
    EXPECT_EQ(replaced.output, package + ": signed as client (2 signatures)\n");
    EXPECT_EQ(fileSize(package), signedSize);
    EXPECT_TRUE(verifyFile(package, pki->ca().certPath));
}

TEST_F(CliSign, ReadsAKeyProtectedByAPassPhraseFile)
{
    std::string encrypted = work.file("developer-encrypted.key");
    auto made = runShell("openssl pkey -engine gost -in " + shellQuoted(pki->developer().keyPath) +
                         " -aes256 -passout pass:s3cret -out " + shellQuoted(encrypted) + " 2>&1");
    ASSERT_EQ(made.exitCode, 0) << made.output;
    writeText(work.file("pass.txt"), "s3cret\n");
    std::string package = freshPackage();
    auto result = run({"sign", package, "--cert", pki->developer().certPath, "--key", encrypted, "--pass-file",
                       "pass.txt"});
    EXPECT_EQ(result.exitCode, 0) << result.errors;
    EXPECT_TRUE(verifyFile(package, pki->ca().certPath));

    writeText(work.file("wrong.txt"), "wrong\n");
    auto wrong = run({"sign", package, "--cert", pki->seclab().certPath, "--key", encrypted, "--pass-file",
                      "wrong.txt"});
    EXPECT_EQ(wrong.exitCode, 1);
    EXPECT_EQ(wrong.errors, "sealkeep: --key " + encrypted + ": the pass phrase does not unlock the private key\n");
}

TEST_F(CliSign, AcceptsATrustedApplicationKeyAndNoFileSignatures)
{
    auto made = runShell("openssl genpkey -algorithm RSA -pkeyopt rsa_keygen_bits:2048 -out " +
                         shellQuoted(work.file("ta.key")) + " 2>&1");
    ASSERT_EQ(made.exitCode, 0) << made.output;
    std::string package = freshPackage();
    auto result = signAs(pki->developer(), package, {"--ta-key", "ta.key", "--ta-algorithm", "pkcs1"});
    EXPECT_EQ(result.exitCode, 0) << result.errors;
    std::string plain = freshPackage("plain.rpm");
    EXPECT_EQ(signAs(pki->developer(), plain, {"--no-file-signatures"}).exitCode, 0);
    EXPECT_TRUE(verifyFile(plain, pki->ca().certPath));
}

TEST_F(CliSign, ReportsUnreadableInputsNamingTheFile)
{
    std::string package = freshPackage();
    Bytes before = readFile(package);
    auto noCert = run({"sign", package, "--cert", "missing.pem", "--key", pki->developer().keyPath});
    EXPECT_EQ(noCert.exitCode, 1);
    EXPECT_NE(noCert.errors.find("sealkeep: --cert missing.pem: cannot read the signer certificate\n"),
              std::string::npos)
        << noCert.errors;
    auto noKey = run({"sign", package, "--cert", pki->developer().certPath, "--key", "missing.key"});
    EXPECT_EQ(noKey.exitCode, 1);
    EXPECT_EQ(noKey.errors, "sealkeep: --key missing.key: cannot read the private key: No such file or directory\n");
    auto noPass = signAs(pki->developer(), package, {"--pass-file", "missing.txt"});
    EXPECT_EQ(noPass.exitCode, 1);
    EXPECT_EQ(noPass.errors, "sealkeep: --pass file:missing.txt: cannot read the pass phrase from missing.txt: No "
                             "such file or directory\n");
    auto noChain = signAs(pki->developer(), package, {"--rotation-chain", "missing.chain"});
    EXPECT_EQ(noChain.exitCode, 1);
    EXPECT_NE(noChain.errors.find("sealkeep: --rotation-chain missing.chain: cannot read the rotation chain\n"),
              std::string::npos);
    auto noTaKey = signAs(pki->developer(), package, {"--ta-key", "missing-ta.key", "--ta-algorithm", "pss"});
    EXPECT_EQ(noTaKey.exitCode, 1);
    EXPECT_EQ(noTaKey.errors,
              "sealkeep: --ta-key missing-ta.key: cannot read the private key: No such file or directory\n");
    EXPECT_EQ(readFile(package), before);

    auto noPackage = signAs(pki->developer(), "missing.rpm");
    EXPECT_EQ(noPackage.exitCode, 1);
    EXPECT_EQ(noPackage.errors, "sealkeep: missing.rpm: not signed: cannot open: No such file or directory\n");
}

TEST_F(CliSign, RejectsBadUsageWithStatusTwo)
{
    std::string package = freshPackage();
    Bytes before = readFile(package);
    for (auto const& extra : std::vector<std::vector<std::string>>{
             {"--ta-key", "ta.key"}, {"--ta-algorithm", "pss"}, {"--ta-algorithm", "rsa"}, {"--format", "4"},
             {"--jobs", "0"}, {"--unknown"}}) {
        auto result = signAs(pki->developer(), package, extra);
        EXPECT_EQ(result.exitCode, 2) << extra[0];
        EXPECT_EQ(result.errors.rfind("sealkeep: ", 0), 0u) << result.errors;
        EXPECT_EQ(result.output, "");
    }
    auto noKey = run({"sign", package, "--cert", pki->developer().certPath});
    EXPECT_EQ(noKey.exitCode, 2);
    EXPECT_EQ(noKey.errors, "sealkeep: --key is required (see --help)\n");
    EXPECT_EQ(readFile(package), before);
}

}  // namespace
}  // namespace sealkeep::test
