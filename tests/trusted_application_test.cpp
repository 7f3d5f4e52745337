// Trusted applications: which payload files are OP-TEE TAs (is_fi_ta) and the
// signed header made for each (rpmfi_ta_shdr), parsed here field by field and
// checked with openssl pkeyutl; and how they travel through cms_sign.
#include <cstdint>
#include <map>
#include <memory>
#include <string>

#include <glib.h>
#include <gtest/gtest.h>
#include <openssl/evp.h>
#include <rpm/rpmfi.h>

#include <sealkeep/sealkeep.h>

#include "support/cms_builder.hpp"
#include "support/files.hpp"
#include "support/payload_signatures.hpp"
#include "support/pki.hpp"
#include "support/process.hpp"
#include "support/rpm_builder.hpp"
#include "support/stderr_capture.hpp"
#include "support/temp_dir.hpp"

namespace sealkeep::test {
namespace {

const std::string canonicalTa = "/usr/lib/optee_armtz/8aaaf200-2450-11e4-abe2-0002a5d5c51b.ta";
const std::string fourHyphenTa = "/usr/lib/optee_armtz/8aaaf200-2450-11e4-abe20002a5d5c51b.ta";
const std::string emptyTa = "/usr/lib/optee_armtz/01020304-0506-0708-090a-0b0c0d0e0f10.ta";
const std::string helloTa = "/usr/lib/optee_armtz/hello.ta";
const Bytes expectedUuid = {0x8a, 0xaa, 0xf2, 0x00, 0x24, 0x50, 0x11, 0xe4,
                            0xab, 0xe2, 0x00, 0x02, 0xa5, 0xd5, 0xc5, 0x1b};

using GArrayPtr = std::unique_ptr<GArray, Deleter<g_array_unref>>;
// The header fields, read on their own from the hex text.
struct ParsedHeader {
    uint32_t magic, imgType, imgSize, algo;
    uint16_t hashSize, sigSize;
    Bytes hash, signature, uuid;
    uint32_t taVersion;
    Bytes raw;
};

uint32_t littleEndian(Bytes const& bytes, std::size_t offset, std::size_t size)
{
    uint32_t value = 0;
    for (std::size_t i = 0; i < size; ++i)
        value |= static_cast<uint32_t>(bytes.at(offset + i)) << (8 * i);
    return value;
}

ParsedHeader parse(std::string const& hex)
{
    ParsedHeader h{};
    h.raw = bytesOfHex(hex);
    Bytes const& b = h.raw;
    h.magic = littleEndian(b, 0, 4);
    h.imgType = littleEndian(b, 4, 4);
    h.imgSize = littleEndian(b, 8, 4);
    h.algo = littleEndian(b, 12, 4);
    h.hashSize = static_cast<uint16_t>(littleEndian(b, 16, 2));
    h.sigSize = static_cast<uint16_t>(littleEndian(b, 18, 2));
    h.hash.assign(b.begin() + 20, b.begin() + 52);
    h.signature.assign(b.begin() + 52, b.begin() + 52 + h.sigSize);
    h.uuid.assign(b.begin() + 52 + h.sigSize, b.begin() + 68 + h.sigSize);
    h.taVersion = littleEndian(b, 68 + h.sigSize, 4);
    return h;
}

Bytes sha256Of(Bytes const& data)
{
    Bytes out(32);
    unsigned int length = 0;
    EVP_Digest(data.data(), data.size(), out.data(), &length, EVP_sha256(), nullptr);
    return out;
}

// SHA-256 over header fields, UUID record and image, as OP-TEE checks it.
Bytes expectedHash(ParsedHeader const& h, Bytes const& image)
{
    Bytes covered(h.raw.begin(), h.raw.begin() + 20);
    covered.insert(covered.end(), h.raw.begin() + 52 + h.sigSize, h.raw.end());
    covered.insert(covered.end(), image.begin(), image.end());
    return sha256Of(covered);
}

Bytes bytesOf(std::string const& text)
{
    return Bytes(text.begin(), text.end());
}

class TrustedApplication : public testing::Test {
protected:
    static void SetUpTestSuite()
    {
        dir = std::make_unique<TempDir>();
        taKeyPath = dir->file("ta.key");
        taKey = generateRsaKey(taKeyPath);
        image = patternBytes(10000, 7);
        std::string imageText(image.begin(), image.end());
        package = buildRpm(dir->path(), "tas",
                           {regularFile(canonicalTa, imageText), regularFile(fourHyphenTa, "second"),
                            regularFile(emptyTa, ""), regularFile("/usr/lib/optee_armtz/sub/x.ta", "x"),
                            regularFile("/usr/lib/optee_armtzx/a.ta", "a"),
                            regularFile("/usr/lib/optee_armtz/readme.txt", "r")});
        helloPackage = buildRpm(dir->path(), "hello", {regularFile(helloTa, "hello")});
    }
    static void TearDownTestSuite()
    {
        taKey.reset();
        dir.reset();
    }

