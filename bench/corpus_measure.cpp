// In-process figures for bench/real_packages.sh, free of process start-up
// (loading the libraries and the engine costs a few milliseconds, more
// than a whole Streebog pass over a small package):
//
//   sealkeep_corpus_measure sign PKG CERT KEY TA_KEY RUNS
//     signs fresh copies of PKG (beside it) as developer with per-file
//     signatures through FileWithCmses, the write included, and measures
//     the floor in the same process: one Streebog pass over PKG, one
//     decompression of the payload with a Streebog pass over each file, and
//     one GOST signature per file. Prints "SIGN_S FLOOR_S", medians of RUNS.
//   sealkeep_corpus_measure verify PKG CA RUNS
//     verifies PKG and makes one Streebog pass over it, and one over what
//     the format makes a verifier digest: every range a signature covers
//     (the package for the developer, the block before it for each later
//     signer) and every block's signed attributes, so that the developer's
//     per-file records are digested twice. Prints "VERIFY_S DIGEST_S
//     FORMAT_S", the fastest of RUNS each.
#include <algorithm>
#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <filesystem>
#include <string>
#include <vector>

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <openssl/evp.h>
#include <rpm/rpmfi.h>
#include <rpm/rpmarchive.h>  // after rpmfi.h, whose types it uses

#include <sealkeep/sealkeep.hpp>

#include "support/payload_signatures.hpp"
#include "support/pki.hpp"

