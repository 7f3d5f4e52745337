// Signed files crafted to cost the verifying device as much as possible:
// headers claiming gigabytes, millions of empty blocks, huge packages that
// cost their sender nothing (sparse files), endless rotation chains and
// signatures with two signers. Each must be answered within a bound that does
// not depend on what the sender wrote.
//
// Cost is measured in a child process: how far its peak resident memory rose
// above what was resident before the operation (so that a sanitizer's own
// memory does not count), and whether it needed a temporary file (writing
// files is limited in the child). The time bounds are generous guards against
// regressions of tens of seconds, not speed targets.
#include <gtest/gtest.h>

#include <chrono>
#include <csignal>
#include <cstdio>
#include <cstring>
#include <string>
#include <type_traits>

#include <fcntl.h>
#include <sys/stat.h>
#include <sys/resource.h>
#include <unistd.h>

#include <openssl/pem.h>

#include <sealkeep/sealkeep.hpp>

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

constexpr long long gib = 1024LL * 1024 * 1024;
constexpr long long mib = 1024LL * 1024;
constexpr long peakLimitKib = 64 * 1024;
constexpr int quickMs = 5000;

// A file of size bytes that are holes, followed by tail: it costs no disk.
void writeSparseFile(std::string const& path, long long size, Bytes const& tail)
{
    int fd = ::open(path.c_str(), O_RDWR | O_CREAT | O_TRUNC, 0644);
    ASSERT_GE(fd, 0);
    ASSERT_EQ(0, ftruncate(fd, static_cast<off_t>(size)));
    ASSERT_EQ(static_cast<ssize_t>(tail.size()), pwrite(fd, tail.data(), tail.size(), static_cast<off_t>(size)));
    close(fd);
}

struct Cost {
    bool finished = false;    // within the time bound
    bool result = false;      // what the operation returned
    long peakKib = -1;        // rise of the peak resident memory during it
    long elapsedMs = -1;      // how long it took, in the child
    std::string errors;       // its standard error, without the measurement
};

// Runs operation in a child whose peak resident memory is reset first and
// which may write no file larger than a megabyte (a temporary copy of a
// package would fail to be written and say so), timing the operation itself.
Cost costOf(std::function<bool()> const& operation, int timeoutMs = quickMs)
{
    ChildResult child = runInChild(
        [&] {
            std::signal(SIGXFSZ, SIG_IGN);
            struct rlimit small{1 << 20, 1 << 20};
            setrlimit(RLIMIT_FSIZE, &small);
            resetPeakResident();
            long before = residentKib();
            auto start = std::chrono::steady_clock::now();
            bool result = operation();
            auto took = std::chrono::steady_clock::now() - start;
            fprintf(stderr, "\npeak %ld elapsed %ld\n", peakResidentKib() - before,
                    static_cast<long>(std::chrono::duration_cast<std::chrono::milliseconds>(took).count()));
            return result ? 0 : 1;
        },
        timeoutMs);
    Cost cost;
    cost.finished = !child.timedOut;
    cost.result = child.exitCode == 0;
    auto mark = child.errors.rfind("\npeak ");
    if (mark != std::string::npos) {
        std::sscanf(child.errors.c_str() + mark, "\npeak %ld elapsed %ld", &cost.peakKib, &cost.elapsedMs);
        cost.errors = child.errors.substr(0, mark);
    }
    return cost;
}

void expectBounded(Cost const& cost)
{
    EXPECT_TRUE(cost.finished);
    EXPECT_GE(cost.peakKib, 0);
    EXPECT_LT(cost.peakKib, peakLimitKib);
    EXPECT_EQ(std::string::npos, cost.errors.find("temporary file")) << cost.errors;
}

// Bounded and answered well under a second: the answer does not depend on
// what the file claims.
void expectQuick(Cost const& cost)
{
    expectBounded(cost);
    EXPECT_GE(cost.elapsedMs, 0);
    EXPECT_LT(cost.elapsedMs, 1000);
}

class HostileFiles : public SharedPkiTest {
protected:
    bool verify() { return verifyFile(path, pki->ca().certPath); }

    std::size_t blockCount()
    {
        return FileWithCmses::fromPath(path.c_str(), "r")->cmses().size();
    }

    TempDir dir;
    std::string path = dir.file("hostile.bin");
};