    // rpmfi_ta_shdr for the file at path of pkg: the hex text (empty when
    // null) and what it printed.
    static std::pair<std::string, std::string> headerOf(std::string const& pkg, std::string const& path,
                                                        EVP_PKEY* key, unsigned int algo)
    {
        std::string text, errors;
        bool found = false;
        forEachPayloadFile(pkg, [&](rpmfi fi) {
            if (rpmfiFN(fi) != path)
                return;
            found = true;
            errors = stderrOf([&] {
                GArrayPtr made(rpmfi_ta_shdr(fi, key, algo));
                if (made)
                    text.assign(made->data, made->len);
            });
        });
        EXPECT_TRUE(found) << path;
        return {text, errors};
    }

    // openssl pkeyutl -verify of signature over hash with the TA key.
    static bool pkeyutlVerifies(Bytes const& hash, Bytes const& signature, unsigned int algo)
    {
        writeFile(dir->file("hash.bin"), hash);
        writeFile(dir->file("sig.bin"), signature);
        std::vector<std::string> argv{"openssl", "pkeyutl", "-verify", "-inkey", taKeyPath, "-in",
                                      dir->file("hash.bin"), "-sigfile", dir->file("sig.bin"),
                                      "-pkeyopt", "digest:sha256"};
        if (algo == taRsaPss) {
            for (const char* option : {"rsa_padding_mode:pss", "rsa_pss_saltlen:digest", "rsa_mgf1_md:sha256"})
                argv.insert(argv.end(), {"-pkeyopt", option});
        } else {
            argv.insert(argv.end(), {"-pkeyopt", "rsa_padding_mode:pkcs1"});
        }
        auto result = runCommand(argv);
        return result.exitCode == 0 && result.output.find("Signature Verified Successfully") != std::string::npos;
    }

