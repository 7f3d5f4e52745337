// Upgrading files written with older schemas (versions 0 to 3) to version 4:
// rows survive, each step is all or nothing, and a failed step is retried
// from the last version reached at the next open.
#include <gtest/gtest.h>
#include <sqlite3.h>

#include <memory>

#include <sealkeep/database.hpp>

#include "support/database_fixture.hpp"
#include "support/sqlite_file.hpp"

using namespace sealkeep::test;
using PackageSignatures::Database;

namespace {

const Rows currentCertificateColumns{"id",      "key",      "certificate",
                                     "subject", "group_id", "subgroup_id"};

class Migration : public testing::Test {
protected:
    TrustFiles files;

    void SetUp() override { files.writeRevocation({}, {{"bind1", "blacklisted"}}); }

    std::string openAndClose()
    {
        return stderrOf([&] { Database(files.databasePath(), files.confPath()); });
    }

    void expectCurrentSchema(SqliteFile& file)
    {
        EXPECT_EQ(4, file.userVersion());
        EXPECT_EQ(currentTables, file.tables());
        EXPECT_EQ(currentCertificateColumns, file.columns("certificates"));
        EXPECT_EQ((Rows{"id", "keyid", "type"}), file.columns("revoked_keyids"));
        EXPECT_EQ("ok", file.integrityCheck());
    }
};

TEST_F(Migration, FromVersion0)
{
    createOldDatabase(files.databasePath(), 0);
    EXPECT_EQ("", openAndClose());

    SqliteFile file(files.databasePath());
    expectCurrentSchema(file);
    expectOldRowsKept(file);
    EXPECT_EQ((Rows{"1|regular", "2|antivirus", "3|extended", "4|mdm"}),
              file.queryRows("SELECT id, name FROM subgroups ORDER BY id"));
    EXPECT_EQ((Rows{"1", "1"}), file.queryTexts("SELECT subgroup_id FROM certificates"));
    EXPECT_EQ((Rows{"bind1|1"}), file.queryRows("SELECT keyid, type FROM revoked_keyids"));
}

TEST_F(Migration, FromVersion1)
{
    createOldDatabase(files.databasePath(), 1);
    EXPECT_EQ("", openAndClose());

    SqliteFile file(files.databasePath());
    expectCurrentSchema(file);
    expectOldRowsKept(file);
    EXPECT_EQ((Rows{"1", "3"}),
              file.queryTexts("SELECT subgroup_id FROM certificates ORDER BY id"));
    EXPECT_EQ(4, file.queryInt("SELECT COUNT(1) FROM subgroups"));
    EXPECT_EQ((Rows{"bind1|1"}), file.queryRows("SELECT keyid, type FROM revoked_keyids"));
}

TEST_F(Migration, FromVersion2EveryRevocationBecomesSuperseded)
{
    createOldDatabase(files.databasePath(), 2);
    EXPECT_EQ("", openAndClose());

    SqliteFile file(files.databasePath());
    expectCurrentSchema(file);
    expectOldRowsKept(file);
    EXPECT_EQ((Rows{"1|old1|0", "2|old2|0", "3|bind1|1"}),
              file.queryRows("SELECT id, keyid, type FROM revoked_keyids ORDER BY id"));
}

TEST_F(Migration, FromVersion3AppliesRevokeOnBind)
{
    files.writeRevocation({{"never", "blacklisted"}},
                          {{"old1", "blacklisted"}, {"old2", "superseded"}});
    createOldDatabase(files.databasePath(), 3);
    EXPECT_EQ("", openAndClose());

    SqliteFile file(files.databasePath());
    expectCurrentSchema(file);
    expectOldRowsKept(file);
    // old2 stays blacklisted: an insert never lowers a blacklisting. The
    // "revoke" group is not applied by opening.
    EXPECT_EQ((Rows{"old1|1", "old2|1"}),
              file.queryRows("SELECT keyid, type FROM revoked_keyids ORDER BY keyid"));
}

TEST_F(Migration, FromVersion3InDeveloperModeWithdrawsRevokeOnBind)
{
    files.writeRuntimeMode("true");
    files.writeRevocation({}, {{"old1", "superseded"}, {"old2", "superseded"}});
    createOldDatabase(files.databasePath(), 3);
    EXPECT_EQ("", openAndClose());

    SqliteFile file(files.databasePath());
    expectCurrentSchema(file);
    // old2 is stored as blacklisted, so its superseded entry does not match.
    EXPECT_EQ((Rows{"old2|1"}), file.queryRows("SELECT keyid, type FROM revoked_keyids"));
}

TEST_F(Migration, MissingRevocationFileStopsAtVersion3)
{
    for (auto [from, developerMode] : {std::pair{3, false}, {3, true}, {0, false}, {0, true}}) {
        SCOPED_TRACE("from " + std::to_string(from) + (developerMode ? " in" : " outside") +
                     " developer mode");
        files.removeFile(files.databasePath());
        files.writeRuntimeMode(developerMode ? "true" : "false");
        files.removeFile(files.revocationPath());
        createOldDatabase(files.databasePath(), from);
        EXPECT_EQ("Schema upgrade to version 4 failed\n", openAndClose());
        {
            SqliteFile file(files.databasePath());
            EXPECT_EQ(3, file.userVersion());
            EXPECT_EQ((Rows{"id", "keyid", "type"}), file.columns("revoked_keyids"));
        }

        files.writeRevocation({}, {{"bind1", "blacklisted"}});
        EXPECT_EQ("", openAndClose());
        SqliteFile file(files.databasePath());
        expectCurrentSchema(file);
        expectOldRowsKept(file);
    }
}

TEST_F(Migration, UnknownStartingVersionIsRefused)
{
    createOldDatabase(files.databasePath(), 3);
    Database database(files.databasePath(), files.confPath());
    for (int from : {-1, 4, 5}) {
        bool result = true;
        EXPECT_EQ("Could not upgrade database schema from version " + std::to_string(from) +
                      " to version 9\n",
                  stderrOf([&] { result = database.migrate(from, 9); }));
        EXPECT_FALSE(result);
    }
    EXPECT_EQ(4, database.queryVersion());
}

TEST_F(Migration, StepsRunOnACurrentFileChangeNothing)
{
    files.writeRevocation({}, {});
    createOldDatabase(files.databasePath(), 3);
    Database database(files.databasePath(), files.confPath());
    ASSERT_TRUE(database.insertRevokedKeyid("kept", Database::Blacklisted));

    EXPECT_TRUE(database.migrateV1toV2());
    EXPECT_EQ(4, database.queryVersion());
    EXPECT_TRUE(database.migrateV3toV4());
    EXPECT_EQ(4, database.queryVersion());
    EXPECT_EQ(Database::Blacklisted, database.getKeyidRevocationStatus("kept"));
}

TEST_F(Migration, StepsRunOneByOneRecordTheVersionTheyReach)
{
    createOldDatabase(files.databasePath(), 0);
    {
        // With the version unreadable the opening upgrades nothing, which
        // leaves the steps to the test.
        RefusingConnections refusing({{SQLITE_PRAGMA, "user_version"}});
        std::unique_ptr<Database> database;
        EXPECT_EQ("Could not upgrade database schema from version -1 to version 4\n", stderrOf([&] {
                      database = std::make_unique<Database>(files.databasePath(), files.confPath());
                  }));
        EXPECT_TRUE(database->migrateV0toV1());
        EXPECT_TRUE(database->migrateV1toV2());
        EXPECT_TRUE(database->migrateV2toV3());
    }
    SqliteFile file(files.databasePath());
    EXPECT_EQ(3, file.userVersion());
    EXPECT_EQ(currentTables, file.tables());
    EXPECT_EQ(currentCertificateColumns, file.columns("certificates"));
    EXPECT_EQ((Rows{"id", "keyid", "type"}), file.columns("revoked_keyids"));
    expectOldRowsKept(file);
}

// A step that fails is reported with its own message and rolled back; the
// versions reached before it stay recorded, and the next open resumes.
struct StepFailure {
    std::string name;
    int from;
    Refusal refusal;
    std::string message;
    int versionLeft;
};

class MigrationStepFailure : public Migration, public testing::WithParamInterface<StepFailure> {};

TEST_P(MigrationStepFailure, IsReportedRolledBackAndRetried)
{
    StepFailure const& failure = GetParam();
    createOldDatabase(files.databasePath(), failure.from);
    Rows tablesBefore;
    std::string printed;
    {
        RefusingConnections refusing({failure.refusal});
        printed = openAndClose();
    }
    EXPECT_EQ(failure.message, printed);
    {
        SqliteFile file(files.databasePath());
        EXPECT_EQ(failure.versionLeft, file.userVersion());
        EXPECT_EQ("ok", file.integrityCheck());
        // Nothing of the failed step is left behind.
        for (std::string const& table : file.tables())
            EXPECT_EQ(std::string::npos, table.find("new_")) << table;
        if (failure.versionLeft == 0) {
            EXPECT_EQ(Rows{}, file.columns("subgroups"));
        }
        if (failure.versionLeft == 2) {
            EXPECT_EQ((Rows{"id", "keyid"}), file.columns("revoked_keyids"));
        }
    }

    EXPECT_EQ("", openAndClose());
    SqliteFile file(files.databasePath());
    expectCurrentSchema(file);
    expectOldRowsKept(file);
}

const char versionFailed1[] = "Schema upgrade to version 1 failed\n";
const char versionFailed3[] = "Schema upgrade to version 3 failed\n";

INSTANTIATE_TEST_SUITE_P(
    EveryStatement, MigrationStepFailure,
    testing::Values(
        StepFailure{
            "CreateSubgroups",
            0,
            {SQLITE_CREATE_TABLE, "subgroups"},
            std::string("Could not create subgroups table: not authorized\n") + versionFailed1,
            0},
        StepFailure{
            "InsertSubgroups",
            0,
            {SQLITE_INSERT, "subgroups"},
            std::string("Could not insert subgroups data: not authorized\n") + versionFailed1,
            0},
        StepFailure{"CreateNewCertificates",
                    0,
                    {SQLITE_CREATE_TABLE, "new_certificates"},
                    std::string("Could not create new_certificates table: not authorized\n") +
                        versionFailed1,
                    0},
        StepFailure{"CopyCertificates",
                    0,
                    {SQLITE_INSERT, "new_certificates"},
                    std::string("Could not copy data from certificates to new_certificates: not "
                                "authorized\n") +
                        versionFailed1,
                    0},
        StepFailure{
            "DropCertificates",
            0,
            {SQLITE_DROP_TABLE, "certificates"},
            std::string("Could not drop certificates table: not authorized\n") + versionFailed1,
            0},
        StepFailure{"RenameCertificates",
                    0,
                    {SQLITE_ALTER_TABLE, "new_certificates"},
                    std::string("Could not rename new_certificates to certificates table: not "
                                "authorized\n") +
                        versionFailed1,
                    0},
        StepFailure{"CreateRevokedKeyids",
                    1,
                    {SQLITE_CREATE_TABLE, "revoked_keyids"},
                    "Could not create revoked_keyids table: not authorized\n"
                    "Schema upgrade to version 2 failed\n",
                    1},
        StepFailure{"CreateNewRevokedKeyids",
                    2,
                    {SQLITE_CREATE_TABLE, "new_revoked_keyids"},
                    std::string("Could not create new_revoked_keyids table: not authorized\n") +
                        versionFailed3,
                    2},
        StepFailure{"CopyRevokedKeyids",
                    2,
                    {SQLITE_INSERT, "new_revoked_keyids"},
                    std::string("Could not copy data from revoked_keyids to new_revoked_keyids: "
                                "not authorized\n") +
                        versionFailed3,
                    2},
        StepFailure{
            "DropRevokedKeyids",
            2,
            {SQLITE_DROP_TABLE, "revoked_keyids"},
            std::string("Could not drop revoked_keyids table: not authorized\n") + versionFailed3,
            2},
        StepFailure{"RenameRevokedKeyids",
                    2,
                    {SQLITE_ALTER_TABLE, "new_revoked_keyids"},
                    std::string("Could not rename new_revoked_keyids to revoked_keyids table: "
                                "not authorized\n") +
                        versionFailed3,
                    2},
        StepFailure{
            "LaterStepKeepsEarlierVersions",
            0,
            {SQLITE_DROP_TABLE, "revoked_keyids"},
            std::string("Could not drop revoked_keyids table: not authorized\n") + versionFailed3,
            2},
        StepFailure{"RevokeOnBindFromVersion0",
                    0,
                    {SQLITE_INSERT, "revoked_keyids"},
                    "Schema upgrade to version 4 failed\n",
                    3}),
    [](auto const& info) { return info.param.name; });

}  // namespace
