// Package admission: whether a developer signature may install a package or
// update an installed one. The signing key must not be revoked, no key it was
// rotated from may be blacklisted, and an update must come from the installed
// package's developer, directly or through a rotation its chain proves.
#include <algorithm>
#include <string>
#include <vector>

#include "database_record.hpp"

namespace PackageSignatures {

namespace {

// A decision reads several tables; it reads them all from one state of the
// file, so that another process recording a package or revoking a key at
// the same moment cannot make it see half of each. It also takes the file's
// read lock once instead of once per statement, which is a good part of what
// a decision costs. Inside a transaction of the caller's there is nothing to
// do: that one already reads one state.
class ReadSnapshot {
public:
    explicit ReadSnapshot(sqlite3* db) : db_(sqlite3_get_autocommit(db) ? db : nullptr)
    {
        if (db_)
            sqlite3_exec(db_, "BEGIN", nullptr, nullptr, nullptr);
    }
    ~ReadSnapshot()
    {
        // Ending a transaction that wrote nothing only drops the read lock;
        // should it fail all the same, the connection is not left inside it.
        if (db_ && sqlite3_exec(db_, "COMMIT", nullptr, nullptr, nullptr) != SQLITE_OK)
            sqlite3_exec(db_, "ROLLBACK", nullptr, nullptr, nullptr);
    }
    ReadSnapshot(ReadSnapshot const&) = delete;
    ReadSnapshot& operator=(ReadSnapshot const&) = delete;

private:
    sqlite3* db_;
};

}  // namespace

bool Database::developerMatch(std::string_view package, Cms const& cms)
{
    // A package not yet installed may come from any developer.
    if (!packageExists(package))
        return true;
    // An installed package without a developer certificate cannot be taken
    // over by a developer signature.
    const std::optional<Certificate> installed =
        packageCertificateWithGroup(package, Group::Developer);
    if (!installed)
        return false;
    const std::string installedKeyid = installed->keyId();
    if (installedKeyid == cms.certificate()->keyId())
        return true;
    const std::vector<std::string> previous = cms.rotationChain()->previousKeyids();
    return std::find(previous.begin(), previous.end(), installedKeyid) != previous.end();
}

PackageCheckResult Database::checkPackage(std::string_view package, std::vector<Cms> const& cmses,
                                          bool)
{
    const std::optional<Cms> developer = developerCmsFromVector(cmses);
    if (!developer)
        return NotDeveloperSigned;
    const ReadSnapshot snapshot(record_->db);

    switch (getKeyidRevocationStatus(developer->certificate()->keyId())) {
    case Superseded:
        return KeySuperseded;
    case Blacklisted:
        return KeyBlacklisted;
    }
    // Earlier keys of the chain are superseded by the very rotation the chain
    // proves; only a blacklisting of one of them taints the signer.
    for (std::string const& keyid : developer->rotationChain()->previousKeyids())
        if (getKeyidRevocationStatus(keyid) == Blacklisted)
            return KeyBlacklisted;

    return developerMatch(package, *developer) ? Accepted : DeveloperMismatch;
}

}  // namespace PackageSignatures
