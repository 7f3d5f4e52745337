// The test's own view of an SQLite file, beside the library's: a connection
// to inspect or prepare a database (older schemas included), and a hook that
// reaches the connections the library opens, to make them fail or stop at a
// chosen point.
#ifndef SEALKEEP_TESTS_SUPPORT_SQLITE_FILE_HPP
#define SEALKEEP_TESTS_SUPPORT_SQLITE_FILE_HPP

#include <functional>
#include <string>
#include <vector>

#include <sqlite3.h>

namespace sealkeep::test {

using Rows = std::vector<std::string>;

// The tables of the current schema, sorted.
inline const Rows currentTables{"certificates", "groups", "packages", "revoked_keyids",
                                "subgroups"};

// A connection of the test's own; every failure throws std::runtime_error
// with SQLite's message, so a broken fixture cannot pass for a result.
class SqliteFile {
public:
    explicit SqliteFile(std::string const& path);
    ~SqliteFile();
    SqliteFile(SqliteFile const&) = delete;
    SqliteFile& operator=(SqliteFile const&) = delete;

    void exec(std::string const& sql);
    // Column 0 of the only row of a query.
    long long queryInt(std::string const& sql);
    // Column 0 of every row, as text ("NULL" for a null value).
    std::vector<std::string> queryTexts(std::string const& sql);
    // Every column of every row, as text joined by '|'.
    std::vector<std::string> queryRows(std::string const& sql);

    int userVersion() { return static_cast<int>(queryInt("PRAGMA user_version")); }
    std::string integrityCheck();
    // The names of the tables, sorted.
    std::vector<std::string> tables();
    std::vector<std::string> columns(std::string const& table);
    sqlite3* handle() const { return db_; }

private:
    sqlite3* db_ = nullptr;
};

// Writes a database in the layout of an older schema version (0 to 3), with
// rows in every table:
//   groups: 1 developer, 2 seclab
//   certificates: 1 key "aa01" subject "CN=first" group 1, 2 key "bb02"
//     subject "CN=second" group 2 (from version 1 with subgroup 1 and 3)
//   packages: ("alpha", 1), ("beta", 2), ("alpha", 2)
//   revoked_keyids (from version 2): 1 "old1", 2 "old2" (from version 3 with
//     types 0 and 1)
void createOldDatabase(std::string const& path, int version);
// Expects, as GoogleTest failures, that the groups, the certificates (but
// their subgroups) and the packages createOldDatabase wrote are all there.
void expectOldRowsKept(SqliteFile& file);

// Whether another connection can take the write lock on the file at once,
// without waiting: true when no connection holds a lock or a transaction on
// it, nor a statement left unreset.
bool lockableAtOnce(std::string const& path);

// While it lives, runs onOpen on every SQLite connection that this process
// opens, the library's included, so that a test can install an authorizer or
// a progress handler on a connection it cannot otherwise reach. One hook at a
// time.
class ConnectionHook {
public:
    explicit ConnectionHook(std::function<void(sqlite3*)> onOpen);
    ~ConnectionHook();
    ConnectionHook(ConnectionHook const&) = delete;
    ConnectionHook& operator=(ConnectionHook const&) = delete;
};

// An authorizer rule: refuse one action on one object: the table for
// SQLITE_CREATE_TABLE, SQLITE_DROP_TABLE, SQLITE_INSERT, SQLITE_ALTER_TABLE and
// SQLITE_READ (a statement that reads the table then does not prepare);
// for SQLITE_PRAGMA the pragma name when it reads its value ("user_version")
// or name=value when it sets one ("user_version=4").
struct Refusal {
    int action;
    std::string object;
};

// A ConnectionHook that installs an authorizer refusing these actions. The
// connections opened under it must be closed before it goes away.
class RefusingConnections {
public:
    explicit RefusingConnections(std::vector<Refusal> refusals);

private:
    std::vector<Refusal> refusals_;
    ConnectionHook hook_;
};

}  // namespace sealkeep::test

#endif
