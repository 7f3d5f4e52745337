// Signing without the package: what prepare costs where the package is, and
// what sign-request costs on the key host, each beside its floor measured in
// the same run.
//
// For packages of 10,000 payload files of 1 MiB and of --large-mib MiB in all
// (default 1024, zstd), it prints:
//  - prepare_ms: FileWithCmses::planSignature, beside in-place signing's
//    floor (one GOST R 34.11-2012 pass over the whole package, one
//    decompression of the payload, one digest and one GOST signature per
//    payload file): target ratio <= 1.1;
//  - sign_request_ms: what sign-request does with one request (decode it,
//    sign every digest and the CMS, encode the signature file), beside the
//    same number of GOST signatures made in a loop by this process: target
//    ratio <= 1.2, and the same for both package sizes (the key host never
//    reads a package);
//  - the request's size per payload file.
// Each figure is the best of --runs runs (default 3): on a shared machine
// the minimum is the steadier one.
//
//   sealkeep_detached_signing_bench [--large-mib N] [--runs N]
#include <algorithm>
#include <chrono>
#include <cstdio>
#include <cstring>
#include <functional>
#include <stdexcept>
#include <string>
#include <vector>

#include <openssl/evp.h>
#include <rpm/rpmfi.h>
#include <rpm/rpmarchive.h>  // after rpmfi.h, whose types it uses

#include <sealkeep/sealkeep.hpp>

#include "signing_request.hpp"
#include "support/cms_builder.hpp"
#include "support/files.hpp"
#include "support/payload_signatures.hpp"
#include "support/pki.hpp"
#include "support/rpm_builder.hpp"
#include "support/temp_dir.hpp"

namespace {

using namespace sealkeep;
using namespace sealkeep::test;
using Clock = std::chrono::steady_clock;

constexpr int fileCount = 10000;

double bestSeconds(int runs, std::function<void()> const& work)
{
    double best = 1e30;
    for (int i = 0; i < runs; ++i) {
        auto start = Clock::now();
        work();
        best = std::min(best, std::chrono::duration<double>(Clock::now() - start).count());
    }
    return best;
}

// A zstd package of totalMiB MiB in fileCount files of incompressible content.
std::string buildPackage(TempDir const& dir, long totalMiB)
{
    const std::size_t fileSize = (static_cast<std::size_t>(totalMiB) << 20) / fileCount;
    std::vector<PayloadEntry> entries;
    entries.reserve(fileCount);
    for (int i = 0; i < fileCount; ++i) {
        Bytes content = patternBytes(fileSize, static_cast<unsigned>(i + 1));
        entries.push_back(regularFile("/usr/share/bench/f" + std::to_string(i),
                                      std::string(content.begin(), content.end())));
    }
    return buildRpm(dir.path(), "detached" + std::to_string(totalMiB), entries, "zstd", 1);
}

const EVP_MD* streebog256()
{
    return EVP_get_digestbyname(OBJ_nid2sn(982));
}

void signDigest(EVP_PKEY* key, const unsigned char* digest, unsigned int digestLength)
{
    PkeyCtxPtr signing(EVP_PKEY_CTX_new(key, nullptr));
    unsigned char signature[1024];
    std::size_t signatureLength = sizeof signature;
    if (!signing || EVP_PKEY_sign_init(signing.get()) <= 0 ||
        EVP_PKEY_sign(signing.get(), signature, &signatureLength, digest, digestLength) <= 0)
        throw std::runtime_error("floor: signing failed");
}

// In-place signing's floor: the whole-file digest, then one decompression of
// the payload with a digest and a signature per file.
void signingFloor(std::string const& path, EVP_PKEY* key)
{
    const EVP_MD* md = streebog256();
    Bytes bytes = readFile(path);
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
        unsigned int length = 0;
        EVP_DigestFinal_ex(ctx.get(), digest, &length);
        signDigest(key, digest, length);
    });
}

// The key host's floor: count GOST signatures of 32-byte digests.
void signaturesFloor(EVP_PKEY* key, std::size_t count)
{
    unsigned char digest[32];
    for (std::size_t i = 0; i < count; ++i) {
        std::memset(digest, static_cast<int>(i), sizeof digest);
        signDigest(key, digest, sizeof digest);
    }
}

