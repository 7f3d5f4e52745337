// Every write of the command killed at every step. Each scenario is first
// run under strace to count the system calls that change files (writes,
// truncations, renames, links, syncs, copies); then, from the same starting
// state, it is killed with SIGKILL at each of them in turn, and interrupted
// with SIGINT and SIGTERM there too. After every kill the file must be
// exactly as it was or exactly as the completed command leaves it, and a
// later run must leave no temporary file behind.
#include <map>
#include <sstream>
#include <string>
#include <vector>

#include <dirent.h>

#include <gtest/gtest.h>

#include <sealkeep/sealkeep.hpp>

#include "support/cli_test.hpp"
#include "support/files.hpp"
#include "support/process.hpp"
#include "support/signing.hpp"

namespace {

using namespace sealkeep::test;
using PackageSignatures::FileWithCmses;
using PackageSignatures::RotationChain;

const std::vector<std::string> fileChangingCalls{"write",    "pwrite64", "ftruncate",  "rename",
                                                 "renameat", "renameat2", "linkat",    "fsync",
                                                 "fdatasync", "copy_file_range", "sync_file_range"};

std::string joined(std::vector<std::string> const& names)
{
    std::string text;
    for (auto const& name : names)
        text += (text.empty() ? "" : ",") + name;
    return text;
}

// LeakSanitizer cannot work in a traced process; the same runs untraced
// keep it.
const std::vector<std::string> underTrace{"ASAN_OPTIONS=detect_leaks=0"};

bool haveStrace()
{
    return runShell("command -v strace >/dev/null").exitCode == 0;
}

// What one scenario does and what it may leave.
struct Scenario {
    std::string name;
    std::function<void()> setUp;             // the starting state
    std::vector<std::string> args;           // the command, absolute paths
    std::function<void(std::string const&)> checkOldOrNew;  // after an interruption
    std::function<void()> checkCompleted;    // after an uninterrupted run
    std::vector<std::string> mustMake;       // calls the write cannot do without
};

class CliWriteCrash : public CliTest {
protected:
    void SetUp() override
    {
        if (!haveStrace())
            GTEST_SKIP() << "strace is not installed (scripts/install-deps.sh installs it)";
        bare = readFile(freshPackage("template.rpm"));
        package = work.file("package.rpm");
        writeFile(package, bare);
        for (Identity const* who : {&pki->developer(), &pki->seclab(), &pki->client()}) {
            ASSERT_EQ(signAs(*who, package).exitCode, 0);
            stacks.push_back(readFile(package));
        }
    }

    std::vector<std::string> signArgs(Identity const& who, bool replace) const
    {
        std::vector<std::string> args{"sign", package, "--cert", who.certPath, "--key", who.keyPath};
        if (replace)
            args.push_back("--replace");
        return args;
    }

    std::size_t signatureCount() const { return FileWithCmses::fromPath(package.c_str(), "r")->cmses().size(); }

    // Exactly before, or a package that begins with kept, verifies and
    // carries count signatures.
    void expectPackage(Bytes const& before, Bytes const& kept, std::size_t count, std::string const& where) const
    {
        Bytes now = readFile(package);
        if (now == before)
            return;
        ASSERT_GT(now.size(), kept.size()) << where;
        EXPECT_TRUE(std::equal(kept.begin(), kept.end(), now.begin())) << where;
        EXPECT_EQ(signatureCount(), count) << where;
        EXPECT_TRUE(verifyFile(package, pki->ca().certPath)) << where;
    }

    // Exactly before or exactly after.
    void expectExactly(Bytes const& before, Bytes const& after, std::string const& where) const
    {
        Bytes now = readFile(package);
        EXPECT_TRUE(now == before || now == after) << where << ": " << now.size() << " bytes";
    }

    // The names in the working directory that a killed run may leave and a
    // later run must remove.
    std::vector<std::string> leftovers() const
    {
        std::vector<std::string> found;
        DIR* directory = opendir(work.path().c_str());
        while (dirent* entry = readdir(directory))
            if (std::string(entry->d_name).find(".sealkeep-") != std::string::npos)
                found.push_back(entry->d_name);
        closedir(directory);
        return found;
    }

    std::vector<std::string> command(std::vector<std::string> const& args) const
    {
        std::vector<std::string> argv{SEALKEEP_CLI};
        argv.insert(argv.end(), args.begin(), args.end());
        return argv;
    }

