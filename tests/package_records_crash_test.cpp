// Recording a package is all or nothing, across processes: a child killed
// with SIGKILL at any point of insertPackage leaves the package's old rows or
// its new ones (with the key ids its signer rotated from superseded exactly
// in the second case), a sound file, and a next run that completes the work.
// Two processes recording and removing their own packages at once lose
// nothing either of them was told was committed.
#include <gtest/gtest.h>

#include <algorithm>
#include <chrono>
#include <fstream>
#include <functional>
#include <memory>
#include <set>
#include <sstream>
#include <stdexcept>
#include <string>
#include <utility>
#include <vector>

#include <unistd.h>

#include <sealkeep/database.hpp>

#include "support/database_fixture.hpp"
#include "support/files.hpp"
#include "support/kill_sweep.hpp"
#include "support/package_signatures.hpp"
#include "support/rotating_keys.hpp"
#include "support/sqlite_file.hpp"

namespace sealkeep::test {
namespace {

using PackageSignatures::Cms;
using PackageSignatures::Database;

const bool filesInMemory = preferFilesInMemory();

// Signatures made once per suite, in the parent, so that every forked child
// holds them already. Package p moves from developer a (with seclab) to b,
// which rotated from a, with a client signature.
std::vector<Bytes> oldSignatures, newSignatures, otherSignatures;

std::vector<Cms> cmsesOf(std::vector<Bytes> const& signatures)
{
    std::vector<Cms> cmses;
    for (Bytes const& der : signatures) {
        cmses.emplace_back(der);
        // Parsed before any counting starts: only the database is timed.
        cmses.back().certificate();
        cmses.back().rotationChain();
    }
    return cmses;
}

std::unique_ptr<Database> openDatabase(TrustFiles const& files)
{
    return std::make_unique<Database>(files.databasePath(), files.confPath());
}

// What is recorded for a package: its signers' key ids, sorted, and every
// revoked key id with its type.
Rows packageState(SqliteFile& file, std::string const& package)
{
    Rows state = file.queryTexts(
        "SELECT c.key FROM packages p JOIN certificates c ON c.id = p.certificateid WHERE p.id = "
        "'" + package + "' ORDER BY c.key");
    for (std::string const& row :
         file.queryRows("SELECT keyid, type FROM revoked_keyids ORDER BY keyid"))
        state.push_back("revoked " + row);
    return state;
}

class PackageRecordsCrash : public RotatingKeysTest {
protected:
    static void SetUpTestSuite()
    {
        RotatingKeysTest::SetUpTestSuite();
        TempDir dir;
        ChainPtr chain =
            writeRotationChain(dir.file("ab.chain"), {{identity('a'), identity('b')}});
        oldSignatures = {signedCms(identity('a')).data(), signedCms(pki->seclab()).data()};
        newSignatures = {signedCms(identity('b'), chain.get()).data(),
                         signedCms(pki->client()).data()};
        otherSignatures = {signedCms(identity('c')).data(), signedCms(pki->seclab()).data()};
    }

    static Rows sortedKeyids(std::vector<std::string> keyids)
    {
        std::sort(keyids.begin(), keyids.end());
        return keyids;
    }

    static Rows oldState() { return sortedKeyids({keyid('a'), keyidOf(pki->seclab())}); }

    static Rows newState()
    {
        Rows state = sortedKeyids({keyid('b'), keyidOf(pki->client())});
        state.push_back("revoked " + keyid('a') + "|0");
        return state;
    }