namespace {

using Clock = std::chrono::steady_clock;
using namespace sealkeep::test;
using sealkeep::MdCtxPtr;
using sealkeep::PkeyPtr;
using sealkeep::X509Ptr;
using sealkeep::PkeyCtxPtr;

double secondsSince(Clock::time_point start)
{
    return std::chrono::duration<double>(Clock::now() - start).count();
}

double median(std::vector<double> values)
{
    std::sort(values.begin(), values.end());
    return values[(values.size() - 1) / 2];
}

const EVP_MD* streebog256()
{
    const EVP_MD* md = EVP_get_digestbyname("md_gost12_256");
    if (!md)
        throw std::runtime_error("no GOST R 34.11-2012 digest");
    return md;
}

// One Streebog pass over the bytes [begin, end) of the file (end -1: to
// its end), read as openssl dgst reads a file.
void digestFile(std::string const& path, std::int64_t begin = 0, std::int64_t end = -1)
{
    int fd = ::open(path.c_str(), O_RDONLY | O_CLOEXEC);
    if (fd < 0)
        throw std::runtime_error("cannot open " + path);
    MdCtxPtr ctx(EVP_MD_CTX_new());
    if (!ctx || !EVP_DigestInit_ex(ctx.get(), streebog256(), nullptr))
        throw std::runtime_error("digest failed");
    std::vector<unsigned char> piece(256 * 1024);
    ssize_t got = 0;
    for (std::int64_t at = begin; end < 0 || at < end; at += got) {
        const auto want = end < 0 ? piece.size() : std::min<std::size_t>(piece.size(), end - at);
        if ((got = ::pread(fd, piece.data(), want, at)) <= 0)
            break;
        EVP_DigestUpdate(ctx.get(), piece.data(), static_cast<std::size_t>(got));
    }
    ::close(fd);
    unsigned char digest[EVP_MAX_MD_SIZE];
    EVP_DigestFinal_ex(ctx.get(), digest, nullptr);
}

// What no signer can avoid: the whole-package digest, the payload
// decompressed once with a digest and a signature per regular file (one
// digest and one signing context for all).
void floorWork(std::string const& path, EVP_PKEY* key)
{
    digestFile(path);
    MdCtxPtr ctx(EVP_MD_CTX_new());
    PkeyCtxPtr signing(EVP_PKEY_CTX_new(key, nullptr));
    if (!ctx || !signing || EVP_PKEY_sign_init(signing.get()) <= 0)
        throw std::runtime_error("floor: no signing context");
    std::vector<unsigned char> piece(64 * 1024);
    forEachPayloadFile(path, [&](rpmfi fi) {
        if (!S_ISREG(rpmfiFMode(fi)) || !rpmfiArchiveHasContent(fi))
            return;
        EVP_DigestInit_ex(ctx.get(), streebog256(), nullptr);
        for (auto left = rpmfiFSize(fi); left > 0;) {
            auto wanted = std::min<rpm_loff_t>(left, piece.size());
            if (rpmfiArchiveRead(fi, piece.data(), wanted) != static_cast<ssize_t>(wanted))
                throw std::runtime_error("floor: short read");
            EVP_DigestUpdate(ctx.get(), piece.data(), wanted);
            left -= wanted;
        }
        unsigned char digest[EVP_MAX_MD_SIZE];
        unsigned int digestLength = 0;
        EVP_DigestFinal_ex(ctx.get(), digest, &digestLength);
        unsigned char signature[256];
        std::size_t signatureLength = sizeof signature;
        if (EVP_PKEY_sign(signing.get(), signature, &signatureLength, digest, digestLength) != 1)
            throw std::runtime_error("floor: signing failed");
    });
}

int measureSigning(std::string const& path, char** args, int runs)
{
    X509Ptr cert = loadCertificate(args[0]);
    PkeyPtr key = loadKey(args[1]);
    PkeyPtr taKey = loadKey(args[2]);
    const std::string copy = path + ".measure";
    std::vector<double> signs, floors;
    for (int run = 0; run < runs; ++run) {
        std::filesystem::copy_file(path, copy, std::filesystem::copy_options::overwrite_existing);
        auto file = PackageSignatures::FileWithCmses::fromPath(copy);
        auto start = Clock::now();
        if (!file || !file->sign(cert.get(), key.get(), taKey.get(), 0x70414930, nullptr, false, false, true)) {
            std::fprintf(stderr, "%s: not signed\n", path.c_str());
            return 1;
        }
        signs.push_back(secondsSince(start));
        file.reset();
        start = Clock::now();
        floorWork(path, key.get());
        floors.push_back(secondsSince(start));
    }
    std::filesystem::remove(copy);
    std::printf("%.4f %.4f\n", median(signs), median(floors));
    return 0;
}

int measureVerification(std::string const& path, std::string const& ca, int runs)
{
    // What verification must digest: every range a signature covers (the
    // package for the first, the block before it for each later one), and
    // each block's signed attributes, here taken as its whole CMS (the next
    // block's covered range; for the newest, the rest of the file), a few
    // kilobytes of certificates and signature more than the attributes.
    std::vector<std::pair<std::int64_t, std::int64_t>> covered;
    if (auto file = PackageSignatures::FileWithCmses::fromPath(path)) {
        for (auto const& block : file->verificationReport(ca.c_str()).blocks())
            covered.emplace_back(block.coveredBegin(), block.coveredEnd());
    }
    std::sort(covered.begin(), covered.end());
    const auto size = static_cast<std::int64_t>(std::filesystem::file_size(path));
    for (std::size_t i = 0, blocks = covered.size(); i < blocks; ++i)
        covered.push_back(i + 1 < blocks ? covered[i + 1] : std::make_pair(covered[i].second, size));
    double verify = 1e9, digest = 1e9, coveredDigest = 1e9;
    for (int run = 0; run < runs; ++run) {
        auto start = Clock::now();
        auto file = PackageSignatures::FileWithCmses::fromPath(path);
        if (!file || !file->verifyCmses(ca.c_str())) {
            std::fprintf(stderr, "%s: not verified\n", path.c_str());
            return 1;
        }
        file.reset();
        verify = std::min(verify, secondsSince(start));
        start = Clock::now();
        digestFile(path);
        digest = std::min(digest, secondsSince(start));
        start = Clock::now();
        for (auto const& [begin, end] : covered)
            digestFile(path, begin, end);
        coveredDigest = std::min(coveredDigest, secondsSince(start));
    }
    std::printf("%.4f %.4f %.4f\n", verify, digest, coveredDigest);
    return 0;
}

}  // namespace

int main(int argc, char** argv)
{
    const std::string what = argc > 1 ? argv[1] : "";
    try {
        if (what == "sign" && argc == 7)
            return measureSigning(argv[2], argv + 3, std::atoi(argv[6]));
        if (what == "verify" && argc == 5)
            return measureVerification(argv[2], argv[3], std::atoi(argv[4]));
    } catch (std::exception const& error) {
        std::fprintf(stderr, "%s\n", error.what());
        return 1;
    }
    std::fprintf(stderr, "usage: %s sign PKG CERT KEY TA_KEY RUNS | verify PKG CA RUNS\n", argv[0]);
    return 2;
}
