// Speed of the trust database on a device with many installed packages:
//  - checkPackage, the decision asked before every install or update, over
//    databases of 100 and of 10,000 packages (three certificates each, 50
//    developers of whom 10 rotated their key, a few hundred revoked key ids).
//    Every lookup goes through an index, so the 10,000-package figure must
//    stay close to the 100-package one. Each run prints its floor beside
//    the figure: 50,000 decisions/s, and for 10,000 packages also the
//    100-package figure of the same run divided by 1.5, whichever is higher;
//  - ParseDeveloperSignature: what a decision would cost before the
//    database is asked if it decoded the developer's signature, its
//    certificate and its rotation chain afresh (checkPackage keeps them
//    decoded in the caller's list instead);
//  - insertPackage, recording a package in one transaction.
//
//   sealkeep_database_bench [--benchmark_filter=...]
//
// The databases live in /dev/shm when it exists: the decisions read pages
// from the cache either way, and recording 10,000 packages with a sync per
// commit would take minutes on a disk. Set TMPDIR to measure elsewhere.
#include <benchmark/benchmark.h>

#include <algorithm>
#include <chrono>
#include <cstdlib>
#include <map>
#include <memory>
#include <random>
#include <stdexcept>
#include <string>
#include <vector>

#include <time.h>
#include <unistd.h>

#include <sealkeep/sealkeep.hpp>

#include "support/database_fixture.hpp"
#include "support/files.hpp"
#include "support/package_signatures.hpp"
#include "support/pki.hpp"

namespace {

using namespace sealkeep::test;
using PackageSignatures::Cms;
using PackageSignatures::Database;
using sealkeep::ChainPtr;

constexpr int developerCount = 50;
constexpr int rotatedCount = 10;  // developers 0 to 9 signed after a key rotation
constexpr int revokedCount = 300;
constexpr double minimumDecisionsPerSecond = 50000;

const bool filesInMemory = [] {
    if (access("/dev/shm", W_OK) == 0)
        setenv("TMPDIR", "/dev/shm", 0);
    return true;
}();

// The signatures of the whole run, made once: one per developer (carrying
// the proof of its rotation for the first ten), one by seclab, one by client.
struct Signatures {
    Signatures()
    {
        for (int k = 0; k < developerCount; ++k) {
            const Identity developer = pki.issue("developer" + std::to_string(k), "developer");
            if (k < rotatedCount) {
                const Identity retired = pki.issue("retired" + std::to_string(k), "developer");
                ChainPtr chain = writeRotationChain(pki.dir().file("rotation" + std::to_string(k)),
                                                    {{retired, developer}});
                developers.push_back(signedCms(developer, chain.get()).data());
            } else {
                developers.push_back(signedCms(developer).data());
            }
        }
        seclab = signedCms(pki.seclab()).data();
        client = signedCms(pki.client()).data();
    }

    // What an installer holds for a package signed by developer k.
    std::vector<Cms> package(int k) const
    {
        return {Cms(developers[static_cast<std::size_t>(k % developerCount)]), Cms(seclab),
                Cms(client)};
    }

    Pki pki;
    std::vector<Bytes> developers;
    Bytes seclab, client;
};

Signatures const& signatures()
{
    static Signatures shared;
    return shared;
}

// Processor time of the whole process, user and kernel.
double processorSeconds()
{
    timespec now{};
    clock_gettime(CLOCK_PROCESS_CPUTIME_ID, &now);
    return static_cast<double>(now.tv_sec) + static_cast<double>(now.tv_nsec) / 1e9;
}

std::string packageName(int i)
{
    return "package-" + std::to_string(i);
}

// A device with `count` installed packages, package i signed by developer
// i mod 50, and revoked key ids that belong to nobody installed.
struct InstalledBase {
    explicit InstalledBase(int count)
        : database(std::make_unique<Database>(files.databasePath(), files.confPath()))
    {
        std::mt19937 random(count);
        for (int i = 0; i < revokedCount; ++i) {
            std::string keyid;
            for (int digit = 0; digit < 64; ++digit)
                keyid += "0123456789abcdef"[random() % 16];
            database->insertRevokedKeyid(keyid, i % 2 ? Database::Blacklisted : Database::Superseded);
        }
        for (int i = 0; i < count; ++i)
            if (!database->insertPackage(packageName(i), signatures().package(i)))
                throw std::runtime_error("cannot record " + packageName(i));
    }