// 12 bytes at the end of a 3 GiB hole claim that everything before them is one
// CMS. The claim is beyond the largest CMS a block may hold, so the scan ends
// there as for a header longer than the file.
TEST_F(HostileFiles, ALegacyHeaderClaimingGigabytesIsNoBlock)
{
    writeSparseFile(path, 3 * gib, makeHeader(1, 3 * gib));
    Cost listing = costOf([&] {
        auto file = FileWithCmses::fromPath(path.c_str(), "r");
        auto cmses = file->cmses();
        return cmses.empty() && Certificate::allFromFilePath(path.c_str()).empty();
    });
    expectQuick(listing);
    EXPECT_TRUE(listing.result);

    Cost verification = costOf([&] { return verify(); });
    expectQuick(verification);
    EXPECT_FALSE(verification.result);
    EXPECT_EQ("", verification.errors);
}

TEST_F(HostileFiles, ABlockOfExactlyTheLargestLengthIsListedAndOneMoreIsNot)
{
    const long long largest = 32 * mib;
    writeSparseFile(path, largest, makeHeader(2, static_cast<std::uint64_t>(largest)));
    EXPECT_EQ(1u, blockCount());
    writeSparseFile(path, largest + 1, makeHeader(2, static_cast<std::uint64_t>(largest + 1)));
    EXPECT_EQ(0u, blockCount());
}

// Twelve megabytes of empty version-2 headers would be a million blocks: the
// scan stops after four, the most that signing and verification need.
TEST_F(HostileFiles, AMillionEmptyHeadersAreFourBlocks)
{
    Bytes headers;
    Bytes header = makeHeader(2, 0);
    headers.reserve(header.size() * 1000000);
    for (int i = 0; i < 1000000; ++i)
        headers.insert(headers.end(), header.begin(), header.end());
    writeFile(path, concat({patternBytes(100), headers}));

    Cost listing = costOf([&] { return FileWithCmses::fromPath(path.c_str(), "r")->cmses().size() == 4; });
    expectQuick(listing);
    EXPECT_TRUE(listing.result);

    Cost verification = costOf([&] { return verify(); });
    expectQuick(verification);
    EXPECT_FALSE(verification.result);
    EXPECT_EQ("", verification.errors);  // too many blocks: refused before any is parsed

    // Removing every signature removes all million, header by header, without
    // holding them.
    Cost removal = costOf([&] {
        auto file = FileWithCmses::fromPath(path);
        return file->deleteCmses(false) && file->cmses().empty();
    });
    expectBounded(removal);
    EXPECT_TRUE(removal.result);
    EXPECT_EQ(patternBytes(100), readFile(path));
}

// Any CMS behind a 3 GiB hole: the signer is not trusted, so nothing of the
// hole needs to be read, and none of it is copied to a temporary file first.
TEST_F(HostileFiles, AHugeHoleBeforeAnUntrustedSignatureCostsNothing)
{
    Pki otherPki("another CA");
    Bytes der = signRange(patternBytes(100), otherPki.developer());
    writeSparseFile(path, 3 * gib, makeBlock(der, 2));
    ASSERT_EQ(1u, blockCount());

    Cost verification = costOf([&] { return verify(); });
    expectBounded(verification);
    EXPECT_FALSE(verification.result);
    EXPECT_NE(std::string::npos, verification.errors.find("CMS verification failed\n"));
}

// A trusted signer over other bytes, behind a 256 MiB hole: the whole range is
// digested, streamed from the file in bounded memory (a mapping of the file
// would make every page of it resident), and the digest then differs.
TEST_F(HostileFiles, ALargeRangeIsDigestedInBoundedMemory)
{
    Bytes der = signRange(patternBytes(100), pki->developer());
    writeSparseFile(path, 256 * mib, makeBlock(der, 2));

    Cost verification = costOf([&] { return verify(); }, 60000);
    expectBounded(verification);
    EXPECT_FALSE(verification.result);
    EXPECT_NE(std::string::npos, verification.errors.find("CMS verification failed\n"));
}

// An honest package of more than 2 GiB (a hole here, so that it costs no
// disk): its signature verifies with every byte streamed from the file into
// the digest, none of them copied to a temporary file, in bounded memory.
TEST_F(HostileFiles, APackageOfMoreThanTwoGibibytesVerifiesInBoundedMemory)
{
    writeSparseFile(path, 2 * gib + mib, patternBytes(100));
    LoadedSigner developer = loadSigner(pki->developer());
    appendFile(path, makeBlock(detachedCmsOverFile(path, developer.borrowed()), 3));
    ASSERT_EQ(1u, blockCount());

    Cost verification = costOf([&] { return verify(); }, 120000);
    expectBounded(verification);
    EXPECT_TRUE(verification.result);
    EXPECT_EQ("", verification.errors);
}

