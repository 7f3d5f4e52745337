// Signing a real RPM package with per-file signatures: a developer signature
// over a package of about 64 MiB of payload in 512 files (zstd).
//
// SignWithFileSignatures prints the signing time next to the floor measured
// in the same iterations: one GOST R 34.11-2012 pass over the whole package,
// one decompression of the payload, one GOST R 34.11-2012 pass over every
// payload file and one GOST signature per file. The target is ratio <= 1.15.
//
// PeakMemory signs packages of 16 MiB and 128 MiB of payload in a child
// process each and prints how far its peak resident set grew, with and without
// per-file signatures. The package is read in pieces, never mapped or held
// whole, so neither figure may grow with the payload: for 128 MiB it prints
// the rise over the 16 MiB figures of the same run (rise_kib) next to its
// limit (rise_limit_kib).
//
//   sealkeep_package_signing_bench [--benchmark_filter=...]
#include <benchmark/benchmark.h>

#include <algorithm>
#include <chrono>
#include <cstdio>
#include <map>
#include <memory>
#include <stdexcept>
#include <string>

#include <openssl/evp.h>
#include <rpm/rpmfi.h>
#include <rpm/rpmarchive.h>  // after rpmfi.h, whose types it uses

#include <sealkeep/sealkeep.hpp>

#include "support/cms_builder.hpp"
#include "support/files.hpp"
#include "support/payload_signatures.hpp"
#include "support/pki.hpp"
#include "support/process.hpp"
#include "support/rpm_builder.hpp"
#include "support/temp_dir.hpp"

