// sealkeep prepare, sign-request and attach: a package prepared on one
// machine (a directory), its request signed on another that has the key and
// never the package, and the signature attached back, gives what signing in
// place gives; every refusal names its reason and leaves the package byte for
// byte as it was.
#include <sys/stat.h>
#include <sys/xattr.h>
#include <unistd.h>

#include <algorithm>
#include <set>
#include <string>
#include <vector>

#include <openssl/cms.h>
#include <openssl/sha.h>
#include <openssl/x509.h>

#include <gtest/gtest.h>

#include <sealkeep/file_with_cmses.hpp>

#include "signing_request.hpp"
#include "support/cli_test.hpp"
#include "support/payload_signatures.hpp"
#include "support/pki.hpp"

namespace sealkeep::test {
namespace {

using sealkeep::cli::SigningRequest;

const std::string taName = "/usr/lib/optee_armtz/8aaaf200-2450-11e4-abe2-0002a5d5c51b.ta";
const std::string linkedTaName = "/usr/lib/optee_armtz/11111111-2222-3333-4444-555555555555.ta";

// A package with what per-file signing has to get right: plain files, an
// empty one, a hard-link set, a trusted application, a hard-link set with a
// trusted-application name, a symbolic link and a directory.
std::vector<PayloadEntry> richPayload()
{
    return {regularFile("/usr/share/demo/readme.txt", "hello\n"),
            regularFile("/usr/share/demo/empty", ""),
            regularFile("/usr/share/demo/data.bin", std::string(100000, 'x')),
            hardLink("/usr/share/demo/data-again.bin", "/usr/share/demo/data.bin"),
            regularFile(taName, std::string(3000, 't')),
            regularFile("/usr/share/demo/ta-image", std::string(500, 'i')),
            hardLink(linkedTaName, "/usr/share/demo/ta-image"),
            symbolicLink("/usr/share/demo/link", "readme.txt"),
            directory("/usr/share/demo/sub")};
}

// The OIDs of a CMS's signed attributes, sorted.
std::vector<std::string> signedAttributeTypes(Bytes const& der)
{
    const unsigned char* in = der.data();
    CMS_ContentInfo* cms = d2i_CMS_ContentInfo(nullptr, &in, static_cast<long>(der.size()));
    std::vector<std::string> types;
    if (!cms)
        return types;
    CMS_SignerInfo* signer = sk_CMS_SignerInfo_value(CMS_get0_SignerInfos(cms), 0);
    for (int i = 0; i < CMS_signed_get_attr_count(signer); ++i) {
        char text[128];
        OBJ_obj2txt(text, sizeof text, X509_ATTRIBUTE_get0_object(CMS_signed_get_attr(signer, i)), 1);
        types.push_back(text);
    }
    CMS_ContentInfo_free(cms);
    std::sort(types.begin(), types.end());
    return types;
}

class CliDetachedSigning : public CliTest {
protected:
    static void SetUpTestSuite()
    {
        CliTest::SetUpTestSuite();
        richRpms.clear();
        for (std::string compressor : {"gzip", "zstd", "xz", "bzip2"})
            richRpms.push_back(buildRpm(rpmDir->path(), "rich-" + compressor, richPayload(), compressor));
        otherRpm = buildRpm(rpmDir->path(), "other", {regularFile("/usr/share/other/a.txt", "another package\n")});
        runShell("openssl genpkey -algorithm RSA -pkeyopt rsa_keygen_bits:2048 -out " +
                 shellQuoted(rpmDir->file("ta.key")) + " 2>/dev/null && openssl pkey -in " +
                 shellQuoted(rpmDir->file("ta.key")) + " -pubout -out " + shellQuoted(rpmDir->file("ta.pub")));
    }

    void SetUp() override
    {
        buildHost = work.file("build-host");
        keyHost = work.file("key-host");
        mkdir(buildHost.c_str(), 0700);
        mkdir(keyHost.c_str(), 0700);
    }

    // The package at template copied into the build host's directory.
    std::string packageFrom(std::string const& rpm, std::string const& name) const
    {
        std::string path = buildHost + "/" + name;
        writeFile(path, readFile(rpm));
        return path;
    }

