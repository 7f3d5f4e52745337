// Key revocation: the key ids that may no longer sign, superseded (rotated
// away from) or blacklisted, kept in revoked_keyids and fed from the
// revocation file, whose "revoke-on-bind" entries follow developer mode.
#include <cstring>
#include <iostream>
#include <optional>
#include <string>

#include <sealkeep/configuration.hpp>

#include "common/key_file.hpp"
#include "database_record.hpp"

namespace PackageSignatures {

namespace {

// A blacklisting is never lowered: the update is skipped when the stored
// type is already Blacklisted (the fourth parameter).
constexpr std::string_view insertRevokedKeyidSql =
    "INSERT INTO revoked_keyids (keyid, type) VALUES (?, ?) ON CONFLICT DO UPDATE SET type = ? "
    "WHERE type != ?";
constexpr std::string_view removeRevokedKeyidSql =
    "DELETE FROM revoked_keyids WHERE keyid = ? AND type = ?";
constexpr std::string_view revocationStatusSql = "SELECT type FROM revoked_keyids WHERE keyid = ?";

constexpr char revokeGroup[] = "revoke";
constexpr char revokeOnBindGroup[] = "revoke-on-bind";

std::optional<Database::RevocationType> revocationTypeFromText(const char* text)
{
    if (text && std::strcmp(text, "superseded") == 0)
        return Database::Superseded;
    if (text && std::strcmp(text, "blacklisted") == 0)
        return Database::Blacklisted;
    return std::nullopt;
}

bool isRevocationType(Database::RevocationType type)
{
    return type == Database::Superseded || type == Database::Blacklisted;
}

}  // namespace

bool Database::insertRevokedKeyid(std::string_view keyid, RevocationType type)
{
    if (!isRevocationType(type))
        return false;
    StatementUse statement(
        cachedStatement(StatementKeys::InsertRevokedKeyid, insertRevokedKeyidSql));
    sqlite3_stmt* s = statement.get();
    return bindText(s, 1, keyid) == SQLITE_OK &&
           sqlite3_bind_int(s, 2, type) == SQLITE_OK && sqlite3_bind_int(s, 3, type) == SQLITE_OK &&
           sqlite3_bind_int(s, 4, Blacklisted) == SQLITE_OK && stepDone(s);
}

bool Database::removeRevokedKeyid(std::string_view keyid, RevocationType type)
{
    if (!isRevocationType(type))
        return false;
    StatementUse statement(
        cachedStatement(StatementKeys::RemoveRevokedKeyid, removeRevokedKeyidSql));
    sqlite3_stmt* s = statement.get();
    return bindText(s, 1, keyid) == SQLITE_OK && sqlite3_bind_int(s, 2, type) == SQLITE_OK &&
           stepDone(s);
}

int Database::getKeyidRevocationStatus(std::string_view keyid)
{
    // A status that cannot be read (the file stayed locked, an I/O error, a
    // damaged file, no memory, a connection that never opened) is not
    // evidence that the key is clean: it reads as the strongest revocation,
    // so that a blacklisted key is never let through. Only a statement that
    // does not prepare for want of the table or its type column (a plain
    // SQLITE_ERROR) reads as not revoked: such a file records no revocation.
    int prepared = SQLITE_OK;
    StatementUse statement(
        cachedStatement(StatementKeys::KeyidRevocationStatus, revocationStatusSql, prepared));
    sqlite3_stmt* s = statement.get();
    if (!s)
        return (prepared & 0xff) == SQLITE_ERROR ? NotRevoked : Blacklisted;
    switch (lookUp(s, bindText(s, 1, keyid))) {
    case Lookup::Absent:
        return NotRevoked;
    case Lookup::Failed:
        return Blacklisted;
    case Lookup::Found:
        break;
    }
    // Any stored type other than Superseded counts as the stronger one,
    // whatever it is stored as: sqlite3_column_int would read 4294967296,
    // 0.5 or 'x' as 0.
    const bool superseded = sqlite3_column_type(s, 0) == SQLITE_INTEGER &&
                            sqlite3_column_int64(s, 0) == Superseded;
    return superseded ? Superseded : Blacklisted;
}

std::vector<std::string> Database::revokedKeyids()
{
    StatementPtr statement = prepareOnce(record_->db, "SELECT keyid FROM revoked_keyids");
    std::vector<std::string> keyids;
    while (step(statement.get()) == SQLITE_ROW)
        keyids.push_back(columnText(statement.get(), 0));
    return keyids;
}

bool Database::processKeyidsFromFile(std::string_view path, std::string_view group,
                                     RevokedKeyidsOperation op)
{
    const std::string file(path);
    const std::string groupName(group);
    sealkeep::GKeyFilePtr keyFile(g_key_file_new());
    if (!sealkeep::loadKeyFile(keyFile.get(), file.c_str()))
        return false;
    sealkeep::GStrvPtr keyids(
        g_key_file_get_keys(keyFile.get(), groupName.c_str(), nullptr, nullptr));
    if (!keyids)
        return true;
    // Entries applied before a failure stay applied unless the caller's
    // transaction rolls them back.
    for (char** keyid = keyids.get(); *keyid; ++keyid) {
        sealkeep::GCharPtr value(
            g_key_file_get_string(keyFile.get(), groupName.c_str(), *keyid, nullptr));
        const std::optional<RevocationType> type = revocationTypeFromText(value.get());
        if (!type) {
            std::cerr << "Unknown revocation type: " << (value ? value.get() : "") << std::endl;
            return false;
        }
        bool applied = false;
        switch (op) {
        case Insert:
            applied = insertRevokedKeyid(*keyid, *type);
            break;
        case Remove:
            applied = removeRevokedKeyid(*keyid, *type);
            break;
        }
        if (!applied)
            return false;
    }
    return true;
}

bool Database::processPublicKeys(RevokedKeyidsOperation op)
{
    const Configuration configuration(record_->confPath);
    return processKeyidsFromFile(configuration.revocationConfPath(), revokeOnBindGroup, op);
}

bool Database::trustPublicKeys()
{
    return processPublicKeys(Remove);
}

bool Database::revokePublicKeys()
{
    return processPublicKeys(Insert);
}

bool Database::updateRevokedKeyids()
{
    const Configuration configuration(record_->confPath);
    // One transaction, so that a process killed half-way leaves the previous
    // list rather than part of the new one. It is committed whatever the
    // steps return: an entry applied before a failure stays applied, as it
    // would without the transaction. It takes the write lock first, and a
    // commit that fails is a failed update: nothing of it was written.
    Transaction transaction(record_->db, Transaction::Immediate);
    if (!began(transaction))
        return false;
    const bool first = isDeveloperModeEnabled() ? trustPublicKeys() : revokePublicKeys();
    const bool second =
        processKeyidsFromFile(configuration.revocationConfPath(), revokeGroup, Insert);
    return committed(transaction) && second && first;
}

}  // namespace PackageSignatures
