// Verifying a signed 1 GiB package, next to its floor measured in the same
// run: one GOST R 34.11-2012 pass over the same file by
// `openssl dgst -engine gost -md_gost12_256`. Verification streams the file
// through the digest, so its time should stay within 1.05 times the floor,
// and its peak resident memory (printed as peak_rss_MiB, measured from a
// reset just before the timed loop) must stay far below the package size.
//
// Both are printed as wall-clock ratio (ratio_to_floor) and as processor-time
// ratio (cpu_ratio_to_floor: this process's time against the openssl child's),
// since on a shared machine the wall clock also measures the neighbours.
//
//   sealkeep_bench --benchmark_filter=VerifyGibPackage
//
// Signing the same 1 GiB package as developer (no per-file signatures: it is
// not an RPM package) next to the same floor. Signing copies the package
// beside itself on a second thread while it digests the copy, syncs it and
// renames it into place; all of that is inside the timed call. Its peak resident memory is
// printed the same way, and so is the largest file it left in the temporary
// directory (tmp_files_MiB: none is made).
//
//   sealkeep_bench --benchmark_filter=SignGibPackage
#include <benchmark/benchmark.h>

#include <chrono>
#include <cstdlib>
#include <string>

#include <dirent.h>
#include <fcntl.h>
#include <sys/stat.h>
#include <sys/resource.h>
#include <unistd.h>

#include <sealkeep/sealkeep.hpp>

#include "support/files.hpp"
#include "support/pki.hpp"
#include "support/process.hpp"
#include "support/signing.hpp"
#include "support/temp_dir.hpp"

namespace {

using namespace sealkeep::test;
using PackageSignatures::FileWithCmses;
using Clock = std::chrono::steady_clock;

constexpr std::size_t gib = std::size_t{1} << 30;

// Written piece by piece, so that making the package costs no gigabyte of
// memory in this process.
void writeLargeFile(std::string const& path, std::size_t size)
{
    Bytes piece = patternBytes(1 << 20, 9);
    int fd = ::open(path.c_str(), O_WRONLY | O_CREAT | O_TRUNC, 0644);
    for (std::size_t done = 0; done < size; done += piece.size())
        if (write(fd, piece.data(), piece.size()) != static_cast<ssize_t>(piece.size()))
            break;
    close(fd);
}

double secondsSince(Clock::time_point start)
{
    return std::chrono::duration<double>(Clock::now() - start).count();
}

// User and system time used so far by this process (RUSAGE_SELF) or by its
// waited-for children (RUSAGE_CHILDREN).
double processorSeconds(int who)
{
    struct rusage usage {};
    getrusage(who, &usage);
    auto seconds = [](timeval const& t) { return static_cast<double>(t.tv_sec) + t.tv_usec / 1e6; };
    return seconds(usage.ru_utime) + seconds(usage.ru_stime);
}

double opensslDigestSeconds(std::string const& path)
{
    std::string command = "openssl dgst -engine gost -md_gost12_256 '" + path + "' >/dev/null 2>&1";
    auto start = Clock::now();
    if (std::system(command.c_str()) != 0)
        return -1;
    return secondsSince(start);
}

void VerifyGibPackage(benchmark::State& state)
{
    static Pki pki;
    TempDir dir;
    std::string path = dir.file("package");
    writeLargeFile(path, gib);
    signFile(path, pki.developer(), framed());
    signFile(path, pki.seclab(), framed());
    const std::string caPath = pki.ca().certPath;
    auto file = FileWithCmses::fromPath(path.c_str(), "r");

    opensslDigestSeconds(path);  // both read the file from the page cache
    resetPeakResident();
    double floorTotal = 0;
    double verifyTotal = 0;
    double floorProcessor = 0;
    double verifyProcessor = 0;
    for (auto _ : state) {
        double children = processorSeconds(RUSAGE_CHILDREN);
        double floor = opensslDigestSeconds(path);
        floorProcessor += processorSeconds(RUSAGE_CHILDREN) - children;
        double self = processorSeconds(RUSAGE_SELF);
        auto start = Clock::now();
        bool valid = file->verifyCmses(caPath.c_str());
        double seconds = secondsSince(start);
        verifyProcessor += processorSeconds(RUSAGE_SELF) - self;
        if (!valid || floor < 0) {
            state.SkipWithError(valid ? "openssl dgst failed" : "verification failed");
            break;
        }
        state.SetIterationTime(seconds);
        floorTotal += floor;
        verifyTotal += seconds;
    }
    state.counters["floor_s"] = floorTotal / static_cast<double>(state.iterations());
    state.counters["ratio_to_floor"] = floorTotal > 0 ? verifyTotal / floorTotal : 0;
    state.counters["cpu_ratio_to_floor"] = floorProcessor > 0 ? verifyProcessor / floorProcessor : 0;
    state.counters["peak_rss_MiB"] = static_cast<double>(peakResidentKib()) / 1024;
    state.SetBytesProcessed(static_cast<int64_t>(state.iterations()) * static_cast<int64_t>(gib));
}
BENCHMARK(VerifyGibPackage)->UseManualTime()->Iterations(3)->Unit(benchmark::kSecond);

// The files a test directory holds for TMPDIR, in MiB: signing should add none.
double temporaryMiB(std::string const& directory)
{
    double total = 0;
    if (DIR* listing = opendir(directory.c_str())) {
        while (dirent* entry = readdir(listing)) {
            struct stat status {};
            if (fstatat(dirfd(listing), entry->d_name, &status, 0) == 0 && S_ISREG(status.st_mode))
                total += static_cast<double>(status.st_size) / (1 << 20);
        }
        closedir(listing);
    }
    return total;
}

void SignGibPackage(benchmark::State& state)
{
    static Pki pki;
    TempDir dir;
    TempDir temporary;
    setenv("TMPDIR", temporary.path().c_str(), 1);
    std::string path = dir.file("package");
    writeLargeFile(path, gib);
    sealkeep::X509Ptr cert = loadCertificate(pki.developer().certPath);
    sealkeep::PkeyPtr key = loadKey(pki.developer().keyPath);

    opensslDigestSeconds(path);
    resetPeakResident();
    double floorTotal = 0;
    double signTotal = 0;
    for (auto _ : state) {
        double floor = opensslDigestSeconds(path);
        auto file = FileWithCmses::fromPath(path.c_str(), "r+");
        auto start = Clock::now();
        bool made = file->sign(cert.get(), key.get(), nullptr, 0, nullptr, true, true, false);
        double seconds = secondsSince(start);
        if (!made || floor < 0) {
            state.SkipWithError(made ? "openssl dgst failed" : "signing failed");
            break;
        }
        state.SetIterationTime(seconds);
        floorTotal += floor;
        signTotal += seconds;
    }
    unsetenv("TMPDIR");
    state.counters["floor_s"] = floorTotal / static_cast<double>(state.iterations());
    state.counters["ratio_to_floor"] = floorTotal > 0 ? signTotal / floorTotal : 0;
    state.counters["peak_rss_MiB"] = static_cast<double>(peakResidentKib()) / 1024;
    state.counters["tmp_files_MiB"] = temporaryMiB(temporary.path());
    state.SetBytesProcessed(static_cast<int64_t>(state.iterations()) * static_cast<int64_t>(gib));
}
BENCHMARK(SignGibPackage)->UseManualTime()->Iterations(3)->Unit(benchmark::kSecond);

}  // namespace
