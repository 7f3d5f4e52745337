// Several processes on one database file, as on a device where an installer,
// an update service and an administrator's command run at once: an upgrade
// racing a blacklisting must not lower it, a write that cannot commit must
// say so and leave nothing half done, and writers contending for the file
// lose no row they were told was written and report every failure as a busy
// database. The waits for locks are shortened so that the suite stays quick.
#include <gtest/gtest.h>
#include <sqlite3.h>

#include <map>
#include <memory>
#include <set>
#include <sstream>
#include <string>
#include <vector>

#include <time.h>

#include <sealkeep/database.hpp>

#include "database_record.hpp"
#include "support/database_fixture.hpp"
#include "support/database_processes.hpp"
#include "support/files.hpp"
#include "support/package_signatures.hpp"
#include "support/pki.hpp"
#include "support/sqlite_file.hpp"

using namespace sealkeep::test;
using PackageSignatures::Database;

namespace {

// Hundreds of files are created, opened and upgraded below.
const bool filesInMemory = preferFilesInMemory();

constexpr char busyLine[] = "Database is busy: database is locked";
constexpr char readTransaction[] = "BEGIN; SELECT COUNT(1) FROM sqlite_master";
constexpr char writeTransaction[] = "BEGIN EXCLUSIVE";

std::unique_ptr<Database> openDatabase(TrustFiles const& files)
{
    return std::make_unique<Database>(files.databasePath(), files.confPath());
}

Rows revokedRows(TrustFiles const& files)
{
    return SqliteFile(files.databasePath())
        .queryRows("SELECT keyid, type FROM revoked_keyids ORDER BY keyid");
}

// Process A blacklists K while process B opens the same old file: whichever
// of them upgrades it, the other must neither redo a step over newer data nor
// write back an older version.
TEST(DatabaseConcurrency, UpgradeRacingABlacklistingNeverLowersIt)
{
    TrustFiles files;
    files.writeRevocation({}, {});
    int lowered = 0;
    for (int trial = 0; trial < 200; ++trial) {
        const int version = 1 + trial % 2;
        SCOPED_TRACE("trial " + std::to_string(trial) + " from version " +
                     std::to_string(version));
        removeDatabaseFiles(files.databasePath());
        createOldDatabase(files.databasePath(), version);
        const std::string errorsA = files.file("a.txt"), errorsB = files.file("b.txt");
        StartGate gate;
        pid_t blacklisting = startChild(
            [&] {
                if (!gate.wait())
                    return 2;
                return openDatabase(files)->insertRevokedKeyid("K", Database::Blacklisted) ? 0
                                                                                            : 1;
            },
            errorsA);
        pid_t opening = startChild(
            [&] {
                if (!gate.wait())
                    return 2;
                openDatabase(files);
                return 0;
            },
            errorsB);
        gate.open();
        Outcome a = waitChild(blacklisting, errorsA);
        Outcome b = waitChild(opening, errorsB);
        ASSERT_EQ(0, a.exitCode) << a.errors;
        ASSERT_EQ(0, b.exitCode) << b.errors;
        EXPECT_EQ("", a.errors);
        EXPECT_EQ("", b.errors);

        SqliteFile file(files.databasePath());
        EXPECT_EQ("ok", file.integrityCheck());
        EXPECT_EQ(4, file.userVersion());
        const Rows k = file.queryRows("SELECT keyid, type FROM revoked_keyids WHERE keyid = 'K'");
        if (k != Rows{"K|1"})
            ++lowered;
        if (testing::Test::HasFatalFailure())
            return;
    }
    EXPECT_EQ(0, lowered) << "of 200 trials";
}

// The suites below wait 200 ms for a lock instead of the library's seconds.
class BusyDatabase : public testing::Test {
protected:
    static constexpr int waitMs = 200;
    // The longest a lock is held: each test has its holder let go (finish())
    // once it is done, so that however slowly the machine runs, every wait
    // of the test runs out while the lock is still held.
    static constexpr int holdMs = 20000;

