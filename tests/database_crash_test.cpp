// Processes that die or overlap: a child is killed with SIGKILL at every
// chosen point of opening, upgrading or updating the database, and the file
// it leaves must hold either the old state or the new one, pass SQLite's
// integrity check, and be completed by the next open. Two processes writing
// the same file at once must both succeed without damaging it.
#include <gtest/gtest.h>
#include <sqlite3.h>

#include <algorithm>
#include <memory>

#include <sealkeep/database.hpp>

#include "support/database_fixture.hpp"
#include "support/database_processes.hpp"
#include "support/kill_sweep.hpp"
#include "support/files.hpp"
#include "support/sqlite_file.hpp"

using namespace sealkeep::test;
using PackageSignatures::Database;

namespace {

// The kills are of processes, not of the machine: what a killed process
// leaves is what it wrote, whatever the file system makes of its syncs. So
// the files may live in memory, which keeps the hundreds of runs below fast.
const bool filesInMemory = preferFilesInMemory();

std::unique_ptr<Database> openDatabase(TrustFiles const& files)
{
    return std::make_unique<Database>(files.databasePath(), files.confPath());
}

// A database a child opens in one step and uses in the next.
std::unique_ptr<Database> childDatabase;

const KeyValues revokeOnBind{{"b1", "blacklisted"}, {"b2", "superseded"}, {"b3", "blacklisted"}};
const Rows revokeOnBindRows{"b1|1", "b2|0", "b3|1"};

Rows revokedRows(SqliteFile& file)
{
    return file.queryRows("SELECT keyid, type FROM revoked_keyids ORDER BY keyid");
}

void expectFinalState(SqliteFile& file, Rows const& revoked)
{
    EXPECT_EQ("ok", file.integrityCheck());
    EXPECT_EQ(4, file.userVersion());
    EXPECT_EQ(currentTables, file.tables());
    EXPECT_EQ(revoked, revokedRows(file));
}

// A fresh file is created in one transaction: it has nothing or everything.
Scenario freshFile()
{
    Scenario scenario;
    scenario.setUp = [](TrustFiles const& files) { files.writeRevocation({}, revokeOnBind); };
    scenario.prepare = [](TrustFiles const&) {};
    scenario.work = [](TrustFiles const& files) { openDatabase(files); };
    scenario.checkAfterKill = [](TrustFiles const& files) {
        SqliteFile file(files.databasePath());
        EXPECT_EQ("ok", file.integrityCheck());
        if (file.tables().empty()) {
            EXPECT_EQ(0, file.userVersion());
            return;
        }
        expectFinalState(file, revokeOnBindRows);
    };
    scenario.completeAndCheck = [](TrustFiles const& files) {
        EXPECT_EQ("", stderrOf([&] { openDatabase(files); }));
        SqliteFile file(files.databasePath());
        expectFinalState(file, revokeOnBindRows);
    };
    return scenario;
}

// Each version between 0 and 4 has its own tables; a file that died during
// an upgrade must be at one of them, exactly.
void expectSchemaOfVersion(SqliteFile& file, int version)
{
    const Rows withSubgroup{"id", "key", "certificate", "subject", "group_id", "subgroup_id"};
    const Rows withoutSubgroup{"id", "key", "certificate", "subject", "group_id"};
    switch (version) {
    case 0:
        EXPECT_EQ((Rows{"certificates", "groups", "packages"}), file.tables());
        EXPECT_EQ(withoutSubgroup, file.columns("certificates"));
        break;
    case 1:
        EXPECT_EQ((Rows{"certificates", "groups", "packages", "subgroups"}), file.tables());
        EXPECT_EQ(withSubgroup, file.columns("certificates"));
        break;
    case 2:
        EXPECT_EQ(currentTables, file.tables());
        EXPECT_EQ((Rows{"id", "keyid"}), file.columns("revoked_keyids"));
        break;
    case 3:
        EXPECT_EQ(currentTables, file.tables());
        EXPECT_EQ((Rows{"id", "keyid", "type"}), file.columns("revoked_keyids"));
        EXPECT_EQ(Rows{}, revokedRows(file));
        break;
    case 4:
        expectFinalState(file, revokeOnBindRows);
        break;
    default:
        ADD_FAILURE() << "version " << version;
    }
}

Scenario upgradeFromVersion0()
{
    Scenario scenario = freshFile();
    scenario.setUp = [](TrustFiles const& files) {
        files.writeRevocation({}, revokeOnBind);
        createOldDatabase(files.databasePath(), 0);
    };
    scenario.checkAfterKill = [](TrustFiles const& files) {
        SqliteFile file(files.databasePath());
        EXPECT_EQ("ok", file.integrityCheck());
        expectSchemaOfVersion(file, file.userVersion());
        expectOldRowsKept(file);
    };
    scenario.completeAndCheck = [](TrustFiles const& files) {
        EXPECT_EQ("", stderrOf([&] { openDatabase(files); }));
        SqliteFile file(files.databasePath());
        expectFinalState(file, revokeOnBindRows);
        expectOldRowsKept(file);
        EXPECT_EQ((Rows{"1", "1"}), file.queryTexts("SELECT subgroup_id FROM certificates"));
    };
    return scenario;
}

// A revocation update in developer mode withdraws the revoke-on-bind key ids
// and inserts the revoke ones, as one change.
const KeyValues revoke{
    {"r1", "blacklisted"}, {"r2", "superseded"}, {"r3", "blacklisted"}, {"r4", "superseded"}};
const Rows revokeRows{"r1|1", "r2|0", "r3|1", "r4|0"};

Scenario revocationUpdate()
{
    Scenario scenario;
    scenario.setUp = [](TrustFiles const& files) {
        files.writeRuntimeMode("false");
        files.writeRevocation(revoke, revokeOnBind);
        openDatabase(files);
        files.writeRuntimeMode("true");
    };
    // The database is opened unarmed, so that only the update is counted.
    scenario.prepare = [](TrustFiles const& files) { childDatabase = openDatabase(files); };
    scenario.work = [](TrustFiles const&) { childDatabase->updateRevokedKeyids(); };
    scenario.checkAfterKill = [](TrustFiles const& files) {
        SqliteFile file(files.databasePath());
        EXPECT_EQ("ok", file.integrityCheck());
        EXPECT_EQ(4, file.userVersion());
        const Rows rows = revokedRows(file);
        EXPECT_TRUE(rows == revokeOnBindRows || rows == revokeRows) << testing::PrintToString(rows);
    };
    scenario.completeAndCheck = [](TrustFiles const& files) {
        auto database = openDatabase(files);
        EXPECT_TRUE(database->updateRevokedKeyids());
        database.reset();
        SqliteFile file(files.databasePath());
        expectFinalState(file, revokeRows);
    };
    return scenario;
}

// Every scenario is swept with each of the three triggers. A new scenario
// (another kind of write, such as recording a package) is a function like
// revocationUpdate() above, swept by three more tests like these.
TEST(DatabaseCrash, FreshFileKilledBeforeEveryStatement)
{
    sweep(freshFile(), Trigger::Statement, 1000);
}

TEST(DatabaseCrash, FreshFileKilledWithinStatements)
{
    sweep(freshFile(), Trigger::Progress, 15);
}

TEST(DatabaseCrash, FreshFileKilledBeforeEveryFileChange)
{
    sweep(freshFile(), Trigger::FileChange, 1000);
}

TEST(DatabaseCrash, UpgradeKilledBeforeEveryStatement)
{
    sweep(upgradeFromVersion0(), Trigger::Statement, 1000);
}

TEST(DatabaseCrash, UpgradeKilledWithinStatements)
{
    sweep(upgradeFromVersion0(), Trigger::Progress, 15);
}

TEST(DatabaseCrash, UpgradeKilledBeforeEveryFileChange)
{
    sweep(upgradeFromVersion0(), Trigger::FileChange, 40);
}

TEST(DatabaseCrash, RevocationUpdateKilledBeforeEveryStatement)
{
    sweep(revocationUpdate(), Trigger::Statement, 1000);
}

TEST(DatabaseCrash, RevocationUpdateKilledWithinStatements)
{
    sweep(revocationUpdate(), Trigger::Progress, 15);
}

TEST(DatabaseCrash, RevocationUpdateKilledBeforeEveryFileChange)
{
    sweep(revocationUpdate(), Trigger::FileChange, 1000);
}

// Two processes open the same file at once (fresh the first time) and each
// inserts its own key ids and some shared ones, reading them back. SQLite's
// locking serialises them; both succeed and the file stays sound.
int insertConcurrently(TrustFiles const& files, std::string const& name, StartGate& gate)
{
    if (!gate.wait())
        return 2;
    Database database(files.databasePath(), files.confPath());
    int failures = 0;
    for (int i = 0; i < 12; ++i) {
        const std::string own = name + std::to_string(i);
        const std::string shared = "shared" + std::to_string(i % 4);
        const auto type = i % 2 ? Database::Blacklisted : Database::Superseded;
        failures += !database.insertRevokedKeyid(own, type);
        failures += !database.insertRevokedKeyid(shared, Database::Blacklisted);
        failures += database.getKeyidRevocationStatus(own) != type;
    }
    return failures == 0 ? 0 : 1;
}

TEST(DatabaseConcurrency, TwoProcessesInsertingAtOnceBothSucceed)
{
    TrustFiles files;
    files.writeRevocation({}, revokeOnBind);
    for (int round = 0; round < 3; ++round) {
        SCOPED_TRACE("round " + std::to_string(round));
        StartGate gate;
        const std::string errorsA = files.file("a.txt"), errorsB = files.file("b.txt");
        pid_t a =
            startChild([&] { return insertConcurrently(files, "process-a-", gate); }, errorsA);
        pid_t b =
            startChild([&] { return insertConcurrently(files, "process-b-", gate); }, errorsB);
        gate.open();
        Outcome outcomeA = waitChild(a, errorsA);
        Outcome outcomeB = waitChild(b, errorsB);
        EXPECT_EQ(0, outcomeA.exitCode) << outcomeA.errors;
        EXPECT_EQ(0, outcomeB.exitCode) << outcomeB.errors;

        SqliteFile file(files.databasePath());
        EXPECT_EQ("ok", file.integrityCheck());
        EXPECT_EQ(4, file.userVersion());
        EXPECT_EQ(12, file.queryInt(
                          "SELECT COUNT(1) FROM revoked_keyids WHERE keyid LIKE 'process-a-%'"));
        EXPECT_EQ(12, file.queryInt(
                          "SELECT COUNT(1) FROM revoked_keyids WHERE keyid LIKE 'process-b-%'"));
        EXPECT_EQ((Rows{"shared0|1", "shared1|1", "shared2|1", "shared3|1"}),
                  file.queryRows("SELECT keyid, type FROM revoked_keyids WHERE keyid LIKE "
                                 "'shared%' ORDER BY keyid"));
        EXPECT_EQ(revokeOnBindRows,
                  file.queryRows("SELECT keyid, type FROM revoked_keyids WHERE keyid LIKE 'b_' "
                                 "ORDER BY keyid"));
    }
}

}  // namespace
