// PackageSignatures::Database: the device's SQLite trust database (schema
// version 4): installed packages, the certificates that signed them, and
// revoked key ids, kept in step with the developer-mode switch.
//
// A Database owns its connection, its prepared statements and its certificate
// cache for its lifetime. Nothing here throws for bad data or failed I/O:
// failures are returned as false/empty values and reported on std::cerr.
// One object is used by one thread at a time; processes sharing the file rely
// on SQLite's locking. Every std::string_view argument must be NUL-terminated.
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
// Results of BEGIN, COMMIT and ROLLBACK are deliberately ignored, so a
// Transaction opened inside another one simply joins it.
class Transaction {
public:
    explicit Transaction(sqlite3* db) : db_(db), committed_(false)
    {
        sqlite3_exec(db_, "BEGIN TRANSACTION", nullptr, nullptr, nullptr);
    }
    ~Transaction()
    {
        if (!committed_)
            sqlite3_exec(db_, "ROLLBACK", nullptr, nullptr, nullptr);
    }
    Transaction(Transaction const&) = delete;
    Transaction& operator=(Transaction const&) = delete;

    // Whether COMMIT succeeded. A failed COMMIT leaves the transaction open;
    // it is then rolled back on destruction, like one never committed.
    bool commit()
    {
        committed_ = sqlite3_exec(db_, "COMMIT", nullptr, nullptr, nullptr) == SQLITE_OK;
        return committed_;
    }

private:
    sqlite3* db_;
    bool committed_;
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
    // enumerators (false), except readDeveloperModeConfig, which reports it
    // and reads the runtime file.
    enum RevocationType : int { Superseded = 0, Blacklisted = 1 };
    enum RevokedKeyidsOperation : int { Insert = 0, Remove = 1 };
    enum DeveloperModeConfigType : int { Initial = 0, Runtime = 1 };
    // getKeyidRevocationStatus of a key id that is not revoked.
    static constexpr int NotRevoked = -1;

    // Opens or creates the database at dbPath and brings it to version 4,
    // with the configuration file of the default Configuration.
    explicit Database(std::string_view dbPath);
    Database(std::string_view dbPath, std::string_view confPath);
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
    // NotRevoked, Superseded or Blacklisted.
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
    bool developerMatch(std::string_view package, Cms const& cms);
    PackageCheckResult checkPackage(std::string_view package, std::vector<Cms> const& cmses,
                                    bool unused);

private:
    struct Record;
    std::unique_ptr<Record> record_;

    // The prepared statement cached under key, prepared from sql on first
    // use (or again after a failed preparation); null when it does not
    // prepare. The caller resets it when done with it.
    sqlite3_stmt* cachedStatement(int key, std::string_view sql);
    // The one migration step that starts from version.
    bool migrateFrom(int version);
};

}  // namespace PackageSignatures

#endif