    // For each file-changing call the scenario makes, the ordinals (1 for
    // the first such call) of those that change a file: writes to pipes and
    // terminals (the command's output, a sanitizer's own probes) are passed
    // over.
    std::map<std::string, std::vector<int>> fileCalls(Scenario const& scenario) const
    {
        scenario.setUp();
        std::string log = work.file("strace.log");
        std::vector<std::string> argv{"strace", "-f", "-qq", "-y", "-o", log, "-e",
                                      "trace=" + joined(fileChangingCalls)};
        auto traced = command(scenario.args);
        argv.insert(argv.end(), traced.begin(), traced.end());
        auto result = runCommand(argv, underTrace);
        EXPECT_EQ(result.exitCode, 0) << scenario.name << ": " << result.errors;
        std::map<std::string, int> seen;
        std::map<std::string, std::vector<int>> calls;
        std::istringstream lines(readText(log));
        // "PID NAME(FIRST-ARGUMENT, ...": a call that was begun (not a
        // resumption); -y shows what a descriptor argument is.
        for (std::string line; std::getline(lines, line);) {
            std::size_t name = line.find_first_not_of("0123456789 ");
            std::size_t open = line.find('(', name);
            if (name == std::string::npos || name == 0 || open == std::string::npos)
                continue;
            std::string call = line.substr(name, open - name);
            int ordinal = ++seen[call];
            std::string first = line.substr(open + 1, line.find_first_of(",)", open) - open - 1);
            if (first.find("pipe:") == std::string::npos && first.find("socket:") == std::string::npos &&
                first.find("</dev/") == std::string::npos)
                calls[call].push_back(ordinal);
        }
        std::remove(log.c_str());
        scenario.checkCompleted();
        return calls;
    }

    void sweep(Scenario const& scenario, std::string const& signal)
    {
        auto calls = fileCalls(scenario);
        for (auto const& call : scenario.mustMake)
            EXPECT_TRUE(calls.count(call)) << scenario.name << " makes no " << call;
        for (auto const& [call, ordinals] : calls) {
            for (int n : ordinals) {
                scenario.setUp();
                std::vector<std::string> argv{"strace", "-f", "-qq", "-o", "/dev/null", "-e", "trace=" + call,
                                              "-e", "inject=" + call + ":signal=" + signal + ":when=" + std::to_string(n)};
                auto traced = command(scenario.args);
                argv.insert(argv.end(), traced.begin(), traced.end());
                auto interrupted = runCommand(argv, underTrace);
                std::string where = scenario.name + ", " + signal + " at " + call + " #" + std::to_string(n);
                if (signal == "KILL") {
                    scenario.checkOldOrNew(where);
                } else {
                    // Every call counted comes once the package is locked: the
                    // signal is held until the write is complete, then the
                    // command ends by it (strace passes that on).
                    EXPECT_EQ(interrupted.exitCode, -1) << where << ": " << interrupted.errors;
                    SCOPED_TRACE(where);
                    scenario.checkCompleted();
                }
                if (HasFailure())
                    return;
                // A later run completes the work and removes what the killed
                // one left.
                auto again = runCommand(command(scenario.args));
                EXPECT_TRUE(leftovers().empty()) << where;
            }
        }
    }

    std::vector<Scenario> packageScenarios()
    {
        Bytes developerOnly = stacks[0], twoSigned = stacks[1], threeSigned = stacks[2];
        auto from = [this](Bytes const& state) { return [this, state] { writeFile(package, state); }; };
        const std::vector<std::string> replacing{"copy_file_range", "write", "fsync", "linkat", "renameat"};
        const std::vector<std::string> truncating{"ftruncate", "fsync"};
        std::vector<Scenario> all;
        all.push_back({"client appended", from(twoSigned), signArgs(pki->client(), false),
                       [=](std::string const& where) { expectPackage(twoSigned, twoSigned, 3, where); },
                       [=] { expectPackage({}, twoSigned, 3, "client appended"); }, replacing});
        all.push_back({"developer replaced", from(threeSigned), signArgs(pki->developer(), true),
                       [=](std::string const& where) { expectPackage(threeSigned, bare, 1, where); },
                       [=] { expectPackage({}, bare, 1, "developer replaced"); }, replacing});
        all.push_back({"seclab replaced", from(twoSigned), signArgs(pki->seclab(), true),
                       [=](std::string const& where) { expectPackage(twoSigned, developerOnly, 2, where); },
                       [=] { expectPackage({}, developerOnly, 2, "seclab replaced"); }, replacing});
        all.push_back({"client replaced", from(threeSigned), signArgs(pki->client(), true),
                       [=](std::string const& where) { expectPackage(threeSigned, twoSigned, 3, where); },
                       [=] { expectPackage({}, twoSigned, 3, "client replaced"); }, replacing});
        all.push_back({"stripped", from(threeSigned), {"strip", package},
                       [=](std::string const& where) { expectExactly(threeSigned, bare, where); },
                       [=] { EXPECT_EQ(readFile(package), bare); }, truncating});
        all.push_back({"last stripped", from(threeSigned), {"strip", "--last", package},
                       [=](std::string const& where) { expectExactly(threeSigned, twoSigned, where); },
                       [=] { EXPECT_EQ(readFile(package), twoSigned); }, truncating});
        return all;
    }