struct Figures {
    double prepare, signingFloor, signRequest, signaturesFloor;
    std::size_t requestBytes, files;
};

Figures measure(std::string const& rpm, Identity const& who, int runs)
{
    LoadedSigner signer = loadSigner(who);
    TempDir dir;
    std::string copy = dir.file("package.rpm");
    writeFile(copy, readFile(rpm));
    Figures figures{};
    std::optional<PackageSignatures::SignaturePlan> plan;
    figures.prepare = bestSeconds(runs, [&] {
        auto file = PackageSignatures::FileWithCmses::fromPath(copy.c_str(), "r+");
        plan = file ? file->planSignature(signer.cert.get(), false, true, {}) : std::nullopt;
        if (!plan)
            throw std::runtime_error("prepare failed");
    });
    figures.signingFloor = bestSeconds(runs, [&] { signingFloor(copy, signer.key.get()); });

    unsigned char* certificate = nullptr;
    int certificateLength = i2d_X509(signer.cert.get(), &certificate);
    cli::SigningRequest request{Bytes(certificate, certificate + certificateLength), 3, *plan};
    OPENSSL_free(certificate);
    const Bytes der = cli::encodeRequest(request);
    figures.requestBytes = der.size();
    figures.files = plan->files.size();
    figures.signRequest = bestSeconds(runs, [&] {
        std::string why;
        auto decoded = cli::decodeRequest(der, why);
        if (!decoded)
            throw std::runtime_error("decoding the request failed: " + why);
        Bytes cms = PackageSignatures::signSignaturePlan(decoded->plan, signer.cert.get(), signer.key.get(),
                                                         nullptr, nullptr);
        if (cms.empty())
            throw std::runtime_error("sign-request failed");
        decoded->plan.files.clear();
        cli::encodeSignatureFile({decoded->format, decoded->plan, cms});
    });
    figures.signaturesFloor = bestSeconds(runs, [&] { signaturesFloor(signer.key.get(), figures.files); });
    return figures;
}

void print(char const* label, Figures const& f)
{
    std::printf("%s: %zu payload files\n", label, f.files);
    std::printf("  prepare_ms %.1f  signing_floor_ms %.1f  ratio %.3f (target <= 1.1)\n", 1000 * f.prepare,
                1000 * f.signingFloor, f.prepare / f.signingFloor);
    std::printf("  sign_request_ms %.1f  signatures_floor_ms %.1f  ratio %.3f (target <= 1.2)\n",
                1000 * f.signRequest, 1000 * f.signaturesFloor, f.signRequest / f.signaturesFloor);
    std::printf("  request_bytes %zu  per_payload_file %.1f\n", f.requestBytes,
                static_cast<double>(f.requestBytes) / static_cast<double>(f.files));
}

}  // namespace

int main(int argc, char** argv)
{
    long largeMiB = 1024;
    int runs = 3;
    for (int i = 1; i + 1 < argc; i += 2) {
        if (std::strcmp(argv[i], "--large-mib") == 0)
            largeMiB = std::stol(argv[i + 1]);
        else if (std::strcmp(argv[i], "--runs") == 0)
            runs = std::stoi(argv[i + 1]);
    }
    try {
        Pki pki;
        TempDir dir;
        std::string small = buildPackage(dir, 1);
        std::string large = buildPackage(dir, largeMiB);
        Figures smallFigures = measure(small, pki.developer(), runs);
        print("1 MiB package", smallFigures);
        Figures largeFigures = measure(large, pki.developer(), runs);
        print((std::to_string(largeMiB) + " MiB package").c_str(), largeFigures);
        std::printf("sign_request large/small %.3f (target about 1: the key host reads no package)\n",
                    largeFigures.signRequest / smallFigures.signRequest);
    } catch (std::exception const& e) {
        std::fprintf(stderr, "sealkeep_detached_signing_bench: %s\n", e.what());
        return 1;
    }
    return 0;
}