// The DER of a ProofOfRotationChain holding count copies of one proof.
Bytes chainOfCopies(Bytes const& proof, std::size_t count)
{
    std::size_t length = proof.size() * count;
    Bytes der{0x30, 0x84, static_cast<unsigned char>(length >> 24), static_cast<unsigned char>(length >> 16),
              static_cast<unsigned char>(length >> 8), static_cast<unsigned char>(length)};
    der.reserve(der.size() + length);
    for (std::size_t i = 0; i < count; ++i)
        der.insert(der.end(), proof.begin(), proof.end());
    return der;
}

class HostileRotations : public HostileFiles {
protected:
    // The DER of one real proof: the developer's key rotated to next's.
    Bytes proofToward(Identity const& next)
    {
        std::string chainPath = dir.file("chain.pem");
        EXPECT_EQ(0, make_proof_of_rotation_chain(chainPath.c_str(), nullptr, pki->developer().certPath.c_str(),
                                                  pki->developer().keyPath.c_str(), next.certPath.c_str(),
                                                  next.keyPath.c_str()));
        ProofOfRotationChain* chain = ProofOfRotationChain_read(chainPath.c_str());
        unsigned char* der = nullptr;
        int length = i2d_ProofOfRotation(ProofOfRotationChain_get0_at(chain, 0), &der);
        Bytes proof(der, der + length);
        OPENSSL_free(der);
        ProofOfRotationChain_free(chain);
        return proof;
    }
};

TEST_F(HostileRotations, TenThousandProofsAreRefusedQuickly)
{
    Identity next = pki->issue("next developer", "developer");
    LoadedSigner signer = loadSigner(next);
    Bytes content = patternBytes(500);
    Bytes der = cmsWithAttribute(content, signer.borrowed(),
                                 CmsAttribute{rotationChainOid, V_ASN1_SEQUENCE,
                                              chainOfCopies(proofToward(next), 10000)});
    writeFile(path, concat({content, makeBlock(der, 2)}));

    // Reading a CMS of 17 MB costs a few copies of it; what matters here is
    // that no proof is decoded or checked, so the time stays short.
    Cost verification = costOf([&] { return verify(); });
    EXPECT_TRUE(verification.finished);
    EXPECT_FALSE(verification.result);
    EXPECT_EQ("Proof-of-rotation chain has 10000 proofs, more than the limit of 64\n"
              "Proof-of-rotation chain verification failed\n",
              verification.errors);
}

// The limit is checked on the count alone, before any proof: 64 copies of one
// proof get as far as linking them, 65 do not.
TEST_F(HostileRotations, TheChainCheckRefusesMoreThanSixtyFourProofs)
{
    Identity next = pki->issue("next developer", "developer");
    Bytes proof = proofToward(next);
    for (std::size_t count : {64u, 65u}) {
        Bytes der = chainOfCopies(proof, count);
        const unsigned char* cursor = der.data();
        ProofOfRotationChain* chain = d2i_ProofOfRotationChain(nullptr, &cursor, static_cast<long>(der.size()));
        ASSERT_NE(nullptr, chain);
        std::string errors = stderrOf([&] { EXPECT_EQ(0, ProofOfRotationChain_verify(chain)); });
        if (count == 64)
            EXPECT_EQ("New SKID from proof[0] does not match old SKID from proof[1]\n", errors);
        else
            EXPECT_EQ("Proof-of-rotation chain has 65 proofs, more than the limit of 64\n", errors);
        ProofOfRotationChain_free(chain);
    }
}

TEST_F(HostileRotations, TheReaderDoesNotDecodeAChainBeyondTheLimit)
{
    Identity next = pki->issue("next developer", "developer");
    LoadedSigner signer = loadSigner(next);
    Bytes der = cmsWithAttribute(patternBytes(10), signer.borrowed(),
                                 CmsAttribute{rotationChainOid, V_ASN1_SEQUENCE, chainOfCopies(proofToward(next), 65)});
    Cms cms(der);
    EXPECT_EQ("Proof-of-rotation chain has 65 proofs, more than the limit of 64\n",
              stderrOf([&] { EXPECT_TRUE(cms.rotationChain()->previousKeyids().empty()); }));
}