    Bytes bare;
    std::string package;
    std::vector<Bytes> stacks;  // after the developer, seclab and client signatures
};

TEST_F(CliWriteCrash, PackageWritesKilledAtEveryCall)
{
    for (auto const& scenario : packageScenarios()) {
        sweep(scenario, "KILL");
        if (HasFailure())
            return;
    }
}

// An interruption is held while a package is written, then honoured.
TEST_F(CliWriteCrash, PackageWritesInterruptedAtEveryCall)
{
    auto scenarios = packageScenarios();
    for (std::string signal : {"INT", "TERM", "HUP"})
        for (auto const& scenario : scenarios) {
            sweep(scenario, signal);
            if (HasFailure())
                return;
        }
}

// attach writes as sign does: a signature made elsewhere, attached to the
// package it was prepared for, is killed at every call.
TEST_F(CliWriteCrash, AttachKilledAtEveryCall)
{
    Bytes twoSigned = stacks[1], threeSigned = stacks[2];
    // The signature file for who's signature on the package as state.
    auto signatureFor = [this](Bytes const& state, Identity const& who, bool replace, std::string const& name) {
        writeFile(package, state);
        std::vector<std::string> prepare{"prepare", package, "--cert", who.certPath, "-o", work.file(name + ".req")};
        if (replace)
            prepare.push_back("--replace");
        EXPECT_EQ(runSealkeep(work.path(), prepare).exitCode, 0);
        EXPECT_EQ(runSealkeep(work.path(), {"sign-request", work.file(name + ".req"), "--cert", who.certPath, "--key",
                                            who.keyPath, "-o", work.file(name + ".sig")})
                      .exitCode,
                  0);
        return work.file(name + ".sig");
    };
    std::string client = signatureFor(twoSigned, pki->client(), false, "client");
    std::string developer = signatureFor(threeSigned, pki->developer(), true, "developer");
    auto from = [this](Bytes const& state) { return [this, state] { writeFile(package, state); }; };
    const std::vector<std::string> replacing{"copy_file_range", "write", "fsync", "linkat", "renameat"};
    std::vector<Scenario> all;
    all.push_back({"client attached", from(twoSigned), {"attach", package, client},
                   [=](std::string const& where) { expectPackage(twoSigned, twoSigned, 3, where); },
                   [=] { expectPackage({}, twoSigned, 3, "client attached"); }, replacing});
    all.push_back({"developer attached as a replacement", from(threeSigned), {"attach", package, developer},
                   [=](std::string const& where) { expectPackage(threeSigned, bare, 1, where); },
                   [=] { expectPackage({}, bare, 1, "developer attached as a replacement"); }, replacing});
    for (auto const& scenario : all) {
        sweep(scenario, "KILL");
        if (HasFailure())
            return;
    }
}

TEST_F(CliWriteCrash, CertificateAndChainWritesKilledAtEveryCall)
{
    std::string certificate = work.file("issued.pem");
    generateKey(work.file("issued.key"));
    writeRequest(work.file("issued.key"), work.file("issued.csr"), "issued");
    Scenario issue{"ca issue",
                   [=] { std::remove(certificate.c_str()); },
                   {"ca", "issue", certificate, "--csr", work.file("issued.csr"), "--ca-key", pki->ca().keyPath,
                    "--ca-cert", pki->ca().certPath, "--group", "developer"},
                   [=](std::string const& where) {
                       // Absent, or a whole certificate of the CA.
                       if (fileExists(certificate)) {
                           EXPECT_TRUE(PackageSignatures::Certificate::readCertificateFromFile(certificate.c_str()).get())
                               << where;
                       }
                   },
                   [=] { EXPECT_TRUE(PackageSignatures::Certificate::readCertificateFromFile(certificate.c_str()).get()); },
                   {"write", "fsync", "rename"}};
    sweep(issue, "KILL");

    Identity a = pki->issue("crash-a", "developer");
    Identity b = pki->issue("crash-b", "developer");
    Identity c = pki->issue("crash-c", "developer");
    std::string chain = work.file("chain.pem");
    ASSERT_EQ(run({"rotate", chain, "--old-cert", a.certPath, "--old-key", a.keyPath, "--new-cert", b.certPath,
                   "--new-key", b.keyPath})
                  .exitCode,
              0);
    Bytes oneRotation = readFile(chain);
    Scenario append{"rotate --append",
                    [=] { writeFile(chain, oneRotation); },
                    {"rotate", chain, "--append", "--old-cert", b.certPath, "--old-key", b.keyPath, "--new-cert",
                     c.certPath, "--new-key", c.keyPath},
                    [=](std::string const& where) {
                        if (readFile(chain) != oneRotation) {
                            EXPECT_EQ(RotationChain::fromFile(chain.c_str()).rotations().size(), 2u) << where;
                        }
                    },
                    [=] { EXPECT_EQ(RotationChain::fromFile(chain.c_str()).rotations().size(), 2u); },
                    {"write", "fsync", "rename"}};
    sweep(append, "KILL");
}

}  // namespace
