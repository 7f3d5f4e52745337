// PackageSignatures::Database: the device's SQLite trust database (schema
// version 4): installed packages, the certificates that signed them, and
// revoked key ids, kept in step with the developer-mode switch.
//
// A Database owns its connection, its prepared statements and its certificate
// cache for its lifetime. Nothing here throws for bad data or failed I/O:
// failures are returned as false/empty values and reported on std::cerr.
// One object is used by one thread at a time; processes sharing the file rely
// on SQLite's locking: an operation waits a few seconds at most for another
// process's lock, then fails and reports "Database is busy: " on std::cerr.
// Every std::string_view argument must be NUL-terminated.
#ifndef SEALKEEP_DATABASE_HPP
#define SEALKEEP_DATABASE_HPP

#include <memory>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include <sqlite3.h>

#include <sealkeep/certificate.hpp>
#include <sealkeep/cms.hpp>
#include <sealkeep/export.hpp>
#include <sealkeep/groups.hpp>

namespace PackageSignatures {

// A scoped SQLite transaction: rolled back on destruction unless committed.
//
// A write transaction should begin Immediate: it then takes the file's write
// lock at once (waiting, like any statement, for the connection's busy
// timeout), so that no other process can slip a change in between what it
// reads and what it writes, and it cannot fail half-way for want of the lock.
// Deferred takes locks only as its statements need them.
//
// A Transaction opened while another Transaction of the same thread holds a
// transaction open on the connection joins it: it begins nothing, its
// commit() leaves the outcome to the outer one, and its destruction without
// commit() rolls the outer one back. A transaction that no Transaction holds
// (one whose COMMIT and ROLLBACK both failed) is never joined: BEGIN then
// fails, and the new Transaction is not active.
class Transaction {
public:
    enum Mode { Deferred, Immediate };

    explicit Transaction(sqlite3* db, Mode mode = Deferred)
        : db_(db), joined_(heldOpen(db)), outer_(innermost_)
    {
        innermost_ = this;
        if (!joined_)
            result_ = sqlite3_exec(db_, mode == Immediate ? "BEGIN IMMEDIATE" : "BEGIN TRANSACTION",
                                   nullptr, nullptr, nullptr);
        open_ = result_ == SQLITE_OK;
    }
    ~Transaction()
    {
        if (open_)
            sqlite3_exec(db_, "ROLLBACK", nullptr, nullptr, nullptr);
        for (Transaction** link = &innermost_; *link; link = &(*link)->outer_)
            if (*link == this) {
                *link = outer_;
                break;
            }
    }
    Transaction(Transaction const&) = delete;
    Transaction& operator=(Transaction const&) = delete;

    // Whether the transaction began (or joined one). When it did not,
    // result() says why (SQLITE_BUSY when another process kept the lock),
    // and statements run now would each commit on their own.
    bool active() const { return open_; }

    // Whether COMMIT succeeded. A COMMIT that fails is rolled back at once,
    // so that the connection never stays inside a transaction whose writes
    // were reported lost; result() then says why.
    bool commit()
    {
        if (!open_)
            return false;
        open_ = false;
        if (joined_)
            return true;
        result_ = sqlite3_exec(db_, "COMMIT", nullptr, nullptr, nullptr);
        if (result_ == SQLITE_OK)
            return true;
        sqlite3_exec(db_, "ROLLBACK", nullptr, nullptr, nullptr);
        return false;
    }

    // The result of the BEGIN or COMMIT that failed; SQLITE_OK otherwise.
    int result() const { return result_; }

private:
    // Whether a Transaction of this thread holds a transaction open on db.
    // The connection's own state is not enough: it is also inside a
    // transaction when a ROLLBACK failed, and writes joined to that one would
    // be lost.
    static bool heldOpen(sqlite3* db)
    {
        if (db == nullptr || sqlite3_get_autocommit(db) != 0)
            return false;
        for (Transaction const* open = innermost_; open; open = open->outer_)
            if (open->db_ == db && open->open_)
                return true;
        return false;
    }

    // The Transactions alive on this thread, innermost first: one object is
    // used by one thread at a time, and a scoped guard stays on its thread.
    static inline thread_local Transaction* innermost_ = nullptr;

    sqlite3* db_;
    bool joined_;
    Transaction* outer_;
    bool open_ = false;
    int result_ = SQLITE_OK;
};

// What Database::checkPackage decided about a package's developer signature.
// An unscoped enum over int, so that the values read as the integers the
// installer compares against; 2 and 4 are never returned.
enum PackageCheckResult : int {
    Accepted = 0,            // the developer signature is admissible
    NotDeveloperSigned = 1,  // no developer signature: the check does not apply
    DeveloperMismatch = 3,   // installed, and not from its developer or a key rotated from it
    KeySuperseded = 5,       // the signer's own key id is superseded
    KeyBlacklisted = 6,      // the signer's key id, or one it was rotated from, is blacklisted
};

class SEALKEEP_EXPORT Database {
public:
    // The enums have a fixed underlying type, so that any int converts to
    // them with a defined value. The operations refuse a value outside the
    // enumerators (false, and nothing stored or removed), except
    // readDeveloperModeConfig, which reports it and reads the runtime file.
    enum RevocationType : int { Superseded = 0, Blacklisted = 1 };
    enum RevokedKeyidsOperation : int { Insert = 0, Remove = 1 };
    enum DeveloperModeConfigType : int { Initial = 0, Runtime = 1 };
    // getKeyidRevocationStatus of a key id that is not revoked.
    static constexpr int NotRevoked = -1;