    static std::vector<std::string> taOptions(bool prepare)
    {
        if (prepare)
            return {"--ta-public-key", rpmDir->file("ta.pub"), "--ta-algorithm", "pkcs1"};
        return {"--ta-key", rpmDir->file("ta.key"), "--ta-algorithm", "pkcs1"};
    }

    // prepare on the build host, sign-request on the key host (the request
    // moved there, the signature moved back), attach on the build host.
    // Returns the attach result; the others must succeed.
    CommandResult signDetached(Identity const& who, std::string const& package, std::vector<std::string> prepareExtra = {},
                               std::vector<std::string> signExtra = {})
    {
        std::vector<std::string> prepare{"prepare", package, "--cert", who.certPath, "-o", buildHost + "/out.request"};
        prepare.insert(prepare.end(), prepareExtra.begin(), prepareExtra.end());
        auto prepared = run(prepare);
        EXPECT_EQ(prepared.exitCode, 0) << prepared.errors;
        EXPECT_EQ(rename((buildHost + "/out.request").c_str(), (keyHost + "/out.request").c_str()), 0);
        std::vector<std::string> sign{"sign-request", keyHost + "/out.request", "--cert", who.certPath,
                                      "--key",        who.keyPath,              "-o",     keyHost + "/out.signature"};
        sign.insert(sign.end(), signExtra.begin(), signExtra.end());
        auto signedRequest = run(sign);
        EXPECT_EQ(signedRequest.exitCode, 0) << signedRequest.errors;
        EXPECT_EQ(signedRequest.output, keyHost + "/out.signature: signature for " + keyHost + "/out.request\n");
        EXPECT_EQ(rename((keyHost + "/out.signature").c_str(), (buildHost + "/out.signature").c_str()), 0);
        return run({"attach", package, buildHost + "/out.signature"});
    }

    static std::vector<PackageSignatures::Cms> cmsesOf(std::string const& package)
    {
        return PackageSignatures::FileWithCmses::fromPath(package.c_str(), "r")->cmses();
    }

    // What the same package signed both ways must share: the same blocks at
    // the same places, the same signed attributes, the same file indexes and
    // record heads in both tables; trusted-application headers signed with
    // PKCS#1 v1.5 are deterministic, so equal byte for byte.
    void expectSameAsInPlace(std::string const& detached, std::string const& inPlace)
    {
        auto a = PackageSignatures::FileWithCmses::fromPath(detached.c_str(), "r")->blockLocations();
        auto b = PackageSignatures::FileWithCmses::fromPath(inPlace.c_str(), "r")->blockLocations();
        ASSERT_EQ(a.size(), b.size());
        auto cmsesA = cmsesOf(detached), cmsesB = cmsesOf(inPlace);
        for (std::size_t i = 0; i < a.size(); ++i) {
            SCOPED_TRACE("block " + std::to_string(i));
            EXPECT_EQ(a[i].version, b[i].version);
            EXPECT_EQ(a[i].coveredBegin, b[i].coveredBegin);
            Bytes derA = cmsesA[i].data(), derB = cmsesB[i].data();
            EXPECT_EQ(signedAttributeTypes(derA), signedAttributeTypes(derB));
            for (int which : {0, 1}) {
                auto tableA = tableOf(derA, which), tableB = tableOf(derB, which);
                ASSERT_EQ(tableA.has_value(), tableB.has_value());
                if (!tableA)
                    continue;
                EXPECT_EQ(tableVersion(derA, which), tableVersion(derB, which));
                ASSERT_EQ(tableA->size(), tableB->size());
                for (std::size_t e = 0; e < tableA->size(); ++e) {
                    EXPECT_EQ((*tableA)[e].index, (*tableB)[e].index);
                    if (which == 1) {
                        EXPECT_EQ((*tableA)[e].value, (*tableB)[e].value);
                    } else {
                        ASSERT_EQ((*tableA)[e].value.size(), (*tableB)[e].value.size());
                        EXPECT_TRUE(std::equal((*tableA)[e].value.begin(), (*tableA)[e].value.begin() + 9,
                                               (*tableB)[e].value.begin()));
                    }
                }
            }
        }
    }