    static Rows otherState(Rows const& revoked)
    {
        Rows state = sortedKeyids({keyid('c'), keyidOf(pki->seclab())});
        state.insert(state.end(), revoked.begin(), revoked.end());
        return state;
    }
};

std::unique_ptr<Database> childDatabase;
std::vector<Cms> childSignatures;

Scenario recordingAPackageAgain(Rows const& oldState, Rows const& newState,
                                std::function<Rows(Rows const&)> const& otherState)
{
    Scenario scenario;
    scenario.setUp = [](TrustFiles const& files) {
        auto database = openDatabase(files);
        if (!database->insertPackage("p", cmsesOf(oldSignatures)) ||
            !database->insertPackage("q", cmsesOf(otherSignatures)))
            throw std::runtime_error("cannot record the packages to start from");
    };
    scenario.prepare = [](TrustFiles const& files) {
        childDatabase = openDatabase(files);
        childSignatures = cmsesOf(newSignatures);
    };
    scenario.work = [](TrustFiles const&) {
        if (!childDatabase->insertPackage("p", childSignatures))
            _exit(3);
    };
    scenario.checkAfterKill = [=](TrustFiles const& files) {
        SqliteFile file(files.databasePath());
        EXPECT_EQ("ok", file.integrityCheck());
        const Rows state = packageState(file, "p");
        EXPECT_TRUE(state == oldState || state == newState) << testing::PrintToString(state);
        const Rows revoked(state.end() - (state == newState ? 1 : 0), state.end());
        EXPECT_EQ(otherState(revoked), packageState(file, "q"));
    };
    scenario.completeAndCheck = [=](TrustFiles const& files) {
        EXPECT_TRUE(openDatabase(files)->insertPackage("p", cmsesOf(newSignatures)));
        SqliteFile file(files.databasePath());
        EXPECT_EQ("ok", file.integrityCheck());
        EXPECT_EQ(newState, packageState(file, "p"));
        EXPECT_EQ(otherState({newState.back()}), packageState(file, "q"));
    };
    return scenario;
}

TEST_F(PackageRecordsCrash, KilledBeforeEveryStatement)
{
    sweep(recordingAPackageAgain(oldState(), newState(), otherState), Trigger::Statement, 1000);
}

TEST_F(PackageRecordsCrash, KilledAtEveryStepOfTheStatements)
{
    sweep(recordingAPackageAgain(oldState(), newState(), otherState), Trigger::Progress, 1000);
}

TEST_F(PackageRecordsCrash, KilledBeforeEveryFileChange)
{
    sweep(recordingAPackageAgain(oldState(), newState(), otherState), Trigger::FileChange, 1000);
}

// One process's share of the concurrent run: for about two seconds it
// records packages named prefix0, prefix1, ... and removes every third one
// again, and writes the names it was told are recorded to keptPath. It fails
// on the first false result.
int recordAndRemove(TrustFiles const& files, std::string const& prefix,
                    std::vector<Bytes> const& signatures, std::string const& keptPath)
{
    Database database(files.databasePath(), files.confPath());
    const std::vector<Cms> cmses = cmsesOf(signatures);
    std::set<std::string> kept;
    const auto end = std::chrono::steady_clock::now() + std::chrono::seconds(2);
    for (int i = 0; std::chrono::steady_clock::now() < end; ++i) {
        const std::string name = prefix + std::to_string(i);
        if (!database.insertPackage(name, cmses))
            return 1;
        kept.insert(name);
        if (i % 3 == 2) {
            const std::string removed = prefix + std::to_string(i - 1);
            if (!database.removePackage(removed))
                return 1;
            kept.erase(removed);
        }
    }
    std::ofstream out(keptPath);
    for (std::string const& name : kept)
        out << name << "\n";
    return out.good() ? 0 : 1;
}

std::vector<std::string> linesOf(std::string const& path)
{
    std::vector<std::string> lines;
    std::istringstream in(readText(path));
    for (std::string line; std::getline(in, line);)
        lines.push_back(line);
    return lines;
}

TEST_F(PackageRecordsCrash, TwoProcessesRecordingAtOnceLoseNothing)
{
    TrustFiles files;
    openDatabase(files);
    const std::string keptA = files.file("a.kept"), keptB = files.file("b.kept");
    const std::vector<Outcome> results = runTogether(
        {[&] { return recordAndRemove(files, "alpha-", oldSignatures, keptA); },
         [&] { return recordAndRemove(files, "beta-", otherSignatures, keptB); }},
        files.file("recorder-"));
    ASSERT_EQ(0, results[0].exitCode) << results[0].errors;
    ASSERT_EQ(0, results[1].exitCode) << results[1].errors;

    const std::vector<std::string> alpha = linesOf(keptA), beta = linesOf(keptB);
    EXPECT_GT(alpha.size(), 10u);
    EXPECT_GT(beta.size(), 10u);
    // Exactly the rows of the packages each process was told it kept.
    Rows expected;
    for (auto const& [names, keyids] : {std::pair(alpha, oldState()), std::pair(beta, otherState({}))})
        for (std::string const& name : names)
            for (std::string const& keyid : keyids)
                expected.push_back(name + "|" + keyid);
    std::sort(expected.begin(), expected.end());
    SqliteFile file(files.databasePath());
    EXPECT_EQ("ok", file.integrityCheck());
    Rows recorded = file.queryRows(
        "SELECT p.id, c.key FROM packages p JOIN certificates c ON c.id = p.certificateid");
    std::sort(recorded.begin(), recorded.end());
    EXPECT_EQ(expected, recorded);
    EXPECT_EQ(Rows{}, file.queryRows("SELECT keyid, type FROM revoked_keyids"));
    // The certificate both processes use has one row.
    EXPECT_EQ(3, file.queryInt("SELECT COUNT(1) FROM certificates"));
}

}  // namespace
}  // namespace sealkeep::test