    TrustFiles files;

    void SetUp() override { sealkeep::setDatabaseBusyTimeoutForTests(waitMs); }
    void TearDown() override { sealkeep::setDatabaseBusyTimeoutForTests(0); }

    // An open that found the fresh file busy printed the busy line and left
    // the file without tables or version; the next open creates it.
    void expectLeftFreshThenCreated(std::string const& printed)
    {
        EXPECT_EQ(std::string(busyLine) + "\n", printed);
        {
            SqliteFile untouched(files.databasePath());
            EXPECT_EQ(Rows{}, untouched.tables());
            EXPECT_EQ(0, untouched.userVersion());
        }
        EXPECT_EQ("", stderrOf([&] { openDatabase(files); }));
        SqliteFile created(files.databasePath());
        EXPECT_EQ(currentTables, created.tables());
        EXPECT_EQ(4, created.userVersion());
    }
};

TEST_F(BusyDatabase, UpdateThatCannotCommitFailsAndLosesNothingReported)
{
    files.writeRevocation({{"r1", "blacklisted"}}, {{"b1", "superseded"}});
    auto database = openDatabase(files);
    ASSERT_EQ((Rows{"b1|0"}), revokedRows(files));

    bool result = true;
    std::string printed;
    {
        LockHolder reader(files.databasePath(), readTransaction, holdMs);
        printed = stderrOf([&] { result = database->updateRevokedKeyids(); });
        EXPECT_TRUE(reader.finish());
    }
    EXPECT_FALSE(result);
    EXPECT_EQ(std::string(busyLine) + "\n", printed);
    // The connection is not left inside the failed transaction: what it
    // writes next is written for good.
    EXPECT_TRUE(database->insertRevokedKeyid("after", Database::Blacklisted));
    EXPECT_TRUE(lockableAtOnce(files.databasePath()));
    database.reset();
    EXPECT_EQ((Rows{"after|1", "b1|0"}), revokedRows(files));

    EXPECT_TRUE(openDatabase(files)->updateRevokedKeyids());
    EXPECT_EQ((Rows{"after|1", "b1|0", "r1|1"}), revokedRows(files));
}

TEST_F(BusyDatabase, FreshFileThatCannotCommitIsReportedAndCreatedByTheNextOpen)
{
    files.writeRevocation({}, {{"b1", "blacklisted"}});
    std::string printed;
    {
        LockHolder reader(files.databasePath(), readTransaction, holdMs);
        printed = stderrOf([&] { openDatabase(files); });
        EXPECT_TRUE(reader.finish());
    }
    expectLeftFreshThenCreated(printed);
    EXPECT_EQ((Rows{"b1|1"}), revokedRows(files));
}

TEST_F(BusyDatabase, OpeningAFileLockedByAWriterReportsItBusy)
{
    files.writeRevocation({}, {});
    createOldDatabase(files.databasePath(), 2);
    std::string printed;
    {
        LockHolder writer(files.databasePath(), writeTransaction, holdMs);
        printed = stderrOf([&] { openDatabase(files); });
        EXPECT_TRUE(writer.finish());
    }
    EXPECT_EQ(std::string(busyLine) + "\n", printed);
    EXPECT_EQ(2, SqliteFile(files.databasePath()).userVersion());
    EXPECT_EQ("", stderrOf([&] { openDatabase(files); }));
    EXPECT_EQ(4, SqliteFile(files.databasePath()).userVersion());
}

// Here the version cannot be read (it is refused), so the table count alone
// tells a fresh file from an old one; that count cannot even be prepared
// while another process holds the file. A file that tells nothing is busy,
// not an old file to upgrade from version -1.
TEST_F(BusyDatabase, FreshFileWhoseTablesCannotBeCountedIsReportedBusy)
{
    files.writeRevocation({}, {});
    std::string printed;
    {
        LockHolder writer(files.databasePath(), writeTransaction, holdMs);
        RefusingConnections refusing({{SQLITE_PRAGMA, "user_version"}});
        printed = stderrOf([&] { openDatabase(files); });
        EXPECT_TRUE(writer.finish());
    }
    expectLeftFreshThenCreated(printed);
}

TEST_F(BusyDatabase, WritesBlockedByAWriterFailAsBusy)
{
    files.writeRevocation({}, {});
    auto database = openDatabase(files);
    LockHolder writer(files.databasePath(), writeTransaction, holdMs);
    bool inserted = true, removed = true;
    int status = 0;
    std::vector<std::string> listed{"x"};
    const std::string printed = stderrOf([&] {
        inserted = database->insertRevokedKeyid("k", Database::Blacklisted);
        removed = database->removeRevokedKeyid("k", Database::Blacklisted);
        status = database->getKeyidRevocationStatus("k");
        listed = database->revokedKeyids();
    });
    EXPECT_TRUE(writer.finish());
    EXPECT_FALSE(inserted);
    EXPECT_FALSE(removed);
    // A status that could not be read is the strongest one.
    EXPECT_EQ(Database::Blacklisted, status);
    EXPECT_EQ(std::vector<std::string>{}, listed);
    const std::string line = std::string(busyLine) + "\n";
    EXPECT_EQ(line + line + line + line, printed);
}

// A key blacklisted before another process locked the file must not read
// as clean while the lock lasts: the status and the admission decision both
// refuse, and say why.
TEST_F(BusyDatabase, RevocationThatCannotBeReadRefusesTheKey)
{
    files.writeRevocation({}, {});
    Pki pki;
    const Identity developer = pki.issue("busy developer", "developer");
    const std::vector<PackageSignatures::Cms> cmses{signedCms(developer)};
    const std::string keyid = cmses.front().certificate()->keyId();
    auto database = openDatabase(files);
    ASSERT_TRUE(database->insertRevokedKeyid(keyid, Database::Blacklisted));
    ASSERT_EQ(PackageSignatures::KeyBlacklisted, database->checkPackage("p", cmses, false));
    // Whatever was cached, an unknown key reads clean while the file is free.
    ASSERT_EQ(Database::NotRevoked, database->getKeyidRevocationStatus("unknown"));

    int status = Database::NotRevoked, unknownStatus = Database::NotRevoked;
    int decision = PackageSignatures::Accepted;
    std::string printed;
    {
        LockHolder writer(files.databasePath(), writeTransaction, holdMs);
        printed = stderrOf([&] {
            status = database->getKeyidRevocationStatus(keyid);
            unknownStatus = database->getKeyidRevocationStatus("unknown");
            decision = database->checkPackage("p", cmses, false);
        });
        EXPECT_TRUE(writer.finish());
    }
    EXPECT_EQ(Database::Blacklisted, status);
    EXPECT_EQ(Database::Blacklisted, unknownStatus);
    EXPECT_EQ(PackageSignatures::KeyBlacklisted, decision);
    const std::string line = std::string(busyLine) + "\n";
    EXPECT_EQ(line + line + line, printed);

    // Once the lock is gone the same connection reads the file again.
    EXPECT_EQ(Database::NotRevoked, database->getKeyidRevocationStatus("unknown"));
    EXPECT_EQ(Database::Blacklisted, database->getKeyidRevocationStatus(keyid));
}

// A connection opened while another process held the file has not read the
// schema yet, so its statements cannot even be prepared until the lock is
// gone: that too is a status it could not read, not a clean key.
TEST_F(BusyDatabase, ConnectionOpenedWhileLockedStillRefusesABlacklistedKey)
{
    files.writeRevocation({}, {});
    Pki pki;
    const Identity developer = pki.issue("busy developer", "developer");
    const std::vector<PackageSignatures::Cms> cmses{signedCms(developer)};
    const std::string keyid = cmses.front().certificate()->keyId();
    ASSERT_TRUE(openDatabase(files)->insertRevokedKeyid(keyid, Database::Blacklisted));

    std::unique_ptr<Database> database;
    int decision = PackageSignatures::Accepted;
    int status = Database::NotRevoked;
    std::string printed;
    {
        LockHolder writer(files.databasePath(), writeTransaction, holdMs);
        printed = stderrOf([&] {
            database = openDatabase(files);
            decision = database->checkPackage("p", cmses, false);
            status = database->getKeyidRevocationStatus(keyid);
        });
        EXPECT_TRUE(writer.finish());
    }
    EXPECT_EQ(PackageSignatures::KeyBlacklisted, decision);
    EXPECT_EQ(Database::Blacklisted, status);
    const std::string line = std::string(busyLine) + "\n";
    EXPECT_EQ(line + line + line, printed);

    EXPECT_EQ(PackageSignatures::KeyBlacklisted, database->checkPackage("p", cmses, false));
    EXPECT_EQ(Database::NotRevoked, database->getKeyidRevocationStatus("unknown"));
}

// Reads of the package records that find the file locked say so, as the
// revocation reads do, instead of answering with a silently shorter list.
TEST_F(BusyDatabase, RecordReadsBlockedByAWriterReportBusy)
{
    files.writeRevocation({}, {});
    Pki pki;
    const Identity developer = pki.issue("busy developer", "developer");
    auto database = openDatabase(files);
    // Every read below would find something if it could read at all.
    ASSERT_TRUE(database->insertPackage("p", {signedCms(developer)}));
    ASSERT_EQ(4u, database->packages().size() + database->certificates().size() +
                      database->activeCertificates().size() +
                      database->packageCertificates("p").size());
    ASSERT_TRUE(database->packageExists("p"));
    std::size_t found = 1;
    bool exists = true;
    std::string printed;
    {
        LockHolder writer(files.databasePath(), writeTransaction, holdMs);
        printed = stderrOf([&] {
            found = database->packages().size() + database->certificates().size() +
                    database->activeCertificates().size() +
                    database->packageCertificates("p").size();
            exists = database->packageExists("p");
        });
        EXPECT_TRUE(writer.finish());
    }
    EXPECT_EQ(0u, found);
    EXPECT_FALSE(exists);
    const std::string line = std::string(busyLine) + "\n";
    EXPECT_EQ(line + line + line + line + line, printed);
}

// What one contending writer did: the key ids it was told were written (and
// with which type) or removed, how many calls returned false, and what it
// printed.
struct WriterLog {
    std::map<std::string, int> written;
    std::set<std::string> removed;
    int updates = 0;
    int failures = 0;
    int successes = 0;
};

std::string writerLogPath(TrustFiles const& files, int writer)
{
    return files.file("writer-" + std::to_string(writer) + ".log");
}

double secondsSince(timespec const& start)
{
    timespec now;
    clock_gettime(CLOCK_MONOTONIC, &now);
    return static_cast<double>(now.tv_sec - start.tv_sec) +
           static_cast<double>(now.tv_nsec - start.tv_nsec) / 1e9;
}

// One writer's loop for about `seconds`: it reopens the database every few
// calls (so that opening and upgrading contend too), inserts key ids of its
// own, removes some of them again and applies the revocation file. Its log
// holds one line per call that returned true ("+ keyid type", "- keyid",
// "update") and the number of calls that returned false ("failures n").
int contend(TrustFiles const& files, int writer, double seconds, StartGate& gate)
{
    if (!gate.wait())
        return 2;
    std::ostringstream log;
    int failures = 0;
    timespec start;
    clock_gettime(CLOCK_MONOTONIC, &start);
    std::unique_ptr<Database> database;
    for (int i = 0; secondsSince(start) < seconds; ++i) {
        if (i % 8 == 0)
            database = openDatabase(files);
        const std::string keyid = "w" + std::to_string(writer) + "-" + std::to_string(i);
        const auto type = i % 2 ? Database::Blacklisted : Database::Superseded;
        if (database->insertRevokedKeyid(keyid, type))
            log << "+ " << keyid << ' ' << type << '\n';
        else
            ++failures;
        if (i % 3 == 2) {
            const std::string earlier =
                "w" + std::to_string(writer) + "-" + std::to_string(i - 2);
            if (database->removeRevokedKeyid(earlier, Database::Superseded))
                log << "- " << earlier << '\n';
            else
                ++failures;
        }
        if (i % 10 == 5) {
            if (database->updateRevokedKeyids())
                log << "update\n";
            else
                ++failures;
        }
    }
    log << "failures " << failures << '\n';
    writeText(files.file("writer-" + std::to_string(writer) + ".log"), log.str());
    return 0;
}

WriterLog readWriterLog(std::string const& path)
{
    WriterLog log;
    std::istringstream lines(readText(path));
    std::string what;
    while (lines >> what) {
        std::string keyid;
        int type = 0;
        if (what == "+" && lines >> keyid >> type) {
            log.written[keyid] = type;
            log.removed.erase(keyid);
            ++log.successes;
        } else if (what == "-" && lines >> keyid) {
            // Only a superseded entry is removed; a blacklisted one stays.
            if (log.written.count(keyid) && log.written[keyid] == Database::Superseded)
                log.removed.insert(keyid);
            ++log.successes;
        } else if (what == "update") {
            ++log.updates;
            ++log.successes;
        } else if (what == "failures") {
            lines >> log.failures;
        }
    }
    return log;
}

TEST_F(BusyDatabase, ContendingWritersLoseNothingAndReportEveryFailure)
{
    constexpr int writers = 4;
    constexpr double seconds = 3;
    files.writeRevocation({{"r1", "blacklisted"}, {"r2", "superseded"}},
                          {{"b1", "superseded"}});
    createOldDatabase(files.databasePath(), 0);

    StartGate gate;
    std::vector<pid_t> children;
    for (int writer = 0; writer < writers; ++writer)
        children.push_back(startChild([&] { return contend(files, writer, seconds, gate); },
                                      files.file("errors-" + std::to_string(writer) + ".txt")));
    gate.open();

    std::map<std::string, int> expected{{"b1", 0}};
    bool updated = false;
    std::set<std::string> removed;
    for (int writer = 0; writer < writers; ++writer) {
        SCOPED_TRACE("writer " + std::to_string(writer));
        Outcome outcome =
            waitChild(children[writer], files.file("errors-" + std::to_string(writer) + ".txt"));
        ASSERT_EQ(0, outcome.exitCode) << outcome.errors;
        const WriterLog log = readWriterLog(writerLogPath(files, writer));
        // Every process had its turns.
        EXPECT_GT(log.successes, 0);
        // Every false result came with a busy report, and nothing else was
        // printed (an open that found the file busy reports it too).
        std::istringstream printed(outcome.errors);
        int busyReports = 0;
        for (std::string line; std::getline(printed, line);) {
            EXPECT_EQ(busyLine, line);
            ++busyReports;
        }
        EXPECT_GE(busyReports, log.failures);
        for (auto const& [keyid, type] : log.written)
            expected[keyid] = type;
        removed.insert(log.removed.begin(), log.removed.end());
        updated = updated || log.updates > 0;
    }
    if (updated) {
        expected["r1"] = Database::Blacklisted;
        expected["r2"] = Database::Superseded;
    }
    for (std::string const& keyid : removed)
        expected.erase(keyid);

    SqliteFile file(files.databasePath());
    EXPECT_EQ("ok", file.integrityCheck());
    EXPECT_EQ(4, file.userVersion());
    Rows expectedRows;
    for (auto const& [keyid, type] : expected)
        expectedRows.push_back(keyid + "|" + std::to_string(type));
    EXPECT_EQ(expectedRows, revokedRows(files));
}

}  // namespace
