// Writes of the command against what a release pipeline meets: several
// signers of one package at once, a file-size limit, a full file system, and
// kills at random moments while a large package is signed. Whatever happens,
// the package holds exactly the signatures it had or exactly those of the
// commands that reported success.
#include <algorithm>
#include <chrono>
#include <map>
#include <random>
#include <string>
#include <thread>
#include <vector>

#include <sys/stat.h>

#include <gtest/gtest.h>

#include <sealkeep/sealkeep.hpp>

#include "support/cli_test.hpp"
#include "support/files.hpp"
#include "support/process.hpp"
#include "support/rpm_builder.hpp"
#include "support/signing.hpp"

namespace {

using namespace sealkeep::test;
using PackageSignatures::Certificate;
using PackageSignatures::FileWithCmses;
using PackageSignatures::Group;

class CliWriteLimits : public CliTest {
protected:
    std::vector<Group> stackGroups(std::string const& path) const
    {
        std::vector<Group> groups;
        for (auto const& cms : FileWithCmses::fromPath(path.c_str(), "r")->cmses()) {
            auto certificate = cms.certificate();
            groups.push_back(certificate && certificate->get() ? certificate->group() : Group::None);
        }
        return groups;
    }

    Identity const& identityOf(Group group) const
    {
        return group == Group::Developer ? pki->developer() : group == Group::Seclab ? pki->seclab() : pki->client();
    }

