// Opening the trust database: a fresh file gets the schema and the
// revoke-on-bind key ids in one transaction, an unusable file is reported,
// and the statement cache, the transaction guard and the destructor release
// what they hold.
#include <sys/stat.h>

#include <glib.h>
#include <gtest/gtest.h>
#include <sqlite3.h>

#include <algorithm>
#include <iostream>
#include <memory>

#include <sealkeep/configuration.hpp>
#include <sealkeep/database.hpp>

#include "support/database_fixture.hpp"
#include "support/files.hpp"
#include "support/process.hpp"
#include "support/sqlite_file.hpp"

using namespace sealkeep::test;
using PackageSignatures::Database;

namespace {

class DatabaseOpen : public testing::Test {
protected:
    TrustFiles files;

    std::unique_ptr<Database> open()
    {
        return std::make_unique<Database>(files.databasePath(), files.confPath());
    }
    // Opens and closes the database; returns what the opening printed.
    std::string openAndClose()
    {
        return stderrOf([&] { open(); });
    }
};

TEST_F(DatabaseOpen, FreshFileGetsSchemaVersionAndRevokeOnBindKeyids)
{
    files.writeRevocation({{"r1", "blacklisted"}}, {{"b1", "superseded"}, {"b2", "blacklisted"}});
    EXPECT_EQ("", openAndClose());

    SqliteFile file(files.databasePath());
    EXPECT_EQ(currentTables, file.tables());
    EXPECT_EQ(4, file.userVersion());
    EXPECT_EQ((Rows{"b1|0", "b2|1"}),
              file.queryRows("SELECT keyid, type FROM revoked_keyids ORDER BY keyid"));
    EXPECT_EQ("ok", file.integrityCheck());
}

TEST_F(DatabaseOpen, FreshFileInDeveloperModeGetsNoRevokeOnBindKeyids)
{
    files.writeRuntimeMode("true");
    files.writeRevocation({}, {{"b1", "superseded"}});
    EXPECT_EQ("", openAndClose());

    SqliteFile file(files.databasePath());
    EXPECT_EQ(currentTables, file.tables());
    EXPECT_EQ(4, file.userVersion());
    EXPECT_EQ(0, file.queryInt("SELECT COUNT(1) FROM revoked_keyids"));
}

TEST_F(DatabaseOpen, FreshFileCreatesTheSchemaExactly)
{
    open();
    SqliteFile file(files.databasePath());
    EXPECT_EQ(
        (Rows{
            "CREATE TABLE certificates(id INTEGER PRIMARY KEY, key BLOB NOT NULL, certificate "
            "BLOB NOT NULL, subject TEXT NOT NULL, group_id INTEGER, subgroup_id INTEGER, FOREIGN "
            "KEY(group_id) REFERENCES groups(id), FOREIGN KEY(subgroup_id) REFERENCES "
            "subgroups(id), UNIQUE (id, key, group_id, subgroup_id))",
            "CREATE TABLE groups(id INTEGER PRIMARY KEY, name TEXT NOT NULL UNIQUE)",
            "CREATE TABLE packages(id TEXT NOT NULL, certificateid INTEGER NOT NULL, FOREIGN "
            "KEY(certificateid) REFERENCES certificates(id), UNIQUE (id, certificateid))",
            "CREATE TABLE revoked_keyids(id INTEGER PRIMARY KEY, keyid TEXT NOT NULL UNIQUE, type "
            "INTEGER NOT NULL)",
            "CREATE TABLE subgroups(id INTEGER PRIMARY KEY, name TEXT NOT NULL UNIQUE)"}),
        file.queryTexts("SELECT sql FROM sqlite_master WHERE type='table' ORDER BY name"));
}

TEST_F(DatabaseOpen, ExistingCurrentFileIsLeftAsItIs)
{
    files.writeRevocation({}, {{"b1", "superseded"}});
    open();
    SqliteFile(files.databasePath()).exec("DELETE FROM revoked_keyids");

    EXPECT_EQ("", openAndClose());
    // revoke-on-bind key ids are applied when a file is created or upgraded,
    // not at every open.
    SqliteFile file(files.databasePath());
    EXPECT_EQ(0, file.queryInt("SELECT COUNT(1) FROM revoked_keyids"));
    EXPECT_EQ(4, file.userVersion());
}

TEST_F(DatabaseOpen, MissingRevocationFileLeavesAFreshFileWithoutTablesUntilTheNextOpen)
{
    files.removeFile(files.revocationPath());
    EXPECT_EQ("Could not revoke public keys\n", openAndClose());
    {
        SqliteFile file(files.databasePath());
        EXPECT_TRUE(file.tables().empty());
        EXPECT_EQ(0, file.userVersion());
    }

    files.writeRevocation({}, {{"b1", "blacklisted"}});
    EXPECT_EQ("", openAndClose());
    SqliteFile file(files.databasePath());
    EXPECT_EQ(currentTables, file.tables());
    EXPECT_EQ(4, file.userVersion());
    EXPECT_EQ((std::vector<std::string>{"b1"}),
              file.queryTexts("SELECT keyid FROM revoked_keyids"));
}

TEST_F(DatabaseOpen, ConfigurationWithoutRevocationKeyLeavesAFreshFileWithoutTables)
{
    KeyValues keys = files.standardKeys();
    keys.erase(std::remove_if(keys.begin(), keys.end(),
                              [](auto const& key) { return key.first == "revocation_conf"; }),
               keys.end());
    files.writeConfiguration(keys);
    EXPECT_EQ("Could not revoke public keys\n", openAndClose());
    EXPECT_TRUE(SqliteFile(files.databasePath()).tables().empty());
}

TEST_F(DatabaseOpen, MissingRevocationFileDoesNotMatterInDeveloperMode)
{
    files.writeInitialMode("true");
    files.removeFile(files.revocationPath());
    EXPECT_EQ("", openAndClose());
    EXPECT_EQ(4, SqliteFile(files.databasePath()).userVersion());
}

TEST_F(DatabaseOpen, NoDeveloperModeFileMeansRevokeOnBindKeyidsApply)
{
    files.removeFile(files.initialModePath());
    files.writeRevocation({}, {{"b1", "superseded"}});
    EXPECT_EQ("Could not get developer mode state from config files\n", openAndClose());
    EXPECT_EQ(1, SqliteFile(files.databasePath()).queryInt("SELECT COUNT(1) FROM revoked_keyids"));
}

TEST_F(DatabaseOpen, UnsupportedVersionIsReportedAndTheFileUntouched)
{
    {
        SqliteFile file(files.databasePath());
        file.exec("CREATE TABLE unrelated(x)");
        file.exec("PRAGMA user_version = 7");
    }
    const Bytes before = readFile(files.databasePath());
    EXPECT_EQ("Unsupported database version: 7\n", openAndClose());
    EXPECT_EQ(before, readFile(files.databasePath()));
}

TEST_F(DatabaseOpen, FileThatIsNotADatabaseIsReportedAndLeftUntouched)
{
    writeText(files.databasePath(), std::string(4096, 'x'));
    const Bytes before = readFile(files.databasePath());
    EXPECT_EQ("Could not upgrade database schema from version -1 to version 4\n", openAndClose());
    EXPECT_EQ(before, readFile(files.databasePath()));
}

TEST_F(DatabaseOpen, ExistingEmptyFileIsAFreshFile)
{
    files.writeRevocation({}, {{"b1", "superseded"}});
    writeText(files.databasePath(), "");
    EXPECT_EQ("", openAndClose());
    SqliteFile file(files.databasePath());
    EXPECT_EQ(currentTables, file.tables());
    EXPECT_EQ(4, file.userVersion());
    EXPECT_EQ((Rows{"b1|0"}), file.queryRows("SELECT keyid, type FROM revoked_keyids"));
}

TEST_F(DatabaseOpen, UnreadableVersionOfAFileWithTablesIsReportedAsOneLine)
{
    createOldDatabase(files.databasePath(), 3);
    std::string printed;
    {
        RefusingConnections refusing({{SQLITE_PRAGMA, "user_version"}});
        printed = openAndClose();
    }
    EXPECT_EQ("Could not upgrade database schema from version -1 to version 4\n", printed);
    EXPECT_EQ(3, SqliteFile(files.databasePath()).userVersion());
}

TEST_F(DatabaseOpen, UnopenableFileIsReportedAndEveryOperationFails)
{
    const std::string path = files.file("missing-directory/trust.db");
    std::unique_ptr<Database> database;
    EXPECT_EQ("Could not open database at " + path + "\n",
              stderrOf([&] { database = std::make_unique<Database>(path, files.confPath()); }));
    EXPECT_EQ(-1, database->queryVersion());
    EXPECT_FALSE(database->setVersion(4));
    EXPECT_FALSE(database->insertRevokedKeyid("k", Database::Blacklisted));
    EXPECT_FALSE(database->removeRevokedKeyid("k", Database::Blacklisted));
    // A connection that never opened tells nothing about a key: it is not
    // let through as clean.
    EXPECT_EQ(Database::Blacklisted, database->getKeyidRevocationStatus("k"));
    EXPECT_TRUE(database->revokedKeyids().empty());
    EXPECT_FALSE(fileExists(path));
}

// A FIFO in place of the file would make SQLite wait on it for ever: it is
// refused like a file that cannot be opened, at once.
TEST_F(DatabaseOpen, APathThatIsNoRegularFileIsNotOpened)
{
    const std::string path = files.file("fifo.db");
    ASSERT_EQ(0, mkfifo(path.c_str(), 0600));
    ChildResult child = runInChild(
        [&] {
            Database database(path, files.confPath());
            bool failed = database.queryVersion() == -1 && !database.insertRevokedKeyid("k", Database::Blacklisted) &&
                          database.getKeyidRevocationStatus("k") == Database::Blacklisted;
            return failed ? 0 : 1;
        },
        20000);
    EXPECT_FALSE(child.timedOut);
    EXPECT_EQ(0, child.exitCode);
    EXPECT_EQ("Could not open database at " + path + "\n", child.errors);
}

// Opened for questions only, a missing file is not created.
TEST_F(DatabaseOpen, ExistingOnlyCreatesNoFile)
{
    const std::string path = files.file("absent.db");
    std::unique_ptr<Database> database;
    EXPECT_EQ("Could not open database at " + path + "\n", stderrOf([&] {
                  database = std::make_unique<Database>(path, files.confPath(), Database::ExistingOnly);
              }));
    EXPECT_EQ(-1, database->queryVersion());
    EXPECT_FALSE(fileExists(path));
    database.reset();
    { Database created(path, files.confPath()); }
    ASSERT_TRUE(fileExists(path));
    Database existing(path, files.confPath(), Database::ExistingOnly);
    EXPECT_EQ(4, existing.queryVersion());
}

TEST_F(DatabaseOpen, OneArgumentConstructorUsesTheDefaultConfiguration)
{
    TempDir root;
    ASSERT_EQ(0, g_mkdir_with_parents((root.path() + "/etc/sealkeep").c_str(), 0700));
    writeText(root.path() + "/etc/sealkeep/sealkeep.conf",
              keyFileText({{"main", files.standardKeys()}}));
    files.removeFile(files.confPath());
    files.writeRevocation({}, {{"b1", "blacklisted"}});
    ScopedEnvironment rootfs("SEALKEEP_ROOTFS", root.path());

    EXPECT_EQ(files.databasePath(), Database::defaultPath());
    Database database(Database::defaultPath());
    EXPECT_EQ(Database::Blacklisted, database.getKeyidRevocationStatus("b1"));
}

TEST_F(DatabaseOpen, DefaultPathIsEmptyWithoutConfiguration)
{
    TempDir root;
    ScopedEnvironment rootfs("SEALKEEP_ROOTFS", root.path());
    EXPECT_EQ("", Database::defaultPath());
}

// Each table creation that fails is named; only the first two carry SQLite's
// error text, and the standard error stream keeps working afterwards.
struct TableFailure {
    std::string table;
    std::string message;
};

class TableCreationFailure : public DatabaseOpen,
                             public testing::WithParamInterface<TableFailure> {};

TEST_P(TableCreationFailure, IsReportedAndRolledBack)
{
    std::unique_ptr<Database> database;
    std::string printed;
    {
        RefusingConnections refusing({{SQLITE_CREATE_TABLE, GetParam().table}});
        printed = stderrOf([&] { database = open(); });
        database.reset();
    }
    EXPECT_EQ(GetParam().message + "\nCould not create tables\n", printed);
    EXPECT_TRUE(std::cerr.good());
    EXPECT_TRUE(SqliteFile(files.databasePath()).tables().empty());

    // Nothing was recorded, so the next open creates everything.
    EXPECT_EQ("", openAndClose());
    EXPECT_EQ(currentTables, SqliteFile(files.databasePath()).tables());
}

INSTANTIATE_TEST_SUITE_P(
    EveryTable, TableCreationFailure,
    testing::Values(TableFailure{"groups", "Could not create groups table: not authorized"},
                    TableFailure{"subgroups", "Could not create subgroups table: not authorized"},
                    TableFailure{"certificates", "Could not create certificates table: "},
                    TableFailure{"packages", "Could not create packages table: "},
                    TableFailure{"revoked_keyids", "Could not create revoked_keyids table: "}),
    [](auto const& info) { return info.param.table; });

TEST_F(DatabaseOpen, FailedVersionWriteIsReportedAndRolledBack)
{
    files.writeRevocation({}, {{"b1", "superseded"}});
    std::string printed;
    {
        RefusingConnections refusing({{SQLITE_PRAGMA, "user_version=4"}});
        printed = openAndClose();
    }
    EXPECT_EQ("Could not set database version\n", printed);
    SqliteFile file(files.databasePath());
    EXPECT_TRUE(file.tables().empty());
    EXPECT_EQ(0, file.userVersion());
}

TEST_F(DatabaseOpen, CreateTablesIsRepeatable)
{
    auto database = open();
    EXPECT_TRUE(database->createTables());
    EXPECT_EQ(4, database->queryVersion());
}

TEST_F(DatabaseOpen, SetVersionWritesAnyNumber)
{
    auto database = open();
    EXPECT_TRUE(database->setVersion(-3));
    EXPECT_EQ(-3, database->queryVersion());
    EXPECT_TRUE(database->setVersion(12));
    EXPECT_EQ(12, database->queryVersion());
}

TEST_F(DatabaseOpen, FailedStatementPreparationIsRetriedOnTheNextCall)
{
    {
        SqliteFile file(files.databasePath());
        file.exec("CREATE TABLE unrelated(x)");
        file.exec("PRAGMA user_version = 9");
    }
    std::unique_ptr<Database> database;
    stderrOf([&] { database = open(); });
    EXPECT_FALSE(database->insertRevokedKeyid("k", Database::Superseded));
    EXPECT_EQ(Database::NotRevoked, database->getKeyidRevocationStatus("k"));

    SqliteFile(files.databasePath())
        .exec(
            "CREATE TABLE revoked_keyids(id INTEGER PRIMARY KEY, keyid TEXT NOT NULL UNIQUE, type "
            "INTEGER NOT NULL)");
    EXPECT_TRUE(database->insertRevokedKeyid("k", Database::Superseded));
    EXPECT_EQ(Database::Superseded, database->getKeyidRevocationStatus("k"));
}

TEST_F(DatabaseOpen, DestructorReleasesTheFileForOthers)
{
    auto database = open();
    // Fill the statement cache, leaving statements prepared.
    EXPECT_TRUE(database->insertRevokedKeyid("k", Database::Superseded));
    EXPECT_EQ(Database::Superseded, database->getKeyidRevocationStatus("k"));
    EXPECT_TRUE(database->removeRevokedKeyid("k", Database::Superseded));
    database.reset();

    EXPECT_TRUE(lockableAtOnce(files.databasePath()));
}

TEST_F(DatabaseOpen, StatementsAreResetSoOthersCanWrite)
{
    auto database = open();
    EXPECT_TRUE(database->insertRevokedKeyid("k", Database::Blacklisted));
    EXPECT_EQ(Database::Blacklisted, database->getKeyidRevocationStatus("k"));
    // A statement left active would hold a read lock and keep writers out.
    EXPECT_TRUE(lockableAtOnce(files.databasePath()));
}

TEST(Transaction, RollsBackUnlessCommitted)
{
    TempDir dir;
    SqliteFile file(dir.file("t.db"));
    file.exec("CREATE TABLE t(x)");
    {
        PackageSignatures::Transaction transaction(file.handle());
        file.exec("INSERT INTO t VALUES (1)");
    }
    EXPECT_EQ(0, file.queryInt("SELECT COUNT(1) FROM t"));
    {
        PackageSignatures::Transaction transaction(file.handle());
        file.exec("INSERT INTO t VALUES (2)");
        transaction.commit();
    }
    EXPECT_EQ(1, file.queryInt("SELECT COUNT(1) FROM t"));
    EXPECT_EQ(1, sqlite3_get_autocommit(file.handle()));
}

TEST(Transaction, InnerTransactionJoinsTheOuterOne)
{
    TempDir dir;
    SqliteFile file(dir.file("t.db"));
    file.exec("CREATE TABLE t(x)");
    {
        PackageSignatures::Transaction outer(file.handle());
        file.exec("INSERT INTO t VALUES (1)");
        {
            PackageSignatures::Transaction inner(file.handle());
            file.exec("INSERT INTO t VALUES (2)");
        }
    }
    // The inner guard's rollback ended the outer transaction too.
    EXPECT_EQ(0, file.queryInt("SELECT COUNT(1) FROM t"));
}

TEST(Transaction, InnerCommitLeavesTheOutcomeToTheOuterOne)
{
    TempDir dir;
    SqliteFile file(dir.file("t.db"));
    file.exec("CREATE TABLE t(x)");
    {
        PackageSignatures::Transaction outer(file.handle());
        {
            PackageSignatures::Transaction inner(file.handle());
            EXPECT_TRUE(inner.active());
            file.exec("INSERT INTO t VALUES (1)");
            EXPECT_TRUE(inner.commit());
        }
        EXPECT_EQ(0, sqlite3_get_autocommit(file.handle()));
    }
    EXPECT_EQ(0, file.queryInt("SELECT COUNT(1) FROM t"));
}

// A transaction whose COMMIT and ROLLBACK both failed (refused here) stays
// open on the connection, but no Transaction holds it any more. A new
// Transaction must not join it: its commit() would report writes that the
// connection never makes. It does not begin at all.
TEST(Transaction, ATransactionLeftOpenIsNotJoined)
{
    TempDir dir;
    RefusingConnections refusing(
        {{SQLITE_TRANSACTION, "COMMIT"}, {SQLITE_TRANSACTION, "ROLLBACK"}});
    SqliteFile file(dir.file("t.db"));
    file.exec("CREATE TABLE t(x)");
    {
        PackageSignatures::Transaction first(file.handle());
        file.exec("INSERT INTO t VALUES (1)");
        EXPECT_FALSE(first.commit());
    }
    ASSERT_EQ(0, sqlite3_get_autocommit(file.handle()));
    PackageSignatures::Transaction second(file.handle());
    EXPECT_FALSE(second.active());
    EXPECT_EQ(SQLITE_ERROR, second.result());
    EXPECT_FALSE(second.commit());
}

// Joining follows the Transaction that is open, on its own connection only.
TEST(Transaction, OnlyAnOpenTransactionOfTheSameConnectionIsJoined)
{
    TempDir dir;
    SqliteFile file(dir.file("t.db")), other(dir.file("u.db"));
    file.exec("CREATE TABLE t(x)");
    other.exec("CREATE TABLE u(x)");
    {
        PackageSignatures::Transaction outer(file.handle());
        {
            PackageSignatures::Transaction elsewhere(other.handle());
            other.exec("INSERT INTO u VALUES (1)");
            EXPECT_TRUE(elsewhere.commit());
        }
        EXPECT_EQ(1, sqlite3_get_autocommit(other.handle()));
        {
            PackageSignatures::Transaction inner(file.handle());
            file.exec("INSERT INTO t VALUES (1)");
            EXPECT_TRUE(inner.commit());
        }
        EXPECT_TRUE(outer.commit());
    }
    EXPECT_EQ(1, file.queryInt("SELECT COUNT(1) FROM t"));
    EXPECT_EQ(1, other.queryInt("SELECT COUNT(1) FROM u"));
}

// The connections here do not wait for locks, so a lock held by another
// connection makes BEGIN IMMEDIATE or COMMIT fail at once.
TEST(Transaction, FailedCommitIsRolledBackAtOnce)
{
    TempDir dir;
    SqliteFile file(dir.file("t.db"));
    file.exec("CREATE TABLE t(x)");
    SqliteFile reader(dir.file("t.db"));
    reader.exec("BEGIN");
    EXPECT_EQ(0, reader.queryInt("SELECT COUNT(1) FROM t"));
    {
        PackageSignatures::Transaction transaction(file.handle());
        file.exec("INSERT INTO t VALUES (1)");
        EXPECT_FALSE(transaction.commit());
        EXPECT_EQ(SQLITE_BUSY, transaction.result());
        // Not left inside the transaction until the guard goes away.
        EXPECT_EQ(1, sqlite3_get_autocommit(file.handle()));
        reader.exec("COMMIT");
        file.exec("INSERT INTO t VALUES (2)");
    }
    EXPECT_EQ((Rows{"2"}), file.queryTexts("SELECT x FROM t"));
}

TEST(Transaction, ImmediateTakesTheWriteLockWhenItBegins)
{
    TempDir dir;
    SqliteFile file(dir.file("t.db"));
    file.exec("CREATE TABLE t(x)");
    {
        PackageSignatures::Transaction transaction(file.handle(),
                                                   PackageSignatures::Transaction::Immediate);
        EXPECT_TRUE(transaction.active());
        EXPECT_FALSE(lockableAtOnce(dir.file("t.db")));
        EXPECT_TRUE(transaction.commit());
    }
    SqliteFile writer(dir.file("t.db"));
    writer.exec("BEGIN IMMEDIATE");
    {
        PackageSignatures::Transaction transaction(file.handle(),
                                                   PackageSignatures::Transaction::Immediate);
        EXPECT_FALSE(transaction.active());
        EXPECT_EQ(SQLITE_BUSY, transaction.result());
        EXPECT_FALSE(transaction.commit());
        EXPECT_EQ(1, sqlite3_get_autocommit(file.handle()));
    }
    writer.exec("COMMIT");
}

}  // namespace