    // Whether opening may create a missing file. ExistingOnly never creates
    // one, not even when the file disappears while it is being opened: for
    // callers that only ask questions.
    enum OpenMode : int { CreateIfMissing = 0, ExistingOnly = 1 };

    // Opens or creates the database at dbPath and brings it to version 4,
    // with the configuration file of the default Configuration. A path that
    // names something other than a regular file is not opened.
    explicit Database(std::string_view dbPath);
    Database(std::string_view dbPath, std::string_view confPath);
    Database(std::string_view dbPath, std::string_view confPath, OpenMode mode);
    ~Database();
    Database(Database const&) = delete;
    Database& operator=(Database const&) = delete;

    // databasePath() of the default configuration.
    static std::string defaultPath();

    // Schema and migrations.
    bool createTables();
    int queryVersion();
    bool setVersion(int version);
    void initializeDatabase();
    bool migrate(int from, int to);
    bool migrateV0toV1();
    bool migrateV1toV2();
    bool migrateV2toV3();
    bool migrateV3toV4();

    // Developer mode: the runtime file overrides the initial one.
    bool readDeveloperModeConfig(DeveloperModeConfigType type, bool& enabled) const;
    bool isDeveloperModeEnabled() const;

    // Key revocation. A blacklisting is never lowered by an insert.
    bool insertRevokedKeyid(std::string_view keyid, RevocationType type);
    bool removeRevokedKeyid(std::string_view keyid, RevocationType type);
    // NotRevoked, Superseded or Blacklisted. A status that cannot be read
    // is Blacklisted, except in a file whose schema lacks the table (or its
    // type column), which records no revocation: NotRevoked.
    int getKeyidRevocationStatus(std::string_view keyid);
    std::vector<std::string> revokedKeyids();
    bool processKeyidsFromFile(std::string_view path, std::string_view group,
                               RevokedKeyidsOperation op);
    bool processPublicKeys(RevokedKeyidsOperation op);
    bool trustPublicKeys();
    bool revokePublicKeys();
    bool updateRevokedKeyids();

    // Certificate and package records. A package has one packages row per
    // certificate that signed it; certificates are found by their DER, and
    // group and subgroup rows are made on first use. Row ids are 0 on
    // failure.
    sqlite3_int64 insertGroup(Group group);
    sqlite3_int64 insertSubgroup(Subgroup subgroup);
    sqlite3_int64 insertCertificate(Certificate const& certificate);
    bool insertPackageWithCertificate(std::string_view package, Certificate const& certificate);
    // Replaces what was recorded for package with the signers of cmses, and
    // marks every key id their rotation chains name as superseded; all or
    // nothing. False for an empty list, which changes nothing.
    bool insertPackage(std::string_view package, std::vector<Cms> const& cmses);
    // True also when the package was not recorded.
    bool removePackage(std::string_view package);
    bool packageExists(std::string_view package);
    std::vector<std::string> packages();
    bool hasCertificatesWithGroup(Group group);
    // The number of packages that certificate signed.
    int certificateReferences(Certificate const& certificate);
    bool packageHasCertificateWithGroup(std::string_view package, Group group);
    // The first certificate of that group recorded for package, if any.
    std::optional<Certificate> packageCertificateWithGroup(std::string_view package, Group group);
    // Certificates that sign at least one package and whose key id is not
    // blacklisted (superseded keys stay active).
    std::vector<Certificate> activeCertificates();
    std::vector<Certificate> certificates();
    // The certificates of package, decoded once per row id for the lifetime
    // of this object.
    std::vector<Certificate> packageCertificates(std::string_view package);

    // Package admission, consulted before a developer-signed package is
    // installed or updated. Only the first signature of cmses counts, and only
    // when a developer made it. The last argument is accepted and not used.
    // developerMatch is false when what is installed cannot be read.
    bool developerMatch(std::string_view package, Cms const& cms);
    PackageCheckResult checkPackage(std::string_view package, std::vector<Cms> const& cmses,
                                    bool unused);

private:
    struct Record;
    std::unique_ptr<Record> record_;

    // The prepared statement cached under key, prepared from sql on first
    // use (or again after a failed preparation); null when it does not
    // prepare, which is reported when the database was busy. The caller
    // resets it when done with it.
    sqlite3_stmt* cachedStatement(int key, std::string_view sql);
    // The same; result receives why a preparation made now failed
    // (SQLITE_OK when the statement is there).
    sqlite3_stmt* cachedStatement(int key, std::string_view sql, int& result);
    // The one migration step that starts from version.
    bool migrateFrom(int version);
    // Looks package up: true when the lookup gave an answer, which is then
    // in recorded; false when the read failed, which says nothing either way.
    bool readPackageExists(std::string_view package, bool& recorded);
};

}  // namespace PackageSignatures

#endif