    std::string signCommandLine(std::string const& package, Group group, int i) const
    {
        Identity const& who = identityOf(group);
        std::string out = work.file("out" + std::to_string(i));
        return shellQuoted(SEALKEEP_CLI) + " sign " + shellQuoted(package) + " --cert " + shellQuoted(who.certPath) +
               " --key " + shellQuoted(who.keyPath) + " --wait 60 >" + out + ".txt 2>" + out + ".err; echo $? >" +
               out + ".status";
    }
};

// Two to four signers of one package at once: they take turns, each plans
// from what the one before left, and the stack always verifies.
TEST_F(CliWriteLimits, SignersOfOnePackageAtOnceTakeTurns)
{
    const std::vector<std::pair<std::vector<Group>, std::vector<Group>>> rounds{
        {{}, {Group::Developer, Group::Developer}},
        {{Group::Developer}, {Group::Seclab, Group::Client}},
        {{Group::Developer}, {Group::Seclab, Group::Client, Group::Client, Group::Seclab}},
        {{}, {Group::Developer, Group::Seclab, Group::Client}},
        {{Group::Developer}, {Group::Client, Group::Client, Group::Client}},
    };
    std::string package = work.file("shared.rpm");
    for (int round = 0; round < 50; ++round) {
        auto const& [already, signers] = rounds[round % rounds.size()];
        writeFile(package, readFile(rpmTemplate));
        for (Group group : already)
            ASSERT_EQ(signAs(identityOf(group), package).exitCode, 0);
        std::string script;
        for (std::size_t i = 0; i < signers.size(); ++i)
            script += "(" + signCommandLine(package, signers[i], static_cast<int>(i)) + ") & ";
        script += "wait";
        ASSERT_EQ(runShell(script).exitCode, 0);

        std::vector<Group> expected = already;
        std::string where = "round " + std::to_string(round);
        for (std::size_t i = 0; i < signers.size(); ++i) {
            std::string out = work.file("out" + std::to_string(i));
            std::string status = readText(out + ".status");
            std::string errors = readText(out + ".err");
            if (status == "0\n") {
                expected.push_back(signers[i]);
                EXPECT_EQ(errors, "") << where;
            } else {
                EXPECT_EQ(status, "1\n") << where << ": " << errors;
                EXPECT_NE(errors.find(": not signed: a "), std::string::npos) << where << ": " << errors;
                EXPECT_NE(errors.find(" signature cannot take the next position of the stack as it stands"),
                          std::string::npos)
                    << where << ": " << errors;
            }
        }
        std::vector<Group> found = stackGroups(package);
        // The successful signers, in some order the stack rule allows.
        std::vector<Group> sortedFound = found, sortedExpected = expected;
        std::sort(sortedFound.begin(), sortedFound.end());
        std::sort(sortedExpected.begin(), sortedExpected.end());
        EXPECT_EQ(sortedFound, sortedExpected) << where;
        EXPECT_TRUE(verifyFile(package, pki->ca().certPath)) << where;
        if (HasFailure())
            return;
    }
}

TEST_F(CliWriteLimits, AWriterWaitsABoundedTimeThenSaysAnotherIsWriting)
{
    std::string package = freshPackage();
    Bytes before = readFile(package);
    // flock(1) holds the package's lock for three seconds.
    std::thread holder([&] { runCommand({"flock", package, "sleep", "3"}); });
    std::this_thread::sleep_for(std::chrono::milliseconds(500));
    auto result = signAs(pki->developer(), package, {"--wait", "0.5"});
    auto strip = run({"strip", package, "--wait", "0.2"});
    holder.join();
    EXPECT_EQ(result.exitCode, 1);
    EXPECT_EQ(result.errors, "sealkeep: " + package + ": not signed: another process is writing it (waited 0.5 s)\n");
    EXPECT_EQ(strip.exitCode, 1);
    EXPECT_EQ(strip.errors, "sealkeep: " + package + ": not stripped: another process is writing it (waited 0.2 s)\n");
    EXPECT_EQ(readFile(package), before);
}

// Nothing is waited for or written on a file that is not a regular file.
TEST_F(CliWriteLimits, AFileThatIsNotRegularIsRefusedAtOnce)
{
    std::string fifo = work.file("fifo.rpm");
    ASSERT_EQ(mkfifo(fifo.c_str(), 0600), 0);
    for (std::string const& path : {fifo, std::string("/dev/null")}) {
        auto sign = runSealkeepWithin(10, work.path(),
                                      {"sign", path, "--cert", pki->developer().certPath, "--key",
                                       pki->developer().keyPath});
        EXPECT_EQ(sign.exitCode, 1);
        EXPECT_EQ(sign.errors, "sealkeep: " + path + ": not signed: not a regular file\n");
        auto strip = runSealkeepWithin(10, work.path(), {"strip", path});
        EXPECT_EQ(strip.exitCode, 1);
        EXPECT_EQ(strip.errors, "sealkeep: " + path + ": not stripped: not a regular file\n");
    }
}

// The limit as a shell's ulimit sets it, SIGXFSZ left at its default: the
// command ignores the signal, its write fails with EFBIG, and the package
// keeps all it had.
TEST_F(CliWriteLimits, AFileSizeLimitLeavesThePackageAsItWas)
{
    std::string package = freshPackage();
    const std::size_t bare = readFile(package).size();
    for (Identity const* who : {&pki->developer(), &pki->seclab()})
        ASSERT_EQ(signAs(*who, package).exitCode, 0);
    Bytes before = readFile(package);
    // A client block appended, and a developer replacement (which makes the
    // package smaller, so its limit is the bare package's size).
    const std::vector<std::pair<std::size_t, std::vector<std::string>>> cases{
        {before.size() + 5, {"sign", package, "--cert", pki->client().certPath, "--key", pki->client().keyPath}},
        {bare + 5,
         {"sign", package, "--cert", pki->developer().certPath, "--key", pki->developer().keyPath, "--replace"}}};
    for (auto const& [bytes, args] : cases) {
        std::vector<std::string> argv{"prlimit", "--fsize=" + std::to_string(bytes), SEALKEEP_CLI};
        argv.insert(argv.end(), args.begin(), args.end());
        auto result = runCommand(argv);
        std::string group = args[3] == pki->client().certPath ? "client" : "developer";
        EXPECT_EQ(result.exitCode, 1) << result.errors;
        EXPECT_NE(result.errors.find("sealkeep: cannot write a new version of " + package +
                                     " beside it: File too large\n"),
                  std::string::npos)
            << result.errors;
        EXPECT_NE(result.errors.find(package + ": not signed: signing as " + group +
                                     " failed; the package is left as it was\n"),
                  std::string::npos)
            << result.errors;
        EXPECT_EQ(readFile(package), before);
    }
    auto below = runCommand({"prlimit", "--fsize=1000", SEALKEEP_CLI, "sign", package, "--cert",
                             pki->client().certPath, "--key", pki->client().keyPath});
    EXPECT_EQ(below.exitCode, 1);
    EXPECT_EQ(below.errors, "sealkeep: " + package + ": not signed: the file-size limit of this process (1000 bytes) "
                            "is not above the size of the package it would write (" + std::to_string(before.size()) + " bytes)\n");
    EXPECT_EQ(below.output, "");
    EXPECT_EQ(readFile(package), before);
}

// A file system with room for the package but not for its new version.
TEST_F(CliWriteLimits, AFullFileSystemLeavesThePackageAsItWas)
{
    if (runShell("unshare -m true 2>/dev/null").exitCode != 0)
        GTEST_SKIP() << "cannot make a private mount namespace here (needs root)";
    std::string package = freshPackage();
    for (Identity const* who : {&pki->developer(), &pki->seclab()})
        ASSERT_EQ(signAs(*who, package).exitCode, 0);
    Bytes before = readFile(package);
    std::string disk = work.file("disk");
    std::string size = std::to_string((before.size() / 4096 + 2) * 4096);
    std::string script = "mkdir -p " + disk + " && mount -t tmpfs -o size=" + size + " tmpfs " + disk + " && cp " +
                         package + " " + disk + "/p.rpm && ASAN_OPTIONS=detect_leaks=0 " + SEALKEEP_CLI +
                         " sign " + disk + "/p.rpm --cert " + pki->client().certPath + " --key " +
                         pki->client().keyPath + "; echo status $?; cmp " + package + " " + disk +
                         "/p.rpm && echo unchanged; ls -A " + disk;
    auto result = runCommand({"unshare", "-m", "--propagation", "private", "sh", "-c", script});
    EXPECT_NE(result.output.find("status 1\n"), std::string::npos) << result.output << result.errors;
    EXPECT_NE(result.output.find("unchanged\np.rpm\n"), std::string::npos) << result.output;
    EXPECT_NE(result.errors.find("No space left on device"), std::string::npos) << result.errors;
}

// A 50 MB package signed as developer (replacing its stack) and as client,
// killed at random moments of the run.
TEST_F(CliWriteLimits, ALargePackageKilledAtRandomMomentsKeepsItsStack)
{
    Bytes noise = patternBytes(50 << 20, 9);
    std::string large = buildRpm(work.path(), "large",
                                 {regularFile("/usr/share/large/blob", std::string(noise.begin(), noise.end())),
                                  regularFile("/usr/share/large/small", "small\n")},
                                 "zstd", 1);
    std::string package = work.file("large.rpm");
    writeFile(package, readFile(large));
    Bytes bare = readFile(package);
    ASSERT_GE(bare.size(), 50u << 20);
    for (Identity const* who : {&pki->developer(), &pki->seclab()})
        ASSERT_EQ(signAs(*who, package).exitCode, 0);
    Bytes twoSigned = readFile(package);

    std::mt19937 random(20261125);
    for (bool developer : {true, false}) {
        Identity const& who = developer ? pki->developer() : pki->client();
        std::vector<std::string> args{SEALKEEP_CLI, "sign", package, "--cert", who.certPath, "--key", who.keyPath};
        if (developer)
            args.push_back("--replace");
        writeFile(package, twoSigned);
        auto started = std::chrono::steady_clock::now();
        ASSERT_EQ(runCommand(args).exitCode, 0);
        auto full = std::chrono::duration_cast<std::chrono::milliseconds>(std::chrono::steady_clock::now() - started);
        for (int round = 0; round < 8; ++round) {
            writeFile(package, twoSigned);
            auto delay = std::uniform_int_distribution<long>(0, full.count())(random);
            std::string line = "timeout -s KILL " + std::to_string(delay / 1000.0) + " " + shellQuoted(args[0]);
            for (std::size_t i = 1; i < args.size(); ++i)
                line += " " + shellQuoted(args[i]);
            runShell(line + " >/dev/null 2>&1");
            Bytes now = readFile(package);
            std::string where = (developer ? "developer" : "client") + std::string(" killed after ") +
                                std::to_string(delay) + " ms";
            if (now == twoSigned)
                continue;
            Bytes const& kept = developer ? bare : twoSigned;
            ASSERT_GT(now.size(), kept.size()) << where;
            EXPECT_TRUE(std::equal(kept.begin(), kept.end(), now.begin())) << where;
            EXPECT_EQ(stackGroups(package).size(), developer ? 1u : 3u) << where;
            EXPECT_TRUE(verifyFile(package, pki->ca().certPath)) << where;
        }
    }
}

}  // namespace