    // openssl cms -verify over each block's covered range.
    void expectOpensslVerifies(std::string const& package)
    {
        Bytes bytes = readFile(package);
        auto blocks = PackageSignatures::FileWithCmses::fromPath(package.c_str(), "r")->blockLocations();
        for (std::size_t i = 0; i < blocks.size(); ++i) {
            writeFile(work.file("covered.bin"),
                      Bytes(bytes.begin() + blocks[i].coveredBegin, bytes.begin() + blocks[i].coveredEnd));
            writeFile(work.file("sig.der"), Bytes(bytes.begin() + blocks[i].begin, bytes.begin() + blocks[i].end));
            auto peer = runShell("cd " + shellQuoted(work.path()) +
                                 " && openssl cms -verify -engine gost -binary -inform DER -in sig.der"
                                 " -content covered.bin -CAfile " + shellQuoted(pki->ca().certPath) +
                                 " -out /dev/null");
            EXPECT_EQ(peer.exitCode, 0) << "block " << i << ": " << peer.errors;
        }
    }

    void expectVerifies(std::string const& package)
    {
        auto verified = run({"verify", package, "--ca", pki->ca().certPath});
        EXPECT_EQ(verified.exitCode, 0) << verified.errors << verified.output;
    }

    // A prepared and signed developer signature for package, not attached.
    std::string developerSignatureFor(std::string const& package, std::string const& name = "dev")
    {
        std::string request = keyHost + "/" + name + ".request";
        std::string signature = keyHost + "/" + name + ".signature";
        auto prepared = run({"prepare", package, "--cert", pki->developer().certPath, "-o", request});
        EXPECT_EQ(prepared.exitCode, 0) << prepared.errors;
        auto made = run({"sign-request", request, "--cert", pki->developer().certPath, "--key",
                         pki->developer().keyPath, "-o", signature});
        EXPECT_EQ(made.exitCode, 0) << made.errors;
        return signature;
    }

    // attach refuses with exactly message and leaves package as it was.
    void expectAttachRefused(std::string const& package, std::string const& signature, std::string const& message)
    {
        Bytes before = readFile(package);
        auto attached = run({"attach", package, signature});
        EXPECT_EQ(attached.exitCode, 1);
        EXPECT_EQ(attached.errors, message);
        EXPECT_EQ(attached.output, "");
        EXPECT_EQ(readFile(package), before);
    }