// A chain file is read with the limits of a chain in a signature: one of
// 300 MB is refused by its size, before a byte of it is decoded, and one of
// 65 proofs by its count, before any proof is.
TEST_F(HostileRotations, AHugeChainFileIsRefusedByItsSize)
{
    std::string text = "-----BEGIN PROOF OF ROTATION CHAIN-----\n";
    std::string path = dir.file("huge.pem");
    writeSparseFile(path, 300 * mib, Bytes(text.begin(), text.end()));
    Cost reading = costOf([&] { return ProofOfRotationChain_read(path.c_str()) != nullptr; });
    EXPECT_TRUE(reading.finished);
    EXPECT_FALSE(reading.result);
    EXPECT_LT(reading.peakKib, peakLimitKib);
    EXPECT_LT(reading.elapsedMs, 1000);
    EXPECT_EQ("Proof-of-rotation chain of " + std::to_string(300 * mib + text.size()) +
                  " bytes, more than the limit of 1048576 bytes\n",
              reading.errors);
}

TEST_F(HostileRotations, AChainFileOfMoreThanSixtyFourProofsIsNotDecoded)
{
    Identity next = pki->issue("next developer", "developer");
    Bytes proof = proofToward(next);
    for (std::size_t count : {64u, 65u}) {
        SCOPED_TRACE(count);
        Bytes der = chainOfCopies(proof, count);
        const unsigned char* cursor = der.data();
        ProofOfRotationChain* chain = d2i_ProofOfRotationChain(nullptr, &cursor, static_cast<long>(der.size()));
        ASSERT_NE(nullptr, chain);
        std::string path = dir.file("chain-" + std::to_string(count) + ".pem");
        FILE* file = fopen(path.c_str(), "w");
        ASSERT_NE(nullptr, file);
        EXPECT_EQ(1, PEM_write_ProofOfRotationChain(file, chain));
        fclose(file);
        ProofOfRotationChain_free(chain);
        ProofOfRotationChain* read = nullptr;
        std::string errors = stderrOf([&] { read = ProofOfRotationChain_read(path.c_str()); });
        if (count == 64) {
            EXPECT_NE(nullptr, read);
            EXPECT_EQ("", errors);
        } else {
            EXPECT_EQ(nullptr, read);
            EXPECT_EQ("Proof-of-rotation chain has 65 proofs, more than the limit of 64\n"
                      "Could not read proof-of-rotation chain\n",
                      errors);
        }
        ProofOfRotationChain_free(read);
    }
}

// Files the library reads by path are regular files: a FIFO in place of a
// certificate, a key, a CA store, a chain or a key file is refused at once.
TEST_F(HostileFiles, FifosAreRefusedAtOnce)
{
    std::string fifo = dir.file("fifo");
    ASSERT_EQ(0, mkfifo(fifo.c_str(), 0600));
    ChildResult child = runInChild(
        [&] {
            bool refused = !certificate_read(fifo.c_str()) && !certificate_store_read(fifo.c_str()) &&
                           !private_key_read(fifo.c_str(), nullptr) && !ProofOfRotationChain_read(fifo.c_str()) &&
                           Configuration(fifo).databasePath().empty() &&
                           Certificate::readCertificateFromFile(fifo.c_str()).keyId().empty();
            return refused ? 0 : 1;
        },
        20000);
    EXPECT_FALSE(child.timedOut);
    EXPECT_EQ(0, child.exitCode);
    const std::string certificate = "Could not open certificate \"" + fifo + "\": Invalid argument\n";
    EXPECT_EQ(certificate + "Could not open certificate store \"" + fifo + "\": Invalid argument\n"
              "Could not open private key \"" + fifo + "\": Invalid argument\n"
              "Could not open proof-of-rotation: Invalid argument\n" + certificate,
              child.errors);
}

