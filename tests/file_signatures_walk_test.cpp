// Per-file IMA signatures of an RPM payload made by cms_sign: which files get
// one, the record's bytes, hard-link sets, every payload compressor, GOST
// 256- and 512-bit signers, and the peers that must still accept the result
// (evmctl for the records; verifyCmses, openssl cms, rpm and rpm2cpio for the
// package).
#include <algorithm>
#include <map>
#include <memory>
#include <set>
#include <string>

#include <gtest/gtest.h>
#include <openssl/sha.h>
#include <openssl/x509v3.h>
#include <rpm/rpmfi.h>
#include <rpm/rpmarchive.h>  // after rpmfi.h, whose types it uses

#include <sealkeep/sealkeep.h>

#include "support/cms_builder.hpp"
#include "support/files.hpp"
#include "support/payload_signatures.hpp"
#include "support/pki.hpp"
#include "support/process.hpp"
#include "support/rpm_builder.hpp"
#include "support/rpm_surgery.hpp"
#include "support/signing.hpp"
#include "support/stderr_capture.hpp"
#include "support/temp_dir.hpp"

namespace sealkeep::test {
namespace {

// A signer with its files: evmctl wants the key as PEM and the certificate
// as DER (and as PEM for --keyid-from-cert).
struct PeerSigner {
    Identity identity;
    LoadedSigner loaded;
    std::string certDer;
};

PeerSigner makePeerSigner(Pki& pki, TempDir const& dir, std::string const& name, int bits)
{
    Identity identity{dir.file(name + ".key"), dir.file(name + ".pem")};
    generateKey(identity.keyPath, bits);
    writeRequest(identity.keyPath, dir.file(name + ".csr"), name);
    if (make_certificate(identity.certPath.c_str(), dir.file(name + ".csr").c_str(), pki.ca().keyPath.c_str(),
                         pki.ca().certPath.c_str(), "developer") != 0)
        throw std::runtime_error("make_certificate failed");
    PeerSigner signer{identity, loadSigner(identity), dir.file(name + ".der")};
    unsigned char* der = nullptr;
    int length = i2d_X509(signer.loaded.cert.get(), &der);
    writeFile(signer.certDer, Bytes(der, der + length));
    OPENSSL_free(der);
    return signer;
}

Bytes subjectKeyIdentifier(X509* cert)
{
    const ASN1_OCTET_STRING* ski = X509_get0_subject_key_id(cert);
    const unsigned char* data = ASN1_STRING_get0_data(ski);
    return Bytes(data, data + ASN1_STRING_length(ski));
}

// The key id evmctl looks a key up by: the last four bytes of SHA-1 over the
// public key's bits.
Bytes evmctlKeyid(X509* cert)
{
    ASN1_BIT_STRING* bits = X509_get0_pubkey_bitstr(cert);
    unsigned char sha1[SHA_DIGEST_LENGTH];
    SHA1(ASN1_STRING_get0_data(bits), static_cast<std::size_t>(ASN1_STRING_length(bits)), sha1);
    return Bytes(sha1 + SHA_DIGEST_LENGTH - 4, sha1 + SHA_DIGEST_LENGTH);
}

class FileSignaturesWalk : public testing::Test {
protected:
    static void SetUpTestSuite()
    {
        pki = std::make_unique<Pki>();
        dir = std::make_unique<TempDir>();
        gost256 = std::make_unique<PeerSigner>(makePeerSigner(*pki, *dir, "gost256", 256));
        gost512 = std::make_unique<PeerSigner>(makePeerSigner(*pki, *dir, "gost512", 512));
    }
    static void TearDownTestSuite()
    {
        gost512.reset();
        gost256.reset();
        dir.reset();
        pki.reset();
    }

    // The IMA table of a successful signature over the package at path.
    static std::vector<TableEntry> imaTable(std::string const& path, PeerSigner const& signer,
                                            std::string* errors = nullptr)
    {
        auto signing = signPackage(readFile(path), signer.loaded.borrowed());
        EXPECT_TRUE(signing.der) << signing.errors;
        if (errors)
            *errors = signing.errors;
        if (!signing.der)
            return {};
        auto ima = tableOf(*signing.der, 0);
        EXPECT_TRUE(ima);
        return ima ? *ima : std::vector<TableEntry>{};
    }

