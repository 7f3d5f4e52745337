// Speed of the signature stack on packages of growing size:
//  - listing the signatures maps the file and reads only the block headers,
//    so its time must not grow with the package;
//  - verifying streams the covered bytes from the file into OpenSSL, so it
//    should run close to one GOST R 34.11-2012 pass over the package (see
//    large_package_bench.cpp for the comparison with that floor);
//  - signing copies the range once into a temporary file, then digests it.
//
//   sealkeep_bench [--benchmark_filter=...]
#include <benchmark/benchmark.h>

#include <memory>

#include <sealkeep/sealkeep.hpp>

#include "support/files.hpp"
#include "support/pki.hpp"
#include "support/signing.hpp"

namespace {

using namespace sealkeep::test;
using PackageSignatures::FileWithCmses;

// One PKI for the whole run.
Pki& pki()
{
    static Pki shared;
    return shared;
}

// A package of size bytes signed as developer, seclab and client, in a
// directory that lives as long as the benchmark.
struct SignedPackage {
    explicit SignedPackage(std::size_t size) : path(dir.file("package"))
    {
        writeFile(path, patternBytes(size, 7));
        signFile(path, pki().developer(), framed());
        signFile(path, pki().seclab(), framed());
        signFile(path, pki().client(), framed());
    }
    TempDir dir;
    std::string path;
};

void ListSignatures(benchmark::State& state)
{
    SignedPackage package(static_cast<std::size_t>(state.range(0)));
    auto file = FileWithCmses::fromPath(package.path.c_str(), "r");
    for (auto _ : state)
        benchmark::DoNotOptimize(file->cmses());
}
BENCHMARK(ListSignatures)->Arg(1 << 20)->Arg(64 << 20)->Arg(256 << 20)->Unit(benchmark::kMicrosecond);

void VerifyPackage(benchmark::State& state)
{
    SignedPackage package(static_cast<std::size_t>(state.range(0)));
    auto file = FileWithCmses::fromPath(package.path.c_str(), "r");
    const std::string caPath = pki().ca().certPath;
    for (auto _ : state) {
        if (!file->verifyCmses(caPath.c_str()))
            state.SkipWithError("verification failed");
    }
    state.SetBytesProcessed(static_cast<int64_t>(state.iterations()) * state.range(0));
}
BENCHMARK(VerifyPackage)->Arg(1 << 20)->Arg(64 << 20)->Unit(benchmark::kMillisecond);

void SignPackage(benchmark::State& state)
{
    TempDir dir;
    std::string path = dir.file("package");
    Bytes contents = patternBytes(static_cast<std::size_t>(state.range(0)), 3);
    for (auto _ : state) {
        state.PauseTiming();
        writeFile(path, contents);
        state.ResumeTiming();
        if (!signFile(path, pki().developer()))
            state.SkipWithError("signing failed");
    }
    state.SetBytesProcessed(static_cast<int64_t>(state.iterations()) * state.range(0));
}
BENCHMARK(SignPackage)->Arg(1 << 20)->Arg(64 << 20)->Unit(benchmark::kMillisecond);

}  // namespace

BENCHMARK_MAIN();