namespace {

using namespace sealkeep;
using namespace sealkeep::test;
using Clock = std::chrono::steady_clock;

constexpr int fileCount = 512;

Pki& pki()
{
    static Pki shared;
    return shared;
}

// A zstd package of about payloadMiB MiB in fileCount files, built once per
// size for the whole run. Level 3 keeps rpmbuild quick; the content is not
// compressible, so the decompressor still sees every byte.
std::string const& package(int payloadMiB)
{
    static TempDir dir;
    static std::map<int, std::string> built;
    auto found = built.find(payloadMiB);
    if (found != built.end())
        return found->second;
    const std::size_t fileSize = (static_cast<std::size_t>(payloadMiB) << 20) / fileCount;
    std::vector<PayloadEntry> entries;
    for (int i = 0; i < fileCount; ++i) {
        Bytes content = patternBytes(fileSize, static_cast<unsigned>(i + 1));
        entries.push_back(regularFile("/usr/share/bench/file" + std::to_string(i),
                                      std::string(content.begin(), content.end())));
    }
    return built[payloadMiB] = buildRpm(dir.path(), "bench" + std::to_string(payloadMiB), entries, "zstd", 3);
}

double secondsSince(Clock::time_point start)
{
    return std::chrono::duration<double>(Clock::now() - start).count();
}

const EVP_MD* streebog256()
{
    return EVP_get_digestbyname(OBJ_nid2sn(982));
}

void digestAndSign(EVP_MD_CTX* ctx, EVP_PKEY* key)
{
    unsigned char digest[EVP_MAX_MD_SIZE];
    unsigned int digestLength = 0;
    EVP_DigestFinal_ex(ctx, digest, &digestLength);
    PkeyCtxPtr signing(EVP_PKEY_CTX_new(key, nullptr));
    unsigned char signature[1024];
    std::size_t signatureLength = sizeof signature;
    if (!signing || EVP_PKEY_sign_init(signing.get()) <= 0 ||
        EVP_PKEY_sign(signing.get(), signature, &signatureLength, digest, digestLength) <= 0)
        throw std::runtime_error("floor: signing failed");
}

// The work no signer of this kind can avoid: the whole-file digest, one
// decompression of the payload with a digest and a signature per file.
void floorWork(Bytes const& bytes, std::string const& path, EVP_PKEY* key)
{
    const EVP_MD* md = streebog256();
    unsigned char digest[EVP_MAX_MD_SIZE];
    if (!EVP_Digest(bytes.data(), bytes.size(), digest, nullptr, md, nullptr))
        throw std::runtime_error("floor: digest failed");

    MdCtxPtr ctx(EVP_MD_CTX_new());
    unsigned char piece[4096];
    forEachPayloadFile(path, [&](rpmfi fi) {
        EVP_DigestInit_ex(ctx.get(), md, nullptr);
        for (auto left = rpmfiFSize(fi); left > 0;) {
            auto wanted = std::min<rpm_loff_t>(left, sizeof piece);
            if (rpmfiArchiveRead(fi, piece, wanted) != static_cast<ssize_t>(wanted))
                throw std::runtime_error("floor: short read");
            EVP_DigestUpdate(ctx.get(), piece, wanted);
            left -= wanted;
        }
        digestAndSign(ctx.get(), key);
    });
}

void SignWithFileSignatures(benchmark::State& state)
{
    const std::string& path = package(static_cast<int>(state.range(0)));
    const Bytes bytes = readFile(path);
    LoadedSigner signer = loadSigner(pki().developer());
    double floorSeconds = 0, signSeconds = 0, plainSeconds = 0;
    // The best of each as well: on a shared machine the minimum is the
    // steadier figure.
    double floorBest = 1e9, signBest = 1e9;
    for (auto _ : state) {
        auto start = Clock::now();
        floorWork(bytes, path, signer.key.get());
        const double floorElapsed = secondsSince(start);
        floorSeconds += floorElapsed;
        floorBest = std::min(floorBest, floorElapsed);

        // For reference: the same signature without per-file signatures.
        start = Clock::now();
        std::size_t plainLength = 0;
        free(cms_sign(bytes.data(), bytes.size(), 0, signer.key.get(), nullptr, 0, signer.cert.get(), nullptr,
                      &plainLength));
        plainSeconds += secondsSince(start);

        start = Clock::now();
        std::size_t length = 0;
        unsigned char* der = cms_sign(bytes.data(), bytes.size(), 1, signer.key.get(), nullptr, 0,
                                      signer.cert.get(), nullptr, &length);
        double elapsed = secondsSince(start);
        signSeconds += elapsed;
        signBest = std::min(signBest, elapsed);
        state.SetIterationTime(elapsed);
        if (!der)
            state.SkipWithError("signing failed");
        free(der);
    }
    const auto n = static_cast<double>(state.iterations());
    state.counters["sign_ms"] = 1000 * signSeconds / n;
    state.counters["floor_ms"] = 1000 * floorSeconds / n;
    state.counters["no_files_ms"] = 1000 * plainSeconds / n;
    state.counters["ratio"] = signSeconds / floorSeconds;
    state.counters["ratio_best"] = signBest / floorBest;
    state.SetBytesProcessed(static_cast<int64_t>(state.iterations()) * static_cast<int64_t>(bytes.size()));
}
BENCHMARK(SignWithFileSignatures)->Arg(64)->UseManualTime()->Unit(benchmark::kMillisecond)->Iterations(5);

// Growth of the peak resident set (KiB) of a child process that signs a copy
// of the package at path with FileWithCmses::sign.
long peakKibOfSigning(std::string const& path, bool signFiles)
{
    TempDir dir;
    std::string copy = dir.file("package.rpm");
    writeFile(copy, readFile(path));
    Identity const& who = pki().developer();
    auto child = runInChild(
        [&] {
            // A forked child starts with the parent's resident set as its
            // peak; only the growth above what is resident now belongs to
            // signing.
            X509Ptr cert = loadCertificate(who.certPath);
            PkeyPtr key = loadKey(who.keyPath);
            auto file = PackageSignatures::FileWithCmses::fromPath(copy.c_str(), "r+");
            resetPeakResident();
            const long before = residentKib();
            if (!file || !file->sign(cert.get(), key.get(), nullptr, 0, nullptr, false, false, signFiles))
                return 1;
            fprintf(stderr, "%ld\n", peakResidentKib() - before);
            return 0;
        },
        600000);
    if (child.exitCode != 0)
        throw std::runtime_error("signing child failed: " + child.errors);
    return std::stol(child.errors.substr(child.errors.rfind('\n', child.errors.size() - 2) + 1));
}

// How much more the peak may rise for the largest package than for the
// smallest: a few pieces and allocator noise, far below one payload.
constexpr long riseLimitKib = 4096;

void PeakMemory(benchmark::State& state)
{
    const int payloadMiB = static_cast<int>(state.range(0));
    const std::string& path = package(payloadMiB);
    long plain = 0, withFiles = 0;
    for (auto _ : state) {
        plain = peakKibOfSigning(path, false);
        withFiles = peakKibOfSigning(path, true);
    }
    static std::map<int, long> peaks;
    peaks[payloadMiB] = std::max(plain, withFiles);
    state.counters["package_kib"] = static_cast<double>(fileSize(path) / 1024);
    state.counters["peak_kib_plain"] = static_cast<double>(plain);
    state.counters["peak_kib_files"] = static_cast<double>(withFiles);
    if (payloadMiB != peaks.begin()->first) {
        state.counters["rise_kib"] = static_cast<double>(peaks[payloadMiB] - peaks.begin()->second);
        state.counters["rise_limit_kib"] = static_cast<double>(riseLimitKib);
    }
}
BENCHMARK(PeakMemory)->Arg(16)->Arg(128)->Iterations(1)->Unit(benchmark::kMillisecond);

}  // namespace

BENCHMARK_MAIN();