    // evmctl ima_verify of record against file, with the key id replaced by
    // the one evmctl derives.
    static bool evmctlAccepts(Bytes record, std::string const& file, PeerSigner const& signer)
    {
        Bytes keyid = evmctlKeyid(signer.loaded.cert.get());
        std::copy(keyid.begin(), keyid.end(), record.begin() + 3);
        writeFile(file + ".sig", record);
        auto result = runCommand(
            {"evmctl", "--engine", "gost", "ima_verify", "--sigfile", "--key", signer.certDer, file});
        return result.exitCode == 0;
    }

    // What evmctl ima_sign --keyid-from-cert writes for file.
    static Bytes evmctlRecord(std::string const& file, PeerSigner const& signer, const char* algo)
    {
        std::string copy = dir->file("evmctl-copy");
        writeFile(copy, readFile(file));
        auto result = runCommand({"evmctl", "--engine", "gost", "ima_sign", "--sigfile", "-a", algo, "--key",
                                  signer.identity.keyPath, "--keyid-from-cert", signer.identity.certPath, copy});
        EXPECT_EQ(0, result.exitCode) << result.errors;
        return readFile(copy + ".sig");
    }

    // Checks every record of a package against its unpacked files with evmctl.
    static void checkRecordsWithEvmctl(std::string const& rpm, PeerSigner const& signer, unsigned char algoByte,
                                       std::size_t signatureSize, std::size_t expectedEntries)
    {
        auto names = packageFileNames(rpm);
        auto ima = imaTable(rpm, signer);
        ASSERT_EQ(expectedEntries, ima.size());
        std::string root = dir->file("unpacked-" + std::to_string(unpackCount++));
        unpackPayload(rpm, root);
        Bytes ski = subjectKeyIdentifier(signer.loaded.cert.get());
        for (auto const& entry : ima) {
            Bytes const& record = entry.value;
            SCOPED_TRACE(names.at(entry.index));
            ASSERT_EQ(9 + signatureSize, record.size());
            EXPECT_EQ(3, record[0]);
            EXPECT_EQ(2, record[1]);
            EXPECT_EQ(algoByte, record[2]);
            EXPECT_EQ(Bytes(ski.end() - 4, ski.end()), Bytes(record.begin() + 3, record.begin() + 7));
            EXPECT_EQ(signatureSize, static_cast<std::size_t>(record[7] << 8 | record[8]));
            std::string file = root + names.at(entry.index);
            EXPECT_TRUE(evmctlAccepts(record, file, signer));
            std::string other = dir->file("other-file");
            writeText(other, "not the signed content");
            EXPECT_FALSE(evmctlAccepts(record, other, signer));
        }
    }