    TrustFiles files;
    std::unique_ptr<Database> database;
};

InstalledBase& installed(int count)
{
    static std::map<int, std::unique_ptr<InstalledBase>> bases;
    auto& base = bases[count];
    if (!base)
        base = std::make_unique<InstalledBase>(count);
    return *base;
}

// Updates of installed packages by their own developers: each decision
// passes every check (signer and chain not revoked, installed developer
// decoded and compared), so none stops early.
void CheckPackage(benchmark::State& state)
{
    const int count = static_cast<int>(state.range(0));
    Database& database = *installed(count).database;
    std::vector<std::vector<Cms>> updates;
    std::vector<std::string> names;
    for (int i = 0; i < count; ++i)
        names.push_back(packageName(i));
    for (int k = 0; k < developerCount; ++k)
        updates.push_back(signatures().package(k));

    int i = 0;
    const auto start = std::chrono::steady_clock::now();
    const double cpuStart = processorSeconds();
    for (auto _ : state) {
        // A stride prime to the count visits the packages out of order.
        const int package = static_cast<int>((static_cast<long>(i++) * 7919) % count);
        if (database.checkPackage(names[package], updates[package % developerCount], false) !=
            PackageSignatures::Accepted)
            state.SkipWithError("update refused");
    }
    const double iterations = static_cast<double>(state.iterations());
    const std::chrono::duration<double> elapsed = std::chrono::steady_clock::now() - start;
    // Judged on processor time (the process's, kernel time included: the
    // file locks are a good part of a decision), which other work on a busy
    // machine does not inflate; the rate by the wall clock is printed beside.
    const double rate = iterations / (processorSeconds() - cpuStart);

    // The floor: the target rate, and the cost must not grow with the number
    // of installed packages (at most 1.5 times the smallest base's cost).
    static std::map<int, double> rates;
    rates[count] = std::max(rates[count], rate);
    double floor = minimumDecisionsPerSecond;
    if (count != rates.begin()->first)
        floor = std::max(floor, rates.begin()->second / 1.5);
    state.counters["decisions/s"] = rate;
    state.counters["floor/s"] = floor;
    state.counters["ratio"] = rate / floor;
    state.counters["wall decisions/s"] = iterations / elapsed.count();
}
BENCHMARK(CheckPackage)->Arg(100)->Arg(10000)->Unit(benchmark::kMicrosecond);

void ParseDeveloperSignature(benchmark::State& state)
{
    std::vector<std::vector<Cms>> updates;
    for (int k = 0; k < developerCount; ++k)
        updates.push_back(signatures().package(k));
    int i = 0;
    for (auto _ : state) {
        const auto developer = PackageSignatures::developerCmsFromVector(updates[i++ % developerCount]);
        benchmark::DoNotOptimize(developer->certificate()->keyId());
        benchmark::DoNotOptimize(developer->rotationChain()->previousKeyids());
    }
    state.counters["decisions/s"] =
        benchmark::Counter(static_cast<double>(state.iterations()), benchmark::Counter::kIsRate);
}
BENCHMARK(ParseDeveloperSignature)->Unit(benchmark::kMicrosecond);

void InsertPackage(benchmark::State& state)
{
    InstalledBase base(100);
    std::vector<std::vector<Cms>> packages;
    for (int k = 0; k < developerCount; ++k)
        packages.push_back(signatures().package(k));
    int i = 0;
    for (auto _ : state) {
        if (!base.database->insertPackage("new-" + std::to_string(i), packages[i % developerCount]))
            state.SkipWithError("cannot record");
        ++i;
    }
    state.counters["packages/s"] =
        benchmark::Counter(static_cast<double>(state.iterations()), benchmark::Counter::kIsRate);
}
BENCHMARK(InsertPackage)->Unit(benchmark::kMicrosecond)->UseRealTime();

}  // namespace

BENCHMARK_MAIN();