// Two trusted signers, with a rotation chain that ends at another key: the
// readers cannot answer for such a signature, so verification must not
// accept it.
TEST_F(HostileFiles, ACmsWithTwoSignersIsRefused)
{
    Identity other = pki->issue("other developer", "developer");
    std::string chainPath = dir.file("chain.pem");
    ASSERT_EQ(0, make_proof_of_rotation_chain(chainPath.c_str(), nullptr, pki->developer().certPath.c_str(),
                                              pki->developer().keyPath.c_str(), other.certPath.c_str(),
                                              other.keyPath.c_str()));
    ProofOfRotationChain* chain = ProofOfRotationChain_read(chainPath.c_str());
    unsigned char* chainDer = nullptr;
    int chainLength = i2d_ProofOfRotationChain(chain, &chainDer);
    CmsAttribute rotation{rotationChainOid, V_ASN1_SEQUENCE, Bytes(chainDer, chainDer + chainLength)};
    OPENSSL_free(chainDer);
    ProofOfRotationChain_free(chain);

    LoadedSigner developer = loadSigner(pki->developer());
    Bytes content = patternBytes(700);
    CmsRecipe recipe;
    recipe.content = content;
    LoadedSigner second = loadSigner(other);
    recipe.signers = {developer.borrowed(), second.borrowed()};
    recipe.attributes = {rotation};
    Bytes der = buildCms(recipe);
    writeFile(path, concat({content, makeBlock(der, 2)}));

    EXPECT_EQ("CMS verification needs exactly one signer (found: 2)\nCMS verification failed\n",
              stderrOf([&] { EXPECT_FALSE(verify()); }));

    CMS_ContentInfo* cms = cms_from_der(der.data(), static_cast<long>(der.size()));
    X509_STORE* store = certificate_store_read(pki->ca().certPath.c_str());
    EXPECT_EQ("CMS verification needs exactly one signer (found: 2)\nCMS verification failed\n",
              stderrOf([&] { EXPECT_FALSE(cms_verify(content.data(), static_cast<long>(content.size()), cms, store)); }));
    X509_STORE_free(store);
    CMS_ContentInfo_free(cms);
}

TEST_F(HostileFiles, ACmsWithoutSignersIsRefused)
{
    CmsRecipe recipe;
    Bytes der = buildCms(recipe);
    CMS_ContentInfo* cms = cms_from_der(der.data(), static_cast<long>(der.size()));
    ASSERT_NE(nullptr, cms);
    X509_STORE* store = certificate_store_read(pki->ca().certPath.c_str());
    const unsigned char data[] = {1};
    EXPECT_EQ("CMS verification needs exactly one signer (found: 0)\nCMS verification failed\n",
              stderrOf([&] { EXPECT_FALSE(cms_verify(data, 1, cms, store)); }));
    X509_STORE_free(store);
    CMS_ContentInfo_free(cms);
}

// Errors left in OpenSSL's queue by earlier calls (reading the CA store leaves
// "no start line") are not part of a refused check's report.
TEST_F(HostileFiles, ARefusedDetachedSignaturePrintsOnlyItsOwnErrors)
{
    writeFile(path, patternBytes(3000));
    ASSERT_TRUE(signFile(path, pki->developer()));
    Bytes contents = readFile(path);
    contents[10] ^= 1;
    writeFile(path, contents);
    std::string errors = stderrOf([&] { EXPECT_FALSE(verify()); });
    EXPECT_EQ(std::string::npos, errors.find("no start line")) << errors;
    EXPECT_NE(std::string::npos, errors.find("content verify error")) << errors;
}

// A package of 100,000 payload files signed with GOST-512 keys carries one
// IMA record of 137 bytes per file: such a signature stays well within the
// largest CMS a block may hold, and verifies.
TEST_F(HostileFiles, TheFileSignaturesOfAHundredThousandFilesFitInABlock)
{
    FileSignatures* table = FileSignatures_new();
    ASN1_INTEGER_set(table->version, 1);
    Bytes record(137, 0x5A);
    for (int i = 0; i < 100000; ++i) {
        FileSignature* entry = FileSignature_new();
        ASN1_INTEGER_set(entry->index, i);
        ASN1_OCTET_STRING_set(entry->value, record.data(), static_cast<int>(record.size()));
        sk_FileSignature_push(table->signatures, entry);
    }
    unsigned char* tableDer = nullptr;
    int tableLength = i2d_FileSignatures(table, &tableDer);
    FileSignatures_free(table);
    CmsAttribute files{fileSignaturesOid, V_ASN1_SEQUENCE, Bytes(tableDer, tableDer + tableLength)};
    OPENSSL_free(tableDer);

    LoadedSigner developer = loadSigner(pki->developer());
    Bytes content = patternBytes(4000);
    Bytes der = cmsWithAttribute(content, developer.borrowed(), files);
    EXPECT_LT(der.size(), 32u * 1024 * 1024 / 2);
    writeFile(path, concat({content, makeBlock(der, 3)}));
    EXPECT_TRUE(verify());
    auto cmses = FileWithCmses::fromPath(path.c_str(), "r")->cmses();
    ASSERT_EQ(1u, cmses.size());
    EXPECT_EQ(record, cmses[0].fileSignature(99999));
}

}  // namespace

// Clients may declare the structure by the name it has in the interface.
struct FileSignature;
static_assert(std::is_same_v<struct FileSignature, FileSignature>);