    static inline std::unique_ptr<Pki> pki;
    static inline std::unique_ptr<TempDir> dir;
    static inline std::unique_ptr<PeerSigner> gost256, gost512;
    static inline int unpackCount = 0;
};

std::vector<PayloadEntry> mixedPayload()
{
    return {regularFile("/usr/share/walk/data.bin", std::string(20000, 'd') + "tail"),
            regularFile("/usr/share/walk/empty", ""),
            directory("/usr/share/walk/dir"),
            symbolicLink("/usr/share/walk/link", "data.bin"),
            regularFile("/usr/share/walk/linked-a", "one content, three names"),
            hardLink("/usr/share/walk/linked-b", "/usr/share/walk/linked-a"),
            hardLink("/usr/share/walk/linked-c", "/usr/share/walk/linked-a")};
}

TEST_F(FileSignaturesWalk, APackageWithoutFilesGetsTwoEmptyTablesOfVersionOne)
{
    std::string rpm = buildRpm(dir->path(), "nofiles", {});
    auto signing = signPackage(readFile(rpm), gost256->loaded.borrowed());
    ASSERT_TRUE(signing.der) << signing.errors;
    EXPECT_EQ("Notice: package contains no files\n", signing.errors);
    for (int which : {0, 1}) {
        auto table = tableOf(*signing.der, which);
        ASSERT_TRUE(table) << which;
        EXPECT_TRUE(table->empty()) << which;
        EXPECT_EQ(1, tableVersion(*signing.der, which));
    }
}

TEST_F(FileSignaturesWalk, DirectoriesAndSymbolicLinksGetNoSignature)
{
    std::string rpm = buildRpm(dir->path(), "nonregular",
                               {directory("/usr/share/nonregular"), directory("/usr/share/nonregular/sub"),
                                symbolicLink("/usr/share/nonregular/link", "sub")});
    auto signing = signPackage(readFile(rpm), gost256->loaded.borrowed());
    ASSERT_TRUE(signing.der) << signing.errors;
    EXPECT_EQ("", signing.errors);
    for (int which : {0, 1}) {
        auto table = tableOf(*signing.der, which);
        ASSERT_TRUE(table);
        EXPECT_TRUE(table->empty());
        EXPECT_EQ(1, tableVersion(*signing.der, which));
    }
}

class EveryCompressor : public FileSignaturesWalk, public testing::WithParamInterface<const char*> {};

TEST_P(EveryCompressor, EveryRegularFileHasARecordThatEvmctlAccepts)
{
    std::string rpm = buildRpm(dir->path(), std::string("mixed-") + GetParam(), mixedPayload(), GetParam());
    // data.bin, empty, and the three names of the hard-link set.
    checkRecordsWithEvmctl(rpm, *gost256, 18, 64, 5);
}

INSTANTIATE_TEST_SUITE_P(Payloads, EveryCompressor, testing::Values("gzip", "xz", "bzip2", "zstd"));

TEST_F(FileSignaturesWalk, A512BitSignerWritesHashAlgorithm19AndLongSignatures)
{
    std::string rpm = buildRpm(dir->path(), "gost512", mixedPayload());
    checkRecordsWithEvmctl(rpm, *gost512, 19, 128, 5);
}

TEST_F(FileSignaturesWalk, TheFirstNineBytesAreWhatEvmctlWrites)
{
    std::string rpm = buildRpm(dir->path(), "ninebytes", {regularFile("/usr/share/nine/file", "nine bytes")});
    std::string root = dir->file("nine");
    unpackPayload(rpm, root);
    for (auto const* signer : {gost256.get(), gost512.get()}) {
        auto ima = imaTable(rpm, *signer);
        ASSERT_EQ(1u, ima.size());
        Bytes reference =
            evmctlRecord(root + "/usr/share/nine/file", *signer, signer == gost256.get() ? "streebog256" : "streebog512");
        ASSERT_GE(reference.size(), 9u);
        EXPECT_EQ(Bytes(reference.begin(), reference.begin() + 9), Bytes(ima[0].value.begin(), ima[0].value.begin() + 9));
    }
}

TEST_F(FileSignaturesWalk, AnEmptyRegularFileIsSigned)
{
    std::string rpm = buildRpm(dir->path(), "emptyfile", {regularFile("/usr/share/emptyfile/e", "")});
    checkRecordsWithEvmctl(rpm, *gost256, 18, 64, 1);
}

TEST_F(FileSignaturesWalk, AHardLinkSetOfThreeGivesThreeEntriesWithOneValue)
{
    std::string rpm = buildRpm(dir->path(), "hardlinks",
                               {regularFile("/usr/share/hl/before", "before"), regularFile("/usr/share/hl/a", "shared"),
                                hardLink("/usr/share/hl/b", "/usr/share/hl/a"),
                                hardLink("/usr/share/hl/c", "/usr/share/hl/a"),
                                regularFile("/usr/share/hl/z-after", "after")});
    auto names = packageFileNames(rpm);
    auto ima = imaTable(rpm, *gost256);
    ASSERT_EQ(5u, ima.size());
    std::map<std::string, std::size_t> position;
    for (std::size_t i = 0; i < ima.size(); ++i)
        position[names.at(ima[i].index)] = i;
    ASSERT_EQ(5u, position.size()) << "every name has exactly one entry";
    // The three names are next to each other and share one value.
    std::size_t first = std::min({position["/usr/share/hl/a"], position["/usr/share/hl/b"], position["/usr/share/hl/c"]});
    ASSERT_LE(first + 2, ima.size() - 1);
    std::set<long> setIndices;
    for (std::size_t i = first; i < first + 3; ++i) {
        EXPECT_EQ(ima[first].value, ima[i].value);
        setIndices.insert(ima[i].index);
    }
    EXPECT_EQ(3u, setIndices.size());
    // As librpm sees the set: the member that carries the content, then
    // positions 1 and 2 of its link list.
    std::vector<long> expected;
    forEachPayloadFile(rpm, [&](rpmfi fi) {
        const int* members = nullptr;
        if (rpmfiArchiveHasContent(fi) && rpmfiFLinks(fi, &members) == 3 && members)
            expected = {rpmfiFX(fi), members[1], members[2]};
    });
    EXPECT_EQ(expected, (std::vector<long>{ima[first].index, ima[first + 1].index, ima[first + 2].index}));
    EXPECT_NE(ima[first].value, ima[position["/usr/share/hl/before"]].value);
    EXPECT_NE(ima[first].value, ima[position["/usr/share/hl/z-after"]].value);
}

TEST_F(FileSignaturesWalk, ASignedPackageStillVerifiesAndReads)
{
    std::string rpm = buildRpm(dir->path(), "verifies", mixedPayload());
    Bytes original = readFile(rpm);
    auto signing = signPackage(original, gost256->loaded.borrowed());
    ASSERT_TRUE(signing.der) << signing.errors;
    writeFile(dir->file("verifies.cms"), *signing.der);
    auto openssl = runCommand({"openssl", "cms", "-verify", "-engine", "gost", "-binary", "-inform", "DER", "-in",
                               dir->file("verifies.cms"), "-content", rpm, "-CAfile", pki->ca().certPath, "-out",
                               "/dev/null"});
    EXPECT_EQ(0, openssl.exitCode) << openssl.errors;
    EXPECT_NE(std::string::npos, openssl.errors.find("CMS Verification successful")) << openssl.errors;

    // The skippable-frame prefix lets the zstd decoder step over the block.
    SignOptions options = framed();
    options.signFiles = true;
    ASSERT_TRUE(signFile(rpm, gost256->identity, options));
    EXPECT_TRUE(verifyFile(rpm, pki->ca().certPath));
    // The block on the file is the one with the per-file tables.
    Bytes signedFile = readFile(rpm);
    ASSERT_GT(signedFile.size(), original.size() + 20);
    Bytes block(signedFile.begin() + static_cast<long>(original.size()) + 8, signedFile.end() - 12);
    auto table = tableOf(block, 0);
    ASSERT_TRUE(table);
    EXPECT_EQ(5u, table->size());
    ASSERT_TRUE(tableOf(block, 1));
    EXPECT_TRUE(tableOf(block, 1)->empty());
    auto listing = runCommand({"rpm", "-qpl", "--nosignature", "--nodigest", rpm});
    EXPECT_EQ(0, listing.exitCode) << listing.errors;
    EXPECT_NE(std::string::npos, listing.output.find("/usr/share/walk/linked-c")) << listing.output;
    auto unpacked = runShell("rpm2cpio '" + rpm + "' | cpio -t --quiet");
    EXPECT_EQ(0, unpacked.exitCode) << unpacked.errors;
    EXPECT_NE(std::string::npos, unpacked.output.find("./usr/share/walk/data.bin")) << unpacked.output;
}

TEST_F(FileSignaturesWalk, APackageWithAnRpmSignatureOfAnUnknownKeyIsStillWalked)
{
    std::string rpm = buildRpm(dir->path(), "gpgsigned", mixedPayload(), "gzip");
    std::string home = dir->file("gnupg");
    auto made = runShell("mkdir -m 700 '" + home + "' && gpg --batch --homedir '" + home +
                         "' --passphrase '' --quick-gen-key 'Sealkeep Test <test@example.org>' rsa2048 sign never"
                         " && rpmsign --addsign --define '_gpg_name Sealkeep Test' --define '_gpg_path " + home +
                         "' --define '__gpg /usr/bin/gpg' '" + rpm + "' </dev/null");
    runCommand({"gpgconf", "--homedir", home, "--kill", "all"});  // no agent outlives the test
    ASSERT_EQ(0, made.exitCode) << made.errors;
    auto signing = signPackage(readFile(rpm), gost256->loaded.borrowed());
    ASSERT_TRUE(signing.der) << signing.errors;
    // Only librpm's own note that it does not know the key.
    EXPECT_NE(std::string::npos, signing.errors.find("NOKEY")) << signing.errors;
    EXPECT_EQ(std::string::npos, signing.errors.find("Could not")) << signing.errors;
    auto ima = tableOf(*signing.der, 0);
    ASSERT_TRUE(ima);
    EXPECT_EQ(5u, ima->size());
}

TEST_F(FileSignaturesWalk, AFailingWalkLeavesThePackageAsItWas)
{
    std::string rpm = buildRpm(dir->path(), "untouched", {regularFile("/usr/lib/optee_armtz/hello.ta", "hello")});
    Bytes before = readFile(rpm);
    SignOptions options;
    options.signFiles = true;
    std::string errors = stderrOf([&] { EXPECT_FALSE(signFile(rpm, gost256->identity, options)); });
    EXPECT_EQ(0u, errors.find("TA key is absent yet there are TAs in RPM!\n"
                              "Could not sign file from rpm: /usr/lib/optee_armtz/hello.ta\n"
                              "Could not sign files in package\n"))
        << errors;
    EXPECT_EQ(before, readFile(rpm));
}

TEST_F(FileSignaturesWalk, APayloadThatEndsEarlyFailsTheSignature)
{
    // Incompressible content, so that cutting the package in the middle of the
    // payload cuts the file's content.
    Bytes content = patternBytes(200000, 3);
    std::string rpm = buildRpm(dir->path(), "truncated",
                               {regularFile("/usr/share/truncated/big", std::string(content.begin(), content.end()))},
                               "gzip");
    Bytes package = readFile(rpm);
    package.resize(package.size() - 100000);
    auto signing = signPackage(package, gost256->loaded.borrowed());
    EXPECT_FALSE(signing.der);
    EXPECT_EQ("Could not read file from rpm payload\n"
              "Could not sign file from rpm: /usr/share/truncated/big\n"
              "Could not sign files in package\n",
              signing.errors);
}

// An archive that repeats an entry would make the walk sign it again on every
// repeat (and every name of a hard-link set again); an honest archive holds
// each file once.
TEST_F(FileSignaturesWalk, AnArchiveThatRepeatsAFileIsRefused)
{
    std::string rpm = buildRpm(dir->path(), "repeated",
                               {regularFile("/usr/share/rep/a", "aaa"), regularFile("/usr/share/rep/b", "bbb")}, "gzip");
    auto honest = signPackage(withPayload(rpm, archiveOf(rpm, "./usr/share/rep/a\\n./usr/share/rep/b\\n")),
                              gost256->loaded.borrowed());
    ASSERT_TRUE(honest.der) << honest.errors;
    EXPECT_EQ("", honest.errors);

    auto signing = signPackage(
        withPayload(rpm, archiveOf(rpm, "./usr/share/rep/a\\n./usr/share/rep/a\\n./usr/share/rep/b\\n")),
        gost256->loaded.borrowed());
    EXPECT_FALSE(signing.der);
    EXPECT_EQ("File occurs more than once in rpm payload\n"
              "Could not sign file from rpm: /usr/share/rep/a\n"
              "Could not sign files in package\n",
              signing.errors);
}

// A damaged archive ends the walk; the files before the damage are signed and
// the signature is made, and the early end is reported.
TEST_F(FileSignaturesWalk, AnArchiveThatEndsInGarbageIsReported)
{
    std::string rpm = buildRpm(dir->path(), "garbage",
                               {regularFile("/usr/share/garbage/a", "aaa"), regularFile("/usr/share/garbage/b", "bbb")},
                               "gzip");
    // The archive's first entry, then a header whose magic is wrong.
    Bytes archive = archiveOf(rpm, "./usr/share/garbage/a\\n./usr/share/garbage/b\\n");
    const std::string magic = "070701";
    auto second = std::search(archive.begin() + 1, archive.end(), magic.begin(), magic.end());
    ASSERT_NE(archive.end(), second);
    *(second + 5) = '9';
    auto signing = signPackage(withPayload(rpm, archive), gost256->loaded.borrowed());
    ASSERT_TRUE(signing.der) << signing.errors;
    EXPECT_EQ("Notice: rpm payload ended early: cpio: Bad magic\n", signing.errors);
    auto ima = tableOf(*signing.der, 0);
    ASSERT_TRUE(ima);
    EXPECT_EQ(1u, ima->size());
}

// librpm skips a link's target by allocating what the header declares for it:
// a header that declares more than any target can hold is refused before the
// archive is read.
TEST_F(FileSignaturesWalk, ASymbolicLinkDeclaredLongerThanAnyTargetIsRefused)
{
    std::string rpm = buildRpm(dir->path(), "longlink",
                               {regularFile("/usr/share/longlink/a", "aaa"), symbolicLink("/usr/share/longlink/l", "a")},
                               "gzip");
    RpmParts parts = splitRpm(readFile(rpm));
    auto modes = headerIntegers(parts.header, fileModesTag);
    std::size_t link = 0;
    while (link < modes.size() && (modes[link] & 0xF000) != 0xA000)
        ++link;
    ASSERT_LT(link, modes.size());

    for (std::uint32_t declared : {4096u, 4097u, 0xFFFFFFFFu}) {
        SCOPED_TRACE(declared);
        setHeaderInt32(parts.header, fileSizesTag, link, declared);
        auto signing = signPackage(joinRpm(parts), gost256->loaded.borrowed());
        if (declared == 4096u) {
            // Within bounds: librpm reads on and finds the archive shorter.
            EXPECT_EQ(std::string::npos, signing.errors.find("Symbolic link")) << signing.errors;
            continue;
        }
        EXPECT_FALSE(signing.der);
        EXPECT_EQ("Symbolic link in package header is longer than 4096 bytes: /usr/share/longlink/l\n"
                  "Could not sign files in package\n",
                  signing.errors);
    }
}

TEST_F(FileSignaturesWalk, APackageSignedWithoutFileSignaturesCarriesNoTables)
{
    std::string rpm = buildRpm(dir->path(), "nofilesigs", mixedPayload());
    auto signing = signPackage(readFile(rpm), gost256->loaded.borrowed(), nullptr, taRsaPss, 0);
    ASSERT_TRUE(signing.der) << signing.errors;
    EXPECT_EQ("", signing.errors);
    EXPECT_FALSE(tableOf(*signing.der, 0));
    EXPECT_FALSE(tableOf(*signing.der, 1));
}

// A GOST R 34.10-2001 key signs with GOST R 34.11-94 by default, which has no
// number in the kernel's list of IMA hash algorithms.
TEST_F(FileSignaturesWalk, AKeyWhoseDigestHasNoImaNumberSignsNothing)
{
    PkeyCtxPtr context(EVP_PKEY_CTX_new_id(NID_id_GostR3410_2001, nullptr));
    EVP_PKEY* generated = nullptr;
    ASSERT_TRUE(context && EVP_PKEY_keygen_init(context.get()) == 1 &&
                EVP_PKEY_CTX_ctrl_str(context.get(), "paramset", "A") > 0 &&
                EVP_PKEY_keygen(context.get(), &generated) == 1);
    PkeyPtr key(generated);
    X509Ptr cert = makeBareCertificate(key.get(), "gost 2001 signer");
    addExtension(cert.get(), NID_subject_key_identifier, "01:02:03:04:05");
    signCertificate(cert.get(), key.get());

    std::string rpm = buildRpm(dir->path(), "gost94", {regularFile("/usr/share/gost94/f", "f")});
    auto signing = signPackage(readFile(rpm), {cert.get(), key.get()});
    EXPECT_FALSE(signing.der);
    EXPECT_EQ("Hash algo is unknown for imaevm: md_gost94\n"
              "Could not sign file from rpm: /usr/share/gost94/f\n"
              "Could not sign files in package\n",
              signing.errors);
}

TEST_F(FileSignaturesWalk, TheLeadAloneIsNoPackage)
{
    auto signing = signPackage({0xED, 0xAB, 0xEE, 0xDB}, gost256->loaded.borrowed());
    EXPECT_FALSE(signing.der);
    EXPECT_EQ("Argument is not an RPM package\nCould not sign files in package\n", signing.errors);
}

TEST_F(FileSignaturesWalk, ACutHeaderCannotBeRead)
{
    std::string rpm = buildRpm(dir->path(), "cutheader", {regularFile("/usr/share/cut/f", "f")});
    Bytes package = readFile(rpm);
    package.resize(200);
    auto signing = signPackage(package, gost256->loaded.borrowed());
    EXPECT_FALSE(signing.der);
    // librpm says first what it found wrong, in words of its own.
    const std::string ours = "Could not read header from package\nCould not sign files in package\n";
    ASSERT_GE(signing.errors.size(), ours.size());
    EXPECT_EQ(ours, signing.errors.substr(signing.errors.size() - ours.size())) << signing.errors;
}

}  // namespace
}  // namespace sealkeep::test
