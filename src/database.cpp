// Database: opening the trust database, creating the schema of a fresh file,
// upgrading older files step by step to version 4, and the statement cache and
// helpers that every Database operation runs its SQL through.
#include <algorithm>
#include <chrono>
#include <iostream>
#include <optional>
#include <string>
#include <thread>

#include <sys/stat.h>
#include <unistd.h>

#include <sealkeep/configuration.hpp>
#include <sealkeep/limits.hpp>

#include "database_record.hpp"

namespace PackageSignatures {

namespace {

constexpr int currentVersion = databaseSchemaVersion;
// How long a connection waits for another process's lock before it reports
// the database busy. Only tests change it (setDatabaseBusyTimeoutForTests).
constexpr int defaultBusyTimeoutMs = 5000;
int busyTimeoutMs = defaultBusyTimeoutMs;
// The name of a VFS that SQLite does not have: opening with it fails before
// the file is touched, and leaves a connection on which everything fails.
constexpr char refusingVfs[] = "sealkeep-refused-file";

using SqliteTextPtr = std::unique_ptr<char, sealkeep::Deleter<sqlite3_free>>;

// The schema of the current version, in creation order.
constexpr char createGroupsSql[] =
    "CREATE TABLE IF NOT EXISTS groups(id INTEGER PRIMARY KEY, name TEXT NOT NULL UNIQUE)";
constexpr char createSubgroupsSql[] =
    "CREATE TABLE IF NOT EXISTS subgroups(id INTEGER PRIMARY KEY, name TEXT NOT NULL UNIQUE)";
constexpr char createCertificatesSql[] =
    "CREATE TABLE IF NOT EXISTS certificates(id INTEGER PRIMARY KEY, key BLOB NOT NULL, "
    "certificate BLOB NOT NULL, subject TEXT NOT NULL, group_id INTEGER, subgroup_id INTEGER, "
    "FOREIGN KEY(group_id) REFERENCES groups(id), FOREIGN KEY(subgroup_id) REFERENCES "
    "subgroups(id), UNIQUE (id, key, group_id, subgroup_id))";
constexpr char createPackagesSql[] =
    "CREATE TABLE IF NOT EXISTS packages(id TEXT NOT NULL, certificateid INTEGER NOT NULL, "
    "FOREIGN KEY(certificateid) REFERENCES certificates(id), UNIQUE (id, certificateid))";
constexpr char createRevokedKeyidsSql[] =
    "CREATE TABLE IF NOT EXISTS revoked_keyids(id INTEGER PRIMARY KEY, keyid TEXT NOT NULL "
    "UNIQUE, type INTEGER NOT NULL)";

constexpr char tableCountSql[] = "SELECT COUNT(1) FROM sqlite_master WHERE type='table'";
constexpr char userVersionSql[] = "PRAGMA user_version";

// Column 0 of the first row of a query run once; nullopt without a row.
// result receives the result of the preparation when it failed, else of the
// step, so that the caller can tell a busy database from an answer: preparing
// reads the schema from the file, and fails too while another process holds
// it. Nothing is reported.
std::optional<int> queryInt(sqlite3* db, const char* sql, int& result)
{
    StatementPtr statement = prepareOnce(db, sql, result);
    if (!statement)
        return std::nullopt;
    result = sqlite3_step(statement.get());
    if (result != SQLITE_ROW)
        return std::nullopt;
    return sqlite3_column_int(statement.get(), 0);
}

// The number of tables in the file; nullopt when it cannot be read.
std::optional<int> tableCount(sqlite3* db)
{
    int result = SQLITE_OK;
    return queryInt(db, tableCountSql, result);
}

int readUserVersion(sqlite3* db)
{
    int result = SQLITE_OK;
    const std::optional<int> version = queryInt(db, userVersionSql, result);
    reportBusy(result);
    return version.value_or(-1);
}

bool writeUserVersion(sqlite3* db, int version)
{
    const std::string sql = "PRAGMA user_version = " + std::to_string(version);
    const int result = sqlite3_exec(db, sql.c_str(), nullptr, nullptr, nullptr);
    reportBusy(result);
    return result == SQLITE_OK;
}

// Whether the file is already at reachedVersion or beyond, read under the
// write lock that the caller's transaction holds: another process may have
// upgraded it since this one last looked. An unreadable version counts as
// not reached, so the step runs.
bool alreadyReached(sqlite3* db, int reachedVersion)
{
    return readUserVersion(db) >= reachedVersion;
}

// Runs the statements of one schema step as a whole and, in the same
// transaction, moves the version forward to the one the step reaches. A
// failure or a crash thus leaves either the old schema under the old version
// or the new schema under the new one. The new schema under the old version
// must never happen: the steps that add rows cannot be repeated, so the file
// could not be upgraded again. The transaction takes the write lock before
// it reads the version, so a step that another process has already made is
// skipped, never made again over the newer data (copying revoked_keyids
// again would turn every blacklisting into a superseding).
bool runSchemaStep(sqlite3* db, int reachedVersion, std::initializer_list<SqlStep> steps)
{
    Transaction transaction(db, Transaction::Immediate);
    if (!began(transaction))
        return false;
    if (alreadyReached(db, reachedVersion))
        return true;
    if (!runSqlSteps(db, steps) || !writeUserVersion(db, reachedVersion))
        return false;
    return committed(transaction);
}

// The busy handler of every connection: waits for another process's lock in
// short sleeps of random length, so that processes contending for the file
// take turns rather than one of them sleeping through every chance, and gives
// up once busyTimeoutMs have passed since this wait began. The process id is
// mixed in because forked processes share SQLite's random sequence.
int waitForLock(void* data, int attempt)
{
    using namespace std::chrono;
    BusyWait& wait = *static_cast<BusyWait*>(data);
    const steady_clock::time_point now = steady_clock::now();
    if (attempt == 0)
        wait.since = now;
    else if (now - wait.since >= milliseconds(busyTimeoutMs)) {
        ++wait.expired;
        return 0;
    }
    unsigned random = 0;
    sqlite3_randomness(sizeof random, &random);
    random ^= static_cast<unsigned>(getpid()) * 2654435761u;
    const unsigned longest = static_cast<unsigned>(std::min(attempt + 1, 10)) * 1000;
    std::this_thread::sleep_for(microseconds(100 + random % longest));
    return 1;
}

}  // namespace

}  // namespace PackageSignatures