    static inline std::vector<std::string> richRpms;
    static inline std::string otherRpm;
    std::string buildHost, keyHost;
};

TEST_F(CliDetachedSigning, EveryCompressorGivesWhatSigningInPlaceGives)
{
    for (std::size_t i = 0; i < richRpms.size(); ++i) {
        SCOPED_TRACE(richRpms[i]);
        std::string detached = packageFrom(richRpms[i], "detached-" + std::to_string(i) + ".rpm");
        std::string inPlace = packageFrom(richRpms[i], "in-place-" + std::to_string(i) + ".rpm");
        auto attached = signDetached(pki->developer(), detached, taOptions(true), taOptions(false));
        ASSERT_EQ(attached.exitCode, 0) << attached.errors;
        EXPECT_EQ(attached.output, detached + ": signature attached (1 signature)\n");
        auto signedInPlace = signAs(pki->developer(), inPlace, taOptions(false));
        ASSERT_EQ(signedInPlace.exitCode, 0) << signedInPlace.errors;
        expectSameAsInPlace(detached, inPlace);
        expectVerifies(detached);
        expectOpensslVerifies(detached);
    }
}

TEST_F(CliDetachedSigning, ImaApplyAndEvmctlAcceptTheAttachedRecords)
{
    std::string package = packageFrom(richRpms[1], "package.rpm");
    ASSERT_EQ(signDetached(pki->developer(), package, taOptions(true), taOptions(false)).exitCode, 0);
    std::string root = work.file("root");
    unpackPayload(package, root);
    auto applied = run({"ima", "apply", package, "--root", root, "--ca", pki->ca().certPath, "--xattr-user"});
    ASSERT_EQ(applied.exitCode, 0) << applied.errors;
    EXPECT_EQ(applied.errors, "");
    // evmctl finds the key by its own key id: the last four bytes of SHA-1
    // over the public key's bits, written over the record's.
    X509Ptr cert = loadCertificate(pki->developer().certPath);
    ASN1_BIT_STRING* bits = X509_get0_pubkey_bitstr(cert.get());
    unsigned char sha1[SHA_DIGEST_LENGTH];
    SHA1(ASN1_STRING_get0_data(bits), static_cast<std::size_t>(ASN1_STRING_length(bits)), sha1);
    std::string der = work.file("developer.der");
    runCommand({"openssl", "x509", "-in", pki->developer().certPath, "-outform", "DER", "-out", der});
    auto names = packageFileNames(package);
    auto cms = cmsesOf(package).at(0);
    int checked = 0;
    for (std::size_t index = 0; index < names.size(); ++index) {
        Bytes record = cms.fileSignature(static_cast<int>(index));
        if (record.empty())
            continue;
        SCOPED_TRACE(names[index]);
        std::copy(sha1 + SHA_DIGEST_LENGTH - 4, sha1 + SHA_DIGEST_LENGTH, record.begin() + 3);
        std::string path = root + names[index];
        ASSERT_EQ(setxattr(path.c_str(), "user.ima", record.data(), record.size(), 0), 0);
        EXPECT_EQ(runCommand({"evmctl", "--engine", "gost", "ima_verify", "--xattr-user", "--key", der, path}).exitCode,
                  0);
        ++checked;
    }
    EXPECT_EQ(checked, 5);  // readme, empty, data and its link, the TA image's other name
}

TEST_F(CliDetachedSigning, MixedStacksVerify)
{
    std::string package = packageFrom(rpmTemplate, "mixed.rpm");
    auto developer = signDetached(pki->developer(), package);
    ASSERT_EQ(developer.exitCode, 0) << developer.errors;
    ASSERT_EQ(signAs(pki->seclab(), package).exitCode, 0);
    auto client = signDetached(pki->client(), package);
    ASSERT_EQ(client.exitCode, 0) << client.errors;
    EXPECT_EQ(client.output, package + ": signature attached (3 signatures)\n");
    expectVerifies(package);
    expectOpensslVerifies(package);

    std::string other = packageFrom(rpmTemplate, "mixed-other.rpm");
    ASSERT_EQ(signAs(pki->developer(), other).exitCode, 0);
    ASSERT_EQ(signDetached(pki->seclab(), other, {"--format", "2"}).exitCode, 0);
    ASSERT_EQ(signAs(pki->client(), other).exitCode, 0);
    expectVerifies(other);
    auto blocks = PackageSignatures::FileWithCmses::fromPath(other.c_str(), "r")->blockLocations();
    ASSERT_EQ(blocks.size(), 3u);
    EXPECT_EQ(blocks[1].version, 2u);
}

TEST_F(CliDetachedSigning, ReplacementIsPlannedAsSignDoesIt)
{
    std::string package = packageFrom(rpmTemplate, "replaced.rpm");
    for (Identity const* who : {&pki->developer(), &pki->seclab(), &pki->client()})
        ASSERT_EQ(signAs(*who, package).exitCode, 0);
    auto client = signDetached(pki->client(), package, {"--replace"});
    ASSERT_EQ(client.exitCode, 0) << client.errors;
    EXPECT_EQ(client.output, package + ": signature attached (3 signatures)\n");
    expectVerifies(package);
    auto developer = signDetached(pki->developer(), package, {"--replace"});
    ASSERT_EQ(developer.exitCode, 0) << developer.errors;
    EXPECT_EQ(developer.output, package + ": signature attached (1 signature)\n");
    EXPECT_EQ(cmsesOf(package).size(), 1u);
    expectVerifies(package);
    Bytes bytes = readFile(package), bare = readFile(rpmTemplate);
    EXPECT_TRUE(std::equal(bare.begin(), bare.end(), bytes.begin()));
}

TEST_F(CliDetachedSigning, AttachRefusesASignatureForAnotherPackage)
{
    std::string package = packageFrom(rpmTemplate, "package.rpm");
    std::string other = packageFrom(otherRpm, "other.rpm");
    std::string signature = developerSignatureFor(other);
    expectAttachRefused(package, signature,
                        "sealkeep: " + package +
                            ": not attached: the signature was prepared for another package, or for this one "
                            "before it changed (" +
                            std::to_string(fileSize(other)) + " bytes then, " + std::to_string(fileSize(package)) +
                            " now)\n");
}

TEST_F(CliDetachedSigning, AttachRefusesASignatureForTheStackBeforeAnotherSignature)
{
    std::string package = packageFrom(rpmTemplate, "package.rpm");
    ASSERT_EQ(signAs(pki->developer(), package).exitCode, 0);
    std::string request = keyHost + "/client.request", signature = keyHost + "/client.signature";
    ASSERT_EQ(run({"prepare", package, "--cert", pki->client().certPath, "-o", request}).exitCode, 0);
    ASSERT_EQ(run({"sign-request", request, "--cert", pki->client().certPath, "--key", pki->client().keyPath, "-o",
                   signature})
                  .exitCode,
              0);
    ASSERT_EQ(signAs(pki->seclab(), package).exitCode, 0);
    expectAttachRefused(package, signature,
                        "sealkeep: " + package +
                            ": not attached: the signature was made for position 2 of the signature stack, which "
                            "the package no longer offers it (signatures now: 2)\n");
}

TEST_F(CliDetachedSigning, AttachRefusesAPositionTheStackNoLongerHas)
{
    std::string package = packageFrom(rpmTemplate, "package.rpm");
    std::string signature = developerSignatureFor(package);
    ASSERT_EQ(signAs(pki->developer(), package).exitCode, 0);
    expectAttachRefused(package, signature,
                        "sealkeep: " + package +
                            ": not attached: the signature was made for position 1 of the signature stack, which "
                            "the package no longer offers it (signatures now: 1)\n");
}

TEST_F(CliDetachedSigning, AttachRefusesARangeChangedByOneByte)
{
    std::string package = packageFrom(rpmTemplate, "package.rpm");
    std::string signature = developerSignatureFor(package);
    Bytes bytes = readFile(package);
    bytes[bytes.size() / 2] ^= 0x01;
    writeFile(package, bytes);
    expectAttachRefused(package, signature,
                        "sealkeep: " + package + ": not attached: the covered bytes [0, " +
                            std::to_string(bytes.size()) + ") are not those the signature signs\n");
}

TEST_F(CliDetachedSigning, AttachRefusesTruncatedAndHostileSignatureFiles)
{
    std::string package = packageFrom(rpmTemplate, "package.rpm");
    std::string signature = developerSignatureFor(package);
    Bytes whole = readFile(signature);

    std::string truncated = work.file("truncated.signature");
    writeFile(truncated, Bytes(whole.begin(), whole.begin() + static_cast<long>(whole.size() / 2)));
    expectAttachRefused(package, truncated,
                        "sealkeep: " + truncated + ": not a signature file: truncated or malformed at byte 0\n");

    // A length that claims four gigabytes.
    std::string hostile = work.file("hostile.signature");
    writeFile(hostile, Bytes{0x30, 0x84, 0xFF, 0xFF, 0xFF, 0xFF, 0x0C, 0x00});
    expectAttachRefused(package, hostile,
                        "sealkeep: " + hostile + ": not a signature file: truncated or malformed at byte 0\n");

    // The envelope intact, the CMS inside it damaged in its last byte (the
    // signature value).
    std::string why;
    auto parsed = cli::decodeSignatureFile(whole, why);
    ASSERT_TRUE(parsed) << why;
    parsed->cms.back() ^= 0x01;
    std::string damaged = work.file("damaged.signature");
    writeFile(damaged, cli::encodeSignatureFile(*parsed));
    expectAttachRefused(package, damaged,
                        "sealkeep: " + package +
                            ": not attached: the signature file holds no CMS signature that verifies\n");

    // A CMS that verifies, but for another plan.
    std::string otherPackage = packageFrom(otherRpm, "other.rpm");
    auto otherSignature = cli::decodeSignatureFile(readFile(developerSignatureFor(otherPackage, "other")), why);
    ASSERT_TRUE(otherSignature) << why;
    parsed = cli::decodeSignatureFile(whole, why);
    parsed->cms = otherSignature->cms;
    std::string swapped = work.file("swapped.signature");
    writeFile(swapped, cli::encodeSignatureFile(*parsed));
    expectAttachRefused(package, swapped,
                        "sealkeep: " + package +
                            ": not attached: the CMS in the signature file does not sign the digest its request "
                            "gave\n");

    // Larger than any signature file, read no further than the limit.
    std::string huge = work.file("huge.signature");
    ASSERT_EQ(truncate((writeFile(huge, {}), huge).c_str(), 64l * 1024 * 1024), 0);
    expectAttachRefused(package, huge,
                        "sealkeep: " + huge + ": larger than the limit of " +
                            std::to_string(cli::maxSignatureFileSize) + " bytes\n");

    // A request is no signature file.
    auto prepared = run({"prepare", package, "--cert", pki->developer().certPath, "-o", work.file("r.request")});
    ASSERT_EQ(prepared.exitCode, 0);
    expectAttachRefused(package, work.file("r.request"),
                        "sealkeep: " + work.file("r.request") + ": not a signature file\n");
    // And after all that, the real one attaches.
    auto attached = run({"attach", package, signature});
    EXPECT_EQ(attached.exitCode, 0) << attached.errors;
    expectVerifies(package);
}

class CliSignRequestRefusals : public CliDetachedSigning {
protected:
    void SetUp() override
    {
        CliDetachedSigning::SetUp();
        package = packageFrom(rpmTemplate, "package.rpm");
        request = keyHost + "/package.request";
        auto prepared = run({"prepare", package, "--cert", pki->developer().certPath, "-o", request});
        ASSERT_EQ(prepared.exitCode, 0) << prepared.errors;
        std::string why;
        auto decoded = cli::decodeRequest(readFile(request), why);
        ASSERT_TRUE(decoded) << why;
        valid = *decoded;
    }

