// The test's own SQLite connections, older database layouts, and hooks into
// the connections the library opens.
#include "support/sqlite_file.hpp"

#include <algorithm>
#include <gtest/gtest.h>
#include <memory>
#include <stdexcept>

namespace sealkeep::test {

namespace {

using Statement = std::unique_ptr<sqlite3_stmt, int (*)(sqlite3_stmt*)>;

std::string columnAsText(sqlite3_stmt* statement, int column)
{
    const unsigned char* text = sqlite3_column_text(statement, column);
    return text ? reinterpret_cast<const char*>(text) : "NULL";
}

}  // namespace

SqliteFile::SqliteFile(std::string const& path)
{
    if (sqlite3_open(path.c_str(), &db_) != SQLITE_OK) {
        std::string message = sqlite3_errmsg(db_);
        sqlite3_close(db_);
        throw std::runtime_error("cannot open " + path + ": " + message);
    }
}

SqliteFile::~SqliteFile()
{
    sqlite3_close(db_);
}

void SqliteFile::exec(std::string const& sql)
{
    char* error = nullptr;
    if (sqlite3_exec(db_, sql.c_str(), nullptr, nullptr, &error) != SQLITE_OK) {
        std::string message = error ? error : "unknown error";
        sqlite3_free(error);
        throw std::runtime_error(sql + ": " + message);
    }
}

std::vector<std::string> SqliteFile::queryRows(std::string const& sql)
{
    sqlite3_stmt* raw = nullptr;
    if (sqlite3_prepare_v2(db_, sql.c_str(), -1, &raw, nullptr) != SQLITE_OK)
        throw std::runtime_error(sql + ": " + sqlite3_errmsg(db_));
    Statement statement(raw, sqlite3_finalize);
    std::vector<std::string> rows;
    int result;
    while ((result = sqlite3_step(raw)) == SQLITE_ROW) {
        std::string row;
        for (int column = 0; column < sqlite3_column_count(raw); ++column)
            row += (column ? "|" : "") + columnAsText(raw, column);
        rows.push_back(row);
    }
    if (result != SQLITE_DONE)
        throw std::runtime_error(sql + ": " + sqlite3_errmsg(db_));
    return rows;
}

std::vector<std::string> SqliteFile::queryTexts(std::string const& sql)
{
    std::vector<std::string> texts;
    for (std::string const& row : queryRows(sql))
        texts.push_back(row.substr(0, row.find('|')));
    return texts;
}

long long SqliteFile::queryInt(std::string const& sql)
{
    std::vector<std::string> texts = queryTexts(sql);
    if (texts.size() != 1)
        throw std::runtime_error(sql + ": expected one row");
    return std::stoll(texts.front());
}

std::string SqliteFile::integrityCheck()
{
    std::vector<std::string> lines = queryTexts("PRAGMA integrity_check");
    std::string joined;
    for (std::string const& line : lines)
        joined += (joined.empty() ? "" : "\n") + line;
    return joined;
}

std::vector<std::string> SqliteFile::tables()
{
    return queryTexts("SELECT name FROM sqlite_master WHERE type='table' ORDER BY name");
}

std::vector<std::string> SqliteFile::columns(std::string const& table)
{
    return queryTexts("SELECT name FROM pragma_table_info('" + table + "') ORDER BY cid");
}

void createOldDatabase(std::string const& path, int version)
{
    if (version < 0 || version > 3)
        throw std::invalid_argument("no such old version");
    SqliteFile file(path);
    file.exec("BEGIN");
    file.exec("CREATE TABLE groups(id INTEGER PRIMARY KEY, name TEXT NOT NULL UNIQUE)");
    file.exec("INSERT INTO groups (id, name) VALUES (1, 'developer'), (2, 'seclab')");
    if (version == 0) {
        file.exec(
            "CREATE TABLE certificates(id INTEGER PRIMARY KEY, key BLOB NOT NULL, certificate "
            "BLOB NOT NULL, subject TEXT NOT NULL, group_id INTEGER, FOREIGN KEY(group_id) "
            "REFERENCES groups(id), UNIQUE (id, key, group_id))");
        file.exec(
            "INSERT INTO certificates (id, key, certificate, subject, group_id) VALUES "
            "(1, 'aa01', X'01020304', 'CN=first', 1), (2, 'bb02', X'0A0B', 'CN=second', 2)");
    } else {
        file.exec("CREATE TABLE subgroups(id INTEGER PRIMARY KEY, name TEXT NOT NULL UNIQUE)");
        file.exec(
            "INSERT INTO subgroups (name) VALUES ('regular'), ('antivirus'), ('extended'), "
            "('mdm')");
        file.exec(
            "CREATE TABLE certificates(id INTEGER PRIMARY KEY, key BLOB NOT NULL, certificate "
            "BLOB NOT NULL, subject TEXT NOT NULL, group_id INTEGER, subgroup_id INTEGER, "
            "FOREIGN KEY(group_id) REFERENCES groups(id), FOREIGN KEY(subgroup_id) REFERENCES "
            "subgroups(id), UNIQUE (id, key, group_id, subgroup_id))");
        file.exec(
            "INSERT INTO certificates (id, key, certificate, subject, group_id, subgroup_id) "
            "VALUES (1, 'aa01', X'01020304', 'CN=first', 1, 1), "
            "(2, 'bb02', X'0A0B', 'CN=second', 2, 3)");
    }
    file.exec(
        "CREATE TABLE packages(id TEXT NOT NULL, certificateid INTEGER NOT NULL, FOREIGN "
        "KEY(certificateid) REFERENCES certificates(id), UNIQUE (id, certificateid))");
    file.exec(
        "INSERT INTO packages (id, certificateid) VALUES ('alpha', 1), ('beta', 2), "
        "('alpha', 2)");
    if (version == 2) {
        file.exec(
            "CREATE TABLE revoked_keyids(id INTEGER PRIMARY KEY, keyid TEXT NOT NULL UNIQUE)");
        file.exec("INSERT INTO revoked_keyids (id, keyid) VALUES (1, 'old1'), (2, 'old2')");
    } else if (version == 3) {
        file.exec(
            "CREATE TABLE revoked_keyids(id INTEGER PRIMARY KEY, keyid TEXT NOT NULL UNIQUE, "
            "type INTEGER NOT NULL)");
        file.exec(
            "INSERT INTO revoked_keyids (id, keyid, type) VALUES (1, 'old1', 0), (2, 'old2', 1)");
    }
    file.exec("PRAGMA user_version = " + std::to_string(version));
    file.exec("COMMIT");
}

void expectOldRowsKept(SqliteFile& file)
{
    EXPECT_EQ((Rows{"1|developer", "2|seclab"}), file.queryRows("SELECT id, name FROM groups"));
    EXPECT_EQ((Rows{"1|aa01|01020304|CN=first|1", "2|bb02|0A0B|CN=second|2"}),
              file.queryRows("SELECT id, key, hex(certificate), subject, group_id FROM "
                             "certificates ORDER BY id"));
    EXPECT_EQ((Rows{"alpha|1", "alpha|2", "beta|2"}),
              file.queryRows("SELECT id, certificateid FROM packages ORDER BY id, "
                             "certificateid"));
}

bool lockableAtOnce(std::string const& path)
{
    SqliteFile file(path);
    try {
        file.exec("BEGIN EXCLUSIVE");
    } catch (std::runtime_error const&) {
        return false;
    }
    file.exec("COMMIT");
    return true;
}

namespace {

std::function<void(sqlite3*)> activeHook;

int runActiveHook(sqlite3* db, char**, const sqlite3_api_routines*)
{
    if (activeHook)
        activeHook(db);
    return SQLITE_OK;
}

// SQLite takes extension entry points as void(*)(void), which any function
// pointer may be cast to and back.
void (*hookEntryPoint())(void)
{
    return reinterpret_cast<void (*)(void)>(&runActiveHook);
}

int refuse(void* data, int action, const char* first, const char* second, const char*, const char*)
{
    auto const& refusals = *static_cast<std::vector<Refusal> const*>(data);
    const char* name = action == SQLITE_ALTER_TABLE ? second : first;
    if (!name)
        return SQLITE_OK;
    std::string object = name;
    if (action == SQLITE_PRAGMA && second)
        object += std::string("=") + second;
    bool refused = std::any_of(refusals.begin(), refusals.end(), [&](Refusal const& refusal) {
        return refusal.action == action && refusal.object == object;
    });
    return refused ? SQLITE_DENY : SQLITE_OK;
}

}  // namespace

ConnectionHook::ConnectionHook(std::function<void(sqlite3*)> onOpen)
{
    if (activeHook)
        throw std::logic_error("one connection hook at a time");
    activeHook = std::move(onOpen);
    sqlite3_auto_extension(hookEntryPoint());
}

ConnectionHook::~ConnectionHook()
{
    sqlite3_cancel_auto_extension(hookEntryPoint());
    activeHook = nullptr;
}

RefusingConnections::RefusingConnections(std::vector<Refusal> refusals)
    : refusals_(std::move(refusals)),
      hook_([this](sqlite3* db) { sqlite3_set_authorizer(db, refuse, &refusals_); })
{}

}  // namespace sealkeep::test
