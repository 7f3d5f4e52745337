// Key revocation: a blacklisting is never lowered, removals match the type,
// and the revocation file's groups are applied according to developer mode.
#include <gtest/gtest.h>

#include <algorithm>
#include <cstdio>
#include <iostream>
#include <memory>
#include <string>
#include <vector>

#include <sealkeep/database.hpp>

#include "support/database_fixture.hpp"
#include "support/files.hpp"
#include "support/sqlite_file.hpp"

using namespace sealkeep::test;
using PackageSignatures::Database;

namespace {

class Revocation : public testing::Test {
protected:
    TrustFiles files;
    std::unique_ptr<Database> database;

    void SetUp() override { reopen(); }

    void reopen()
    {
        database = std::make_unique<Database>(files.databasePath(), files.confPath());
    }

    // Every stored key id with its type, sorted.
    std::vector<std::string> stored()
    {
        return SqliteFile(files.databasePath())
            .queryRows("SELECT keyid, type FROM revoked_keyids ORDER BY keyid");
    }

    std::vector<std::string> listed()
    {
        std::vector<std::string> keyids = database->revokedKeyids();
        std::sort(keyids.begin(), keyids.end());
        return keyids;
    }
};

TEST_F(Revocation, BlacklistingOutranksSuperseding)
{
    EXPECT_TRUE(database->insertRevokedKeyid("k1", Database::Superseded));
    EXPECT_TRUE(database->insertRevokedKeyid("k1", Database::Blacklisted));
    EXPECT_TRUE(database->insertRevokedKeyid("k2", Database::Blacklisted));
    EXPECT_TRUE(database->insertRevokedKeyid("k2", Database::Superseded));
    EXPECT_EQ((Rows{"k1|1", "k2|1"}), stored());
    EXPECT_EQ(Database::Blacklisted, database->getKeyidRevocationStatus("k1"));
    EXPECT_EQ(Database::Blacklisted, database->getKeyidRevocationStatus("k2"));
}

TEST_F(Revocation, RepeatedInsertKeepsOneRow)
{
    EXPECT_TRUE(database->insertRevokedKeyid("k", Database::Superseded));
    EXPECT_TRUE(database->insertRevokedKeyid("k", Database::Superseded));
    EXPECT_TRUE(database->insertRevokedKeyid("k", Database::Blacklisted));
    EXPECT_TRUE(database->insertRevokedKeyid("k", Database::Blacklisted));
    EXPECT_EQ((Rows{"k|1"}), stored());
}

TEST_F(Revocation, RemovalDeletesOnlyAnEntryOfThatType)
{
    ASSERT_TRUE(database->insertRevokedKeyid("k", Database::Blacklisted));
    EXPECT_TRUE(database->removeRevokedKeyid("k", Database::Superseded));
    EXPECT_EQ((Rows{"k|1"}), stored());
    EXPECT_TRUE(database->removeRevokedKeyid("k", Database::Blacklisted));
    EXPECT_EQ(Rows{}, stored());
    EXPECT_TRUE(database->removeRevokedKeyid("absent", Database::Blacklisted));
}

TEST_F(Revocation, StatusOfAbsentSupersededBlacklistedAndOtherTypes)
{
    EXPECT_EQ(-1, database->getKeyidRevocationStatus("absent"));
    EXPECT_EQ(Database::NotRevoked, database->getKeyidRevocationStatus("absent"));
    ASSERT_TRUE(database->insertRevokedKeyid("s", Database::Superseded));
    EXPECT_EQ(0, database->getKeyidRevocationStatus("s"));
    SqliteFile(files.databasePath())
        .exec("INSERT INTO revoked_keyids (keyid, type) VALUES ('two', 2), ('minus', -1)");
    EXPECT_EQ(1, database->getKeyidRevocationStatus("two"));
    EXPECT_EQ(1, database->getKeyidRevocationStatus("minus"));
}

TEST_F(Revocation, EveryNonZeroStoredTypeReadsAsBlacklisted)
{
    SqliteFile(files.databasePath())
        .exec("INSERT INTO revoked_keyids (keyid, type) VALUES ('big', 4294967296), "
              "('half', 0.5), ('text', 'x'), ('negative', -4294967296), ('zero', 0), "
              "('real zero', 0.0), ('text zero', '0')");
    for (const char* keyid : {"big", "half", "text", "negative"})
        EXPECT_EQ(Database::Blacklisted, database->getKeyidRevocationStatus(keyid)) << keyid;
    // The column's integer affinity stores 0.0 and '0' as the integer 0.
    for (const char* keyid : {"zero", "real zero", "text zero"})
        EXPECT_EQ(Database::Superseded, database->getKeyidRevocationStatus(keyid)) << keyid;
}

TEST_F(Revocation, TypesOutsideTheEnumeratorsAreRefused)
{
    for (int value : {2, 7, -1}) {
        const auto other = static_cast<Database::RevocationType>(value);
        EXPECT_FALSE(database->insertRevokedKeyid("k", other)) << value;
        EXPECT_EQ(Rows{}, stored());
    }
    SqliteFile(files.databasePath())
        .exec("INSERT INTO revoked_keyids (keyid, type) VALUES ('k', 7)");
    EXPECT_FALSE(database->removeRevokedKeyid("k", static_cast<Database::RevocationType>(7)));
    EXPECT_EQ((Rows{"k|7"}), stored());
    EXPECT_EQ(Database::Blacklisted, database->getKeyidRevocationStatus("k"));
}

TEST_F(Revocation, KeyidsAreComparedExactly)
{
    ASSERT_TRUE(database->insertRevokedKeyid("abcdef", Database::Blacklisted));
    EXPECT_EQ(Database::NotRevoked, database->getKeyidRevocationStatus("ABCDEF"));
    EXPECT_EQ(Database::NotRevoked, database->getKeyidRevocationStatus("abcde"));
    EXPECT_EQ(Database::NotRevoked, database->getKeyidRevocationStatus("abcdef "));
}

// A status comes from a row or from the end of the query. Only a file whose
// schema lacks the table or its type column records no revocation at all;
// any other read that fails is no evidence that a key is clean, and reads as
// the strongest revocation.
TEST_F(Revocation, AFileWithoutTheTableOrItsTypeColumnRevokesNothing)
{
    const std::vector<std::vector<std::string>> layouts{
        {"CREATE TABLE unrelated(x)"},
        // Rows of an older layout, which carry no type.
        {"CREATE TABLE revoked_keyids(id INTEGER PRIMARY KEY, keyid TEXT)",
         "INSERT INTO revoked_keyids (keyid) VALUES ('k')"}};
    for (auto const& layout : layouts) {
        SCOPED_TRACE(layout.front());
        database.reset();
        std::remove(files.databasePath().c_str());
        {
            SqliteFile file(files.databasePath());
            for (std::string const& sql : layout)
                file.exec(sql);
            // A version this library leaves as it is.
            file.exec("PRAGMA user_version = 9");
        }
        stderrOf([&] { reopen(); });
        EXPECT_EQ(Database::NotRevoked, database->getKeyidRevocationStatus("k"));
    }
}

TEST_F(Revocation, AFileThatIsNotADatabaseRevokesEveryKey)
{
    database.reset();
    writeText(files.databasePath(), std::string(4096, 'x'));
    stderrOf([&] { reopen(); });
    EXPECT_EQ(Database::Blacklisted, database->getKeyidRevocationStatus("k"));
}

TEST_F(Revocation, AStatusThatIsRefusedReadsBlacklisted)
{
    RefusingConnections refusing({{SQLITE_READ, "revoked_keyids"}});
    auto refused = std::make_unique<Database>(files.databasePath(), files.confPath());
    EXPECT_EQ(Database::Blacklisted, refused->getKeyidRevocationStatus("k"));
}

// While set, every statement of the connections hooked below is interrupted.
bool interrupting = false;

TEST_F(Revocation, AStatusWhoseReadIsInterruptedReadsBlacklisted)
{
    ConnectionHook interruptible([](sqlite3* db) {
        sqlite3_progress_handler(db, 1, [](void*) { return interrupting ? 1 : 0; }, nullptr);
    });
    auto connection = std::make_unique<Database>(files.databasePath(), files.confPath());
    ASSERT_TRUE(connection->insertRevokedKeyid("s", Database::Superseded));
    ASSERT_EQ(Database::NotRevoked, connection->getKeyidRevocationStatus("k"));
    interrupting = true;
    const int absent = connection->getKeyidRevocationStatus("k");
    const int superseded = connection->getKeyidRevocationStatus("s");
    interrupting = false;
    EXPECT_EQ(Database::Blacklisted, absent);
    EXPECT_EQ(Database::Blacklisted, superseded);
    EXPECT_EQ(Database::NotRevoked, connection->getKeyidRevocationStatus("k"));
    EXPECT_EQ(Database::Superseded, connection->getKeyidRevocationStatus("s"));
}

TEST_F(Revocation, RevokedKeyidsListsBothTypes)
{
    EXPECT_TRUE(database->revokedKeyids().empty());
    ASSERT_TRUE(database->insertRevokedKeyid("b", Database::Blacklisted));
    ASSERT_TRUE(database->insertRevokedKeyid("a", Database::Superseded));
    EXPECT_EQ((Rows{"a", "b"}), listed());
}

TEST_F(Revocation, UnknownValueStopsTheGroupAfterTheEntriesBeforeIt)
{
    files.writeRevocation({}, {{"A", "superseded"}, {"B", "bogus"}, {"C", "blacklisted"}});
    bool result = true;
    EXPECT_EQ("Unknown revocation type: bogus\n", stderrOf([&] {
                  result = database->processKeyidsFromFile(files.revocationPath(), "revoke-on-bind",
                                                           Database::Insert);
              }));
    EXPECT_FALSE(result);
    EXPECT_EQ((Rows{"A|0"}), stored());
}

TEST_F(Revocation, UnreadableValueIsReportedAsUnknown)
{
    // GLib refuses a value that is not valid UTF-8.
    writeText(files.revocationPath(), "[revoke]\nA=bad\xff\n");
    EXPECT_EQ("Unknown revocation type: \n", stderrOf([&] {
                  EXPECT_FALSE(database->processKeyidsFromFile(files.revocationPath(), "revoke",
                                                               Database::Insert));
              }));
    EXPECT_TRUE(std::cerr.good());
    EXPECT_EQ(Rows{}, stored());
}

TEST_F(Revocation, ValuesAreCaseSensitive)
{
    files.writeRevocation({{"A", "Blacklisted"}}, {});
    EXPECT_EQ("Unknown revocation type: Blacklisted\n", stderrOf([&] {
                  EXPECT_FALSE(database->processKeyidsFromFile(files.revocationPath(), "revoke",
                                                               Database::Insert));
              }));
    EXPECT_EQ(Rows{}, stored());
}

TEST_F(Revocation, FileEntriesAreInsertedAndRemovedByType)
{
    files.writeRevocation({}, {{"A", "superseded"}, {"B", "blacklisted"}});
    EXPECT_TRUE(database->processKeyidsFromFile(files.revocationPath(), "revoke-on-bind",
                                                Database::Insert));
    EXPECT_EQ((Rows{"A|0", "B|1"}), stored());

    // A has meanwhile been blacklisted by other means: removing it as
    // superseded leaves it in place.
    ASSERT_TRUE(database->insertRevokedKeyid("A", Database::Blacklisted));
    EXPECT_TRUE(database->processKeyidsFromFile(files.revocationPath(), "revoke-on-bind",
                                                Database::Remove));
    EXPECT_EQ((Rows{"A|1"}), stored());
}

TEST_F(Revocation, UnknownOperationFailsSilentlyWithoutChanges)
{
    files.writeRevocation({{"A", "superseded"}}, {});
    bool result = true;
    EXPECT_EQ("", stderrOf([&] {
                  result = database->processKeyidsFromFile(
                      files.revocationPath(), "revoke",
                      static_cast<Database::RevokedKeyidsOperation>(5));
              }));
    EXPECT_FALSE(result);
    EXPECT_EQ(Rows{}, stored());
}

TEST_F(Revocation, MissingFileFailsSilentlyAndMissingGroupSucceeds)
{
    EXPECT_EQ("", stderrOf([&] {
                  EXPECT_FALSE(database->processKeyidsFromFile(files.file("absent.conf"), "revoke",
                                                               Database::Insert));
                  EXPECT_FALSE(database->processKeyidsFromFile("", "revoke", Database::Insert));
              }));
    files.writeRevocation({{"A", "superseded"}}, {});
    EXPECT_TRUE(database->processKeyidsFromFile(files.revocationPath(), "revoke-on-bind",
                                                Database::Insert));
    writeText(files.revocationPath(), "[revoke-on-bind]\n");
    EXPECT_TRUE(database->processKeyidsFromFile(files.revocationPath(), "revoke-on-bind",
                                                Database::Insert));
    EXPECT_EQ(Rows{}, stored());
}

TEST_F(Revocation, PublicKeysAreTheRevokeOnBindGroup)
{
    files.writeRevocation({{"R", "blacklisted"}}, {{"A", "superseded"}, {"B", "blacklisted"}});
    EXPECT_TRUE(database->revokePublicKeys());
    EXPECT_EQ((Rows{"A|0", "B|1"}), stored());
    EXPECT_TRUE(database->trustPublicKeys());
    EXPECT_EQ(Rows{}, stored());
    EXPECT_TRUE(database->processPublicKeys(Database::Insert));
    EXPECT_TRUE(database->processPublicKeys(Database::Remove));
    EXPECT_EQ(Rows{}, stored());
}

TEST_F(Revocation, EmptyRevocationPathMakesProcessPublicKeysFail)
{
    files.writeConfiguration({{"database_path", files.databasePath()}});
    EXPECT_EQ("", stderrOf([&] {
                  EXPECT_FALSE(database->processPublicKeys(Database::Insert));
                  EXPECT_FALSE(database->processPublicKeys(Database::Remove));
              }));
}

TEST_F(Revocation, UpdateOutsideDeveloperModeInsertsBothGroups)
{
    files.writeRevocation({{"R1", "blacklisted"}, {"R2", "superseded"}},
                          {{"A", "superseded"}, {"B", "blacklisted"}});
    EXPECT_TRUE(database->updateRevokedKeyids());
    EXPECT_EQ((Rows{"A|0", "B|1", "R1|1", "R2|0"}), stored());
}

TEST_F(Revocation, UpdateInDeveloperModeRemovesRevokeOnBindButInsertsRevoke)
{
    files.writeRevocation({{"R1", "blacklisted"}, {"R2", "superseded"}},
                          {{"A", "superseded"}, {"B", "blacklisted"}});
    ASSERT_TRUE(database->revokePublicKeys());
    files.writeRuntimeMode("true");
    EXPECT_TRUE(database->updateRevokedKeyids());
    EXPECT_EQ((Rows{"R1|1", "R2|0"}), stored());
}

TEST_F(Revocation, UpdateNeverRemovesRevokeEntries)
{
    // K is listed in both groups: developer mode withdraws its revoke-on-bind
    // entry, and the revoke group puts it back.
    files.writeRevocation({{"K", "blacklisted"}}, {{"K", "blacklisted"}});
    ASSERT_TRUE(database->revokePublicKeys());
    files.writeRuntimeMode("true");
    EXPECT_TRUE(database->updateRevokedKeyids());
    EXPECT_EQ((Rows{"K|1"}), stored());
}

TEST_F(Revocation, UpdateRunsBothStepsAndReportsEitherFailure)
{
    files.writeRevocation({{"R", "blacklisted"}}, {{"A", "bogus"}});
    bool result = true;
    EXPECT_EQ("Unknown revocation type: bogus\n",
              stderrOf([&] { result = database->updateRevokedKeyids(); }));
    EXPECT_FALSE(result);
    EXPECT_EQ((Rows{"R|1"}), stored());

    files.writeRevocation({{"R", "bogus"}}, {{"A", "superseded"}});
    EXPECT_EQ("Unknown revocation type: bogus\n",
              stderrOf([&] { result = database->updateRevokedKeyids(); }));
    EXPECT_FALSE(result);
    EXPECT_EQ((Rows{"A|0", "R|1"}), stored());
}

TEST_F(Revocation, UpdateWithoutRevocationFileFails)
{
    files.removeFile(files.revocationPath());
    EXPECT_FALSE(database->updateRevokedKeyids());
    EXPECT_EQ(Rows{}, stored());
}

TEST_F(Revocation, UpdateLeavesNoTransactionOpen)
{
    files.writeRevocation({{"R", "bogus"}}, {});
    stderrOf([&] { database->updateRevokedKeyids(); });
    // The update's transaction ended with it.
    EXPECT_TRUE(lockableAtOnce(files.databasePath()));
}

TEST_F(Revocation, ManyKeyidsThroughTheCachedStatements)
{
    for (int i = 0; i < 24; ++i)
        ASSERT_TRUE(database->insertRevokedKeyid(
            "key" + std::to_string(i), i % 2 ? Database::Blacklisted : Database::Superseded));
    for (int i = 0; i < 24; i += 3)
        ASSERT_TRUE(database->removeRevokedKeyid(
            "key" + std::to_string(i), i % 2 ? Database::Blacklisted : Database::Superseded));
    EXPECT_EQ(16u, database->revokedKeyids().size());
    EXPECT_EQ(Database::Blacklisted, database->getKeyidRevocationStatus("key1"));
    EXPECT_EQ(Database::NotRevoked, database->getKeyidRevocationStatus("key3"));
}

}  // namespace