    // sign-request of the request at path refused, within seconds, with
    // exactly reason; no signature written.
    void expectRefused(std::string const& path, std::string const& reason)
    {
        std::string signature = keyHost + "/out.signature";
        auto result = runSealkeepWithin(20, work.path(),
                                        {"sign-request", path, "--cert", pki->developer().certPath, "--key",
                                         pki->developer().keyPath, "-o", signature});
        EXPECT_EQ(result.exitCode, 1);
        EXPECT_EQ(result.errors, "sealkeep: " + path + ": not signed: " + reason + "\n");
        EXPECT_FALSE(fileExists(signature));
    }

    std::string withRequest(SigningRequest const& changed, std::string const& name)
    {
        std::string path = keyHost + "/" + name;
        writeFile(path, cli::encodeRequest(changed));
        return path;
    }

    std::string package, request;
    SigningRequest valid;
};

TEST_F(CliSignRequestRefusals, TruncatedOversizedAndMalformedRequests)
{
    Bytes whole = readFile(request);
    std::string truncated = keyHost + "/truncated.request";
    writeFile(truncated, Bytes(whole.begin(), whole.end() - 1));
    expectRefused(truncated, "not a signing request: truncated or malformed at byte 0");

    std::string huge = keyHost + "/huge.request";
    writeFile(huge, {});
    ASSERT_EQ(truncate(huge.c_str(), 1l << 40), 0);  // sparse: nothing is read
    expectRefused(huge, "larger than the limit of " + std::to_string(cli::maxRequestSize) + " bytes");

    std::string empty = keyHost + "/empty.request";
    writeFile(empty, {});
    expectRefused(empty, "not a signing request: truncated or malformed at byte 0");

    // A files list that claims more bytes than there are.
    Bytes lying = whole;
    lying.insert(lying.end(), {0x30, 0x84, 0x7F, 0xFF, 0xFF, 0xFF});
    std::string trailing = keyHost + "/trailing.request";
    writeFile(trailing, lying);
    expectRefused(trailing, "not a signing request: truncated or malformed at byte " + std::to_string(whole.size()));

    SigningRequest newer = valid;
    std::string path = withRequest(newer, "version.request");
    Bytes versioned = readFile(path);
    // The version INTEGER follows the kind: 0x02 0x01 0x01.
    const unsigned char version1[] = {0x02, 0x01, 0x01};
    auto at = std::search(versioned.begin(), versioned.end(), std::begin(version1), std::end(version1));
    ASSERT_NE(at, versioned.end());
    *(at + 2) = 2;
    writeFile(path, versioned);
    expectRefused(path, "signing request of format version 2; this sealkeep reads version 1");
}

TEST_F(CliSignRequestRefusals, InconsistentRequests)
{
    SigningRequest request = valid;
    request.plan.coveredEnd = request.plan.fileSize + 1;
    expectRefused(withRequest(request, "range.request"),
                  "inconsistent signing request: covered range [0, " + std::to_string(request.plan.coveredEnd) +
                      ") of a " + std::to_string(request.plan.fileSize) + "-byte package at position 0");

    request = valid;
    request.plan.coveredDigest.pop_back();
    expectRefused(withRequest(request, "digest.request"), "inconsistent signing request: a digest is not 32 bytes long");

    request = valid;
    ASSERT_GE(request.plan.files.size(), 2u);
    request.plan.files[1].indexes.push_back(request.plan.files[0].indexes[0]);
    expectRefused(withRequest(request, "repeated.request"),
                  "inconsistent signing request: file index " + std::to_string(request.plan.files[0].indexes[0]) +
                      " occurs more than once");

    request = valid;
    request.plan.fileSignatures = false;
    expectRefused(withRequest(request, "files.request"),
                  "inconsistent signing request: file digests without file signatures");

    request = valid;
    request.plan.files.resize(cli::maxRequestFiles + 1, request.plan.files[0]);
    for (std::size_t i = 0; i < request.plan.files.size(); ++i)
        request.plan.files[i].indexes = {static_cast<std::int32_t>(i)};
    expectRefused(withRequest(request, "many.request"),
                  "signing request of more than " + std::to_string(cli::maxRequestFiles) + " payload files");

    request = valid;
    request.plan.trustedApplications.push_back({});
    expectRefused(withRequest(request, "ta.request"),
                  "inconsistent signing request: trusted applications without a TA signing scheme");

    // Made for another signer.
    auto result = run({"sign-request", this->request, "--cert", pki->client().certPath, "--key",
                       pki->client().keyPath, "-o", keyHost + "/x.signature"});
    EXPECT_EQ(result.exitCode, 1);
    EXPECT_NE(result.errors.find(": not signed: it was prepared for another certificate (key id "),
              std::string::npos)
        << result.errors;
}

TEST_F(CliSignRequestRefusals, ManyRequestsAtOnceGoToADirectory)
{
    std::vector<std::string> args{"sign-request"};
    for (int i = 0; i < 4; ++i) {
        std::string copy = packageFrom(rpmTemplate, "copy" + std::to_string(i) + ".rpm");
        std::string path = keyHost + "/copy" + std::to_string(i) + ".rpm.request";
        ASSERT_EQ(run({"prepare", copy, "--cert", pki->developer().certPath, "-o", path}).exitCode, 0);
        args.push_back(path);
    }
    std::string out = work.file("signatures");
    mkdir(out.c_str(), 0700);
    for (std::string const& extra : std::vector<std::string>{"--cert", pki->developer().certPath, "--key",
                                                              pki->developer().keyPath, "-o", out, "--jobs", "3"})
        args.push_back(extra);
    auto result = run(args);
    ASSERT_EQ(result.exitCode, 0) << result.errors;
    for (int i = 0; i < 4; ++i) {
        std::string copy = buildHost + "/copy" + std::to_string(i) + ".rpm";
        auto attached = run({"attach", copy, out + "/copy" + std::to_string(i) + ".rpm.signature"});
        EXPECT_EQ(attached.exitCode, 0) << attached.errors;
        expectVerifies(copy);
    }
    // Several requests need a directory.
    args.back() = "1";
    args[args.size() - 3] = work.file("not-a-directory");
    auto refused = run(args);
    EXPECT_EQ(refused.exitCode, 2);
    EXPECT_EQ(refused.errors, "sealkeep: " + work.file("not-a-directory") +
                                  ": not a directory; with several requests, -o names the directory for their "
                                  "signatures\n");
}

TEST_F(CliDetachedSigning, TenThousandFiles)
{
    std::vector<PayloadEntry> entries;
    for (int i = 0; i < 10000; ++i)
        entries.push_back(regularFile("/usr/share/many/f" + std::to_string(i), "content " + std::to_string(i)));
    std::string rpm = buildRpm(work.path(), "many", entries);
    std::string detached = packageFrom(rpm, "many-detached.rpm");
    std::string inPlace = packageFrom(rpm, "many-in-place.rpm");
    auto attached = signDetached(pki->developer(), detached);
    ASSERT_EQ(attached.exitCode, 0) << attached.errors;
    ASSERT_EQ(signAs(pki->developer(), inPlace).exitCode, 0);
    expectSameAsInPlace(detached, inPlace);
    expectVerifies(detached);
}

}  // namespace
}  // namespace sealkeep::test