void sealkeep::setDatabaseBusyTimeoutForTests(int milliseconds)
{
    PackageSignatures::busyTimeoutMs =
        milliseconds > 0 ? milliseconds : PackageSignatures::defaultBusyTimeoutMs;
}

namespace PackageSignatures {

bool reportBusy(int result)
{
    if ((result & 0xff) != SQLITE_BUSY)
        return false;
    std::cerr << "Database is busy: " << sqlite3_errstr(result) << std::endl;
    return true;
}

StatementPtr prepareOnce(sqlite3* db, const char* sql, int& result)
{
    sqlite3_stmt* statement = nullptr;
    result = sqlite3_prepare_v2(db, sql, -1, &statement, nullptr);
    return StatementPtr(statement);
}

StatementPtr prepareOnce(sqlite3* db, const char* sql)
{
    int result = SQLITE_OK;
    StatementPtr statement = prepareOnce(db, sql, result);
    reportBusy(result);
    return statement;
}

bool runSqlSteps(sqlite3* db, std::initializer_list<SqlStep> steps)
{
    for (SqlStep const& step : steps) {
        char* collected = nullptr;
        int result =
            sqlite3_exec(db, step.sql, nullptr, nullptr, step.withErrorText ? &collected : nullptr);
        SqliteTextPtr errorText(collected);
        if (result == SQLITE_OK)
            continue;
        // Nothing is streamed when no text was collected: a null char* would
        // put std::cerr into its failed state and silence every later message.
        std::cerr << step.failurePrefix;
        if (errorText)
            std::cerr << errorText.get();
        std::cerr << std::endl;
        return false;
    }
    return true;
}

Database::Record::~Record()
{
    for (auto& [key, statement] : statements)
        sqlite3_finalize(statement);
    sqlite3_close(db);
}

sqlite3_stmt* Database::cachedStatement(int key, std::string_view sql)
{
    int result = SQLITE_OK;
    return cachedStatement(key, sql, result);
}

sqlite3_stmt* Database::cachedStatement(int key, std::string_view sql, int& result)
{
    sqlite3_stmt*& statement = record_->statements[key];
    result = SQLITE_OK;
    // Preparing reads the schema from the file the first time, so a file that
    // another process keeps locked fails it; that is reported like any read.
    if (!statement) {
        result = sqlite3_prepare_v2(record_->db, sql.data(), static_cast<int>(sql.size()),
                                    &statement, nullptr);
        reportBusy(result);
    }
    return statement;
}

Database::Database(std::string_view dbPath) : Database(dbPath, Configuration().confPath()) {}

Database::Database(std::string_view dbPath, std::string_view confPath)
    : Database(dbPath, confPath, CreateIfMissing)
{}

Database::Database(std::string_view dbPath, std::string_view confPath, OpenMode mode)
    : record_(std::make_unique<Record>())
{
    record_->confPath = std::string(confPath);
    const std::string path(dbPath);
    // SQLite would read a FIFO or a device given in place of the file, and
    // wait on it for ever. Such a path gets a connection that failed to
    // open, as one in a missing directory does: every operation fails on it.
    struct stat status {};
    const bool unusable = stat(path.c_str(), &status) == 0 && !S_ISREG(status.st_mode);
    const int flags = mode == ExistingOnly ? SQLITE_OPEN_READWRITE : SQLITE_OPEN_READWRITE | SQLITE_OPEN_CREATE;
    if (sqlite3_open_v2(path.c_str(), &record_->db, flags, unusable ? refusingVfs : nullptr) != SQLITE_OK) {
        std::cerr << "Could not open database at " << dbPath << std::endl;
        return;
    }

    // Other processes may use the file at the same time: wait for their
    // locks for a while rather than fail at once.
    sqlite3_busy_handler(record_->db, waitForLock, &record_->busyWait);

    // Both facts come from one snapshot, so that another process creating
    // the tables in between cannot make a fresh file look like an old one.
    // They only choose the way: initializing and every upgrade step read
    // them again under the write lock. A file that stayed locked tells
    // nothing, and is reported as busy rather than as unreadable.
    int result = SQLITE_OK;
    Transaction snapshot(record_->db);
    const int version = queryInt(record_->db, userVersionSql, result).value_or(-1);
    std::optional<int> tables;
    if ((result & 0xff) != SQLITE_BUSY)
        tables = queryInt(record_->db, tableCountSql, result);
    snapshot.commit();
    if (reportBusy(result))
        return;

    if (tables && *tables == 0) {
        initializeDatabase();
        return;
    }
    if (version <= 3) {
        // Failures are reported by migrate itself; the steps already made
        // stay recorded and the next open resumes from there.
        migrate(version, currentVersion);
        return;
    }
    if (version != currentVersion)
        std::cerr << "Unsupported database version: " << version << std::endl;
}

Database::~Database() = default;

std::string Database::defaultPath()
{
    return Configuration().databasePath();
}

int Database::queryVersion()
{
    return readUserVersion(record_->db);
}

bool Database::setVersion(int version)
{
    return writeUserVersion(record_->db, version);
}

bool Database::createTables()
{
    // Only the first two creations report SQLite's error text; the others
    // report their prefix alone.
    return runSqlSteps(
        record_->db, {{createGroupsSql, "Could not create groups table: "},
                      {createSubgroupsSql, "Could not create subgroups table: "},
                      {createCertificatesSql, "Could not create certificates table: ", false},
                      {createPackagesSql, "Could not create packages table: ", false},
                      {createRevokedKeyidsSql, "Could not create revoked_keyids table: ", false}});
}

void Database::initializeDatabase()
{
    // Everything a fresh file gets is one transaction: a failure (or a crash)
    // leaves a file without tables, which the next open initializes again.
    // Under the write lock, tables found now were made by another process
    // since this one looked, with everything else a fresh file gets: doing
    // it again would bring back revoke-on-bind key ids removed since.
    Transaction transaction(record_->db, Transaction::Immediate);
    if (!began(transaction))
        return;
    const std::optional<int> tables = tableCount(record_->db);
    if (tables && *tables > 0)
        return;
    if (!createTables()) {
        std::cerr << "Could not create tables" << std::endl;
        return;
    }
    if (!isDeveloperModeEnabled() && !revokePublicKeys()) {
        std::cerr << "Could not revoke public keys" << std::endl;
        return;
    }
    if (!setVersion(currentVersion)) {
        std::cerr << "Could not set database version" << std::endl;
        return;
    }
    committed(transaction);
}

bool Database::migrate(int from, int to)
{
    if (from < 0 || from >= currentVersion) {
        std::cerr << "Could not upgrade database schema from version " << from << " to version "
                  << to << std::endl;
        return false;
    }
    for (int version = from; version < currentVersion; ++version) {
        // A step that failed because the file stayed locked has been
        // reported as busy; it is not a failed upgrade.
        const int expiredWaits = record_->busyWait.expired;
        if (!migrateFrom(version)) {
            if (record_->busyWait.expired == expiredWaits)
                std::cerr << "Schema upgrade to version " << version + 1 << " failed"
                          << std::endl;
            return false;
        }
        // Every step records the version it reaches in its own transaction,
        // and only when the file was below it: writing the version again
        // here could lower the one another process has reached meanwhile.
    }
    return true;
}

bool Database::migrateFrom(int version)
{
    switch (version) {
    case 0:
        return migrateV0toV1();
    case 1:
        return migrateV1toV2();
    case 2:
        return migrateV2toV3();
    case 3:
        return migrateV3toV4();
    }
    return false;
}

bool Database::migrateV0toV1()
{
    return runSchemaStep(
        record_->db, 1,
        {{createSubgroupsSql, "Could not create subgroups table: "},
         {"INSERT INTO subgroups (name) VALUES ('regular'), ('antivirus'), ('extended'), "
          "('mdm')",
          "Could not insert subgroups data: "},
         {"CREATE TABLE IF NOT EXISTS new_certificates(id INTEGER PRIMARY KEY, key BLOB NOT "
          "NULL, certificate BLOB NOT NULL, subject TEXT NOT NULL, group_id INTEGER, "
          "subgroup_id INTEGER, FOREIGN KEY(group_id) REFERENCES groups(id), FOREIGN "
          "KEY(subgroup_id) REFERENCES subgroups(id), UNIQUE (id, key, group_id, "
          "subgroup_id))",
          "Could not create new_certificates table: "},
         {"INSERT INTO new_certificates (id, key, certificate, subject, group_id, "
          "subgroup_id) SELECT id, key, certificate, subject, group_id, (SELECT id FROM "
          "subgroups WHERE name = 'regular') FROM certificates",
          "Could not copy data from certificates to new_certificates: "},
         {"DROP TABLE certificates", "Could not drop certificates table: "},
         {"ALTER TABLE new_certificates RENAME TO certificates",
          "Could not rename new_certificates to certificates table: "}});
}

bool Database::migrateV1toV2()
{
    return runSchemaStep(
        record_->db, 2,
        {{"CREATE TABLE IF NOT EXISTS revoked_keyids(id INTEGER PRIMARY KEY, keyid "
          "TEXT NOT NULL UNIQUE)",
          "Could not create revoked_keyids table: "}});
}

bool Database::migrateV2toV3()
{
    return runSchemaStep(
        record_->db, 3,
        {{"CREATE TABLE IF NOT EXISTS new_revoked_keyids(id INTEGER PRIMARY KEY, keyid TEXT "
          "NOT NULL UNIQUE, type INTEGER NOT NULL)",
          "Could not create new_revoked_keyids table: "},
         {"INSERT INTO new_revoked_keyids (id, keyid, type) SELECT id, keyid, 0 FROM "
          "revoked_keyids",
          "Could not copy data from revoked_keyids to new_revoked_keyids: "},
         {"DROP TABLE revoked_keyids", "Could not drop revoked_keyids table: "},
         {"ALTER TABLE new_revoked_keyids RENAME TO revoked_keyids",
          "Could not rename new_revoked_keyids to revoked_keyids table: "}});
}

bool Database::migrateV3toV4()
{
    // No table changes: version 4 only brings the revoke-on-bind key ids in
    // line with developer mode. That and recording version 4 are one
    // transaction, so that an interrupted upgrade leaves version 3 exactly as
    // it was; and it is made once, so that key ids changed since version 4
    // was reached are not changed back.
    Transaction transaction(record_->db, Transaction::Immediate);
    if (!began(transaction))
        return false;
    if (alreadyReached(record_->db, 4))
        return true;
    const bool applied = isDeveloperModeEnabled() ? trustPublicKeys() : revokePublicKeys();
    if (!applied || !setVersion(4))
        return false;
    return committed(transaction);
}

}  // namespace PackageSignatures