    static inline std::unique_ptr<TempDir> dir;
    static inline std::string taKeyPath;
    static inline PkeyPtr taKey;
    static inline Bytes image;
    static inline std::string package, helloPackage;
};

TEST_F(TrustedApplication, OnlyDotTaFilesDirectlyUnderTheOpteeDirectoryAreTrustedApplications)
{
    std::map<std::string, int> seen;
    forEachPayloadFile(package, [&](rpmfi fi) { seen[rpmfiFN(fi)] = is_fi_ta(fi); });
    forEachPayloadFile(helloPackage, [&](rpmfi fi) { seen[rpmfiFN(fi)] = is_fi_ta(fi); });
    EXPECT_EQ(1, seen.at(canonicalTa));
    EXPECT_EQ(1, seen.at(fourHyphenTa));
    EXPECT_EQ(1, seen.at(emptyTa));
    EXPECT_EQ(1, seen.at(helloTa));
    EXPECT_EQ(0, seen.at("/usr/lib/optee_armtz/sub/x.ta"));
    EXPECT_EQ(0, seen.at("/usr/lib/optee_armtzx/a.ta"));
    EXPECT_EQ(0, seen.at("/usr/lib/optee_armtz/readme.txt"));
}

TEST_F(TrustedApplication, APssHeaderHasEveryFieldAndVerifiesWithOpenssl)
{
    auto [text, errors] = headerOf(package, canonicalTa, taKey.get(), taRsaPss);
    EXPECT_EQ("", errors);
    ASSERT_EQ(656u, text.size());
    EXPECT_EQ(hexOf(bytesOfHex(text)), text) << "lower-case hex, two characters a byte";
    ParsedHeader h = parse(text);
    EXPECT_EQ(328u, h.raw.size());
    EXPECT_EQ(0x4F545348u, h.magic);
    EXPECT_EQ(bytesOf("HSTO"), Bytes(h.raw.begin(), h.raw.begin() + 4));
    EXPECT_EQ(1u, h.imgType);
    EXPECT_EQ(image.size(), h.imgSize);
    EXPECT_EQ(taRsaPss, h.algo);
    EXPECT_EQ(32u, h.hashSize);
    EXPECT_EQ(256u, h.sigSize);
    EXPECT_EQ(expectedUuid, h.uuid);
    EXPECT_EQ(0u, h.taVersion);
    EXPECT_EQ(expectedHash(h, image), h.hash);
    EXPECT_TRUE(pkeyutlVerifies(h.hash, h.signature, taRsaPss));
    EXPECT_FALSE(pkeyutlVerifies(h.hash, h.signature, taRsaPkcs1));
}

TEST_F(TrustedApplication, APkcs1HeaderVerifiesWithOpenssl)
{
    auto [text, errors] = headerOf(package, canonicalTa, taKey.get(), taRsaPkcs1);
    EXPECT_EQ("", errors);
    ParsedHeader h = parse(text);
    EXPECT_EQ(taRsaPkcs1, h.algo);
    EXPECT_EQ(expectedHash(h, image), h.hash);
    EXPECT_TRUE(pkeyutlVerifies(h.hash, h.signature, taRsaPkcs1));
    EXPECT_FALSE(pkeyutlVerifies(h.hash, h.signature, taRsaPss));
}

TEST_F(TrustedApplication, TheUuidWithoutItsFourthHyphenIsReadTheSame)
{
    auto [text, errors] = headerOf(package, fourHyphenTa, taKey.get(), taRsaPss);
    EXPECT_EQ("", errors);
    ParsedHeader h = parse(text);
    EXPECT_EQ(expectedUuid, h.uuid);
    EXPECT_EQ(expectedHash(h, bytesOf("second")), h.hash);
    EXPECT_TRUE(pkeyutlVerifies(h.hash, h.signature, taRsaPss));
}

TEST_F(TrustedApplication, AnEmptyTrustedApplicationIsHashedOverTheFortyHeaderAndUuidBytes)
{
    auto [text, errors] = headerOf(package, emptyTa, taKey.get(), taRsaPss);
    EXPECT_EQ("", errors);
    ParsedHeader h = parse(text);
    EXPECT_EQ(0u, h.imgSize);
    Bytes uuid;
    for (int i = 1; i <= 16; ++i)
        uuid.push_back(static_cast<unsigned char>(i));
    EXPECT_EQ(uuid, h.uuid);
    Bytes forty(h.raw.begin(), h.raw.begin() + 20);
    forty.insert(forty.end(), h.raw.end() - 20, h.raw.end());
    ASSERT_EQ(40u, forty.size());
    EXPECT_EQ(sha256Of(forty), h.hash);
    EXPECT_TRUE(pkeyutlVerifies(h.hash, h.signature, taRsaPss));
}

TEST_F(TrustedApplication, ANameThatIsNoUuidFails)
{
    auto [text, errors] = headerOf(helloPackage, helloTa, taKey.get(), taRsaPss);
    EXPECT_EQ("", text);
    EXPECT_EQ("Bad UUID!\nFailed to get the UUID of TA.\n", errors);
}

TEST_F(TrustedApplication, AnEcKeyRefusesRsaPadding)
{
    PkeyPtr ec = generateEcKey();
    auto [text, errors] = headerOf(package, canonicalTa, ec.get(), taRsaPss);
    EXPECT_EQ("", text);
    EXPECT_EQ("Failed to set ctx parameters.\n", errors);
}

TEST_F(TrustedApplication, AnUnknownAlgorithmFails)
{
    auto [text, errors] = headerOf(package, canonicalTa, taKey.get(), 0x12345678);
    EXPECT_EQ("", text);
    EXPECT_EQ("Unknown signing algorithm.\n", errors);
}

TEST_F(TrustedApplication, NoKeyFailsToInitialise)
{
    auto [text, errors] = headerOf(package, canonicalTa, nullptr, taRsaPss);
    EXPECT_EQ("", text);
    EXPECT_EQ("Failed to initialize ctx\n", errors);
}

class TrustedApplicationSigning : public TrustedApplication {
protected:
    static void SetUpTestSuite()
    {
        TrustedApplication::SetUpTestSuite();
        pki = std::make_unique<Pki>();
        signer = std::make_unique<LoadedSigner>(loadSigner(pki->developer()));
    }
    static void TearDownTestSuite()
    {
        signer.reset();
        pki.reset();
        TrustedApplication::TearDownTestSuite();
    }
    static inline std::unique_ptr<Pki> pki;
    static inline std::unique_ptr<LoadedSigner> signer;
};

TEST_F(TrustedApplicationSigning, TrustedApplicationsGoToTheirOwnTableAndGetNoImaRecord)
{
    auto names = packageFileNames(package);
    auto signing = signPackage(readFile(package), signer->borrowed(), taKey.get(), taRsaPss);
    ASSERT_TRUE(signing.der) << signing.errors;
    EXPECT_EQ("", signing.errors);
    auto ta = tableOf(*signing.der, 1);
    auto ima = tableOf(*signing.der, 0);
    ASSERT_TRUE(ta && ima);
    std::map<std::string, Bytes> taByName, imaByName;
    for (auto const& entry : *ta)
        taByName[names.at(entry.index)] = entry.value;
    for (auto const& entry : *ima)
        imaByName[names.at(entry.index)] = entry.value;
    EXPECT_EQ(3u, taByName.size());
    for (auto const& ta : {canonicalTa, fourHyphenTa, emptyTa}) {
        ASSERT_TRUE(taByName.count(ta)) << ta;
        EXPECT_EQ(656u, taByName[ta].size());
        EXPECT_FALSE(imaByName.count(ta)) << ta;
    }
    ParsedHeader h = parse(std::string(taByName[canonicalTa].begin(), taByName[canonicalTa].end()));
    EXPECT_EQ(expectedHash(h, image), h.hash);
    EXPECT_TRUE(pkeyutlVerifies(h.hash, h.signature, taRsaPss));
    for (const char* other : {"/usr/lib/optee_armtz/sub/x.ta", "/usr/lib/optee_armtzx/a.ta",
                              "/usr/lib/optee_armtz/readme.txt"})
        EXPECT_TRUE(imaByName.count(other)) << other;
}

// Whether the IMA record signs, with the developer's key, the Streebog-256
// digest of content.
bool imaRecordSigns(Bytes const& record, Bytes const& content, std::string const& certPath)
{
    if (record.size() < 9 || record[0] != 3 || record[1] != 2 || record[2] != 18)
        return false;
    X509Ptr cert = loadCertificate(certPath);
    PkeyPtr key(X509_get_pubkey(cert.get()));
    const EVP_MD* md = EVP_get_digestbynid(982);
    Bytes digest(EVP_MAX_MD_SIZE);
    unsigned int length = 0;
    if (!md || !EVP_Digest(content.data(), content.size(), digest.data(), &length, md, nullptr))
        return false;
    std::unique_ptr<EVP_PKEY_CTX, decltype(&EVP_PKEY_CTX_free)> ctx(EVP_PKEY_CTX_new(key.get(), nullptr),
                                                                    &EVP_PKEY_CTX_free);
    return ctx && EVP_PKEY_verify_init(ctx.get()) == 1 && EVP_PKEY_CTX_set_signature_md(ctx.get(), md) == 1 &&
           EVP_PKEY_verify(ctx.get(), record.data() + 9, record.size() - 9, digest.data(), length) == 1;
}

// Names of one inode that are trusted applications each get a header made
// for the UUID of their own name, which OP-TEE checks; the names that are not
// get the IMA record of the shared content. Whichever name carries the
// content in the archive.
TEST_F(TrustedApplicationSigning, EachNameOfAHardLinkSetGetsItsOwnValue)
{
    const std::string firstTa = "/usr/lib/optee_armtz/11111111-2222-3333-4444-555555555555.ta";
    const std::string secondTa = "/usr/lib/optee_armtz/aaaaaaaa-bbbb-cccc-dddd-eeeeeeeeeeee.ta";
    const std::string taBeforePlain = "/usr/lib/optee_armtz/22222222-2222-2222-2222-222222222222.ta";
    const std::string plainAfterTa = "/usr/share/linked/after-image";
    const std::string plainBeforeTa = "/usr/lib/before/image";
    const std::string taAfterPlain = "/usr/lib/optee_armtz/33333333-3333-3333-3333-333333333333.ta";
    const Bytes shared = patternBytes(9000, 5), second = patternBytes(7000, 6), third = patternBytes(5000, 8);
    auto text = [](Bytes const& bytes) { return std::string(bytes.begin(), bytes.end()); };
    std::string linked = buildRpm(dir->path(), "linkedtas",
                                  {regularFile(firstTa, text(shared)), hardLink(secondTa, firstTa),
                                   regularFile(taBeforePlain, text(second)), hardLink(plainAfterTa, taBeforePlain),
                                   regularFile(plainBeforeTa, text(third)), hardLink(taAfterPlain, plainBeforeTa)});
    auto names = packageFileNames(linked);
    auto signing = signPackage(readFile(linked), signer->borrowed(), taKey.get(), taRsaPss);
    ASSERT_TRUE(signing.der) << signing.errors;
    EXPECT_EQ("", signing.errors);
    auto ta = tableOf(*signing.der, 1);
    auto ima = tableOf(*signing.der, 0);
    ASSERT_TRUE(ta && ima);
    std::map<std::string, Bytes> taByName, imaByName;
    for (auto const& entry : *ta)
        taByName[names.at(entry.index)] = entry.value;
    for (auto const& entry : *ima)
        imaByName[names.at(entry.index)] = entry.value;
    EXPECT_EQ(4u, taByName.size());
    EXPECT_EQ(2u, imaByName.size());

    struct Expected {
        std::string name;
        Bytes uuid;
        Bytes const* image;
    };
    for (auto const& [name, uuid, content] :
         {Expected{firstTa, Bytes{0x11, 0x11, 0x11, 0x11, 0x22, 0x22, 0x33, 0x33, 0x44, 0x44, 0x55, 0x55, 0x55, 0x55,
                                  0x55, 0x55},
                   &shared},
          Expected{secondTa, Bytes{0xaa, 0xaa, 0xaa, 0xaa, 0xbb, 0xbb, 0xcc, 0xcc, 0xdd, 0xdd, 0xee, 0xee, 0xee, 0xee,
                                   0xee, 0xee},
                   &shared},
          Expected{taBeforePlain, Bytes(16, 0x22), &second}, Expected{taAfterPlain, Bytes(16, 0x33), &third}}) {
        SCOPED_TRACE(name);
        ASSERT_TRUE(taByName.count(name));
        EXPECT_FALSE(imaByName.count(name));
        ParsedHeader h = parse(std::string(taByName[name].begin(), taByName[name].end()));
        EXPECT_EQ(0x4F545348u, h.magic);
        EXPECT_EQ(content->size(), h.imgSize);
        EXPECT_EQ(uuid, h.uuid);
        EXPECT_EQ(expectedHash(h, *content), h.hash);
        EXPECT_TRUE(pkeyutlVerifies(h.hash, h.signature, taRsaPss));
    }
    for (auto const& [name, content] : {std::pair{plainAfterTa, &second}, std::pair{plainBeforeTa, &third}}) {
        SCOPED_TRACE(name);
        ASSERT_TRUE(imaByName.count(name));
        EXPECT_FALSE(taByName.count(name));
        EXPECT_TRUE(imaRecordSigns(imaByName[name], *content, pki->developer().certPath));
    }
}

TEST_F(TrustedApplicationSigning, TrustedApplicationsWithoutATaKeyFailTheSignature)
{
    // The payload is in name order: the first trusted application met is the
    // empty one.
    auto signing = signPackage(readFile(package), signer->borrowed(), nullptr, taRsaPss);
    EXPECT_FALSE(signing.der);
    EXPECT_EQ("TA key is absent yet there are TAs in RPM!\n"
              "Could not sign file from rpm: " + emptyTa + "\n"
              "Could not sign files in package\n",
              signing.errors);
}

TEST_F(TrustedApplicationSigning, ATrustedApplicationWithABadNameFailsTheSignature)
{
    auto signing = signPackage(readFile(helloPackage), signer->borrowed(), taKey.get(), taRsaPss);
    EXPECT_FALSE(signing.der);
    EXPECT_EQ("Bad UUID!\nFailed to get the UUID of TA.\n"
              "Could not sign file from rpm: " + helloTa + "\n"
              "Could not sign files in package\n",
              signing.errors);
}

}  // namespace
}  // namespace sealkeep::test
