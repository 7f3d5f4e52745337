// Package admission: whether a developer signature may install a package or
// update an installed one. The signing key must not be revoked, no key it was
// rotated from may be blacklisted, and an update must come from the installed
// package's developer, directly or through a rotation its chain proves.
#include <algorithm>
#include <string>
#include <vector>

#include "cms_selection.hpp"
#include "database_record.hpp"

namespace PackageSignatures {

namespace {

// A decision reads several tables; it reads them all from one state of the
// file, so that another process recording a package or revoking a key at
// the same moment cannot make it see half of each. It also takes the file's
// read lock once instead of once per statement, which is a good part of what
// a decision costs.
//
// It always begins a transaction of its own: no transaction of the library
// is open on the connection when a decision is asked for, so one found open
// is one that could not be ended, whose old state would hide every key
// blacklisted since. BEGIN then fails, and the decision is refused.
class ReadSnapshot {
public:
    // begin and commit are the connection's cached "BEGIN" and "COMMIT":
    // parsing them anew would cost a decision as much as a lookup does.
    ReadSnapshot(sqlite3* db, sqlite3_stmt* begin, sqlite3_stmt* commit)
        : db_(db), commit_(commit), began_(run(begin) == SQLITE_DONE)
    {}
    ~ReadSnapshot()
    {
        // Ending a transaction that wrote nothing only drops the read lock;
        // should it fail all the same, the connection is not left inside it
        // (and if even that fails, the next BEGIN fails, and the next
        // decision is refused).
        if (began_ && run(commit_) != SQLITE_DONE)
            sqlite3_exec(db_, "ROLLBACK", nullptr, nullptr, nullptr);
    }
    ReadSnapshot(ReadSnapshot const&) = delete;
    ReadSnapshot& operator=(ReadSnapshot const&) = delete;

    bool began() const { return began_; }

private:
    static int run(sqlite3_stmt* statement)
    {
        const StatementUse use(statement);
        return sqlite3_step(statement);
    }

    sqlite3* db_;
    sqlite3_stmt* commit_;
    bool began_;
};

}  // namespace

bool Database::developerMatch(std::string_view package, Cms const& cms)
{
    // A package not yet installed may come from any developer. A lookup that
    // failed has not shown that the package is not installed: taking it for
    // a first installation would let any developer take the package over.
    bool recorded = false;
    if (!readPackageExists(package, recorded))
        return false;
    if (!recorded)
        return true;
    // An installed package without a developer certificate cannot be taken
    // over by a developer signature.
    const std::optional<Certificate> installed =
        packageCertificateWithGroup(package, Group::Developer);
    if (!installed)
        return false;
    const std::string installedKeyid = installed->keyId();
    if (installedKeyid == CmsAccess::certificateNow(cms)->keyId())
        return true;
    const std::vector<std::string> previous = CmsAccess::rotationChainNow(cms)->previousKeyids();
    return std::find(previous.begin(), previous.end(), installedKeyid) != previous.end();
}

PackageCheckResult Database::checkPackage(std::string_view package, std::vector<Cms> const& cmses,
                                          bool)
{
    // The caller's own element, not a copy, judged on the bytes it holds
    // now: what it decodes stays cached in it until its bytes are replaced,
    // since decoding costs more than everything the database is asked, but
    // the caches its public accessors answer from are neither read nor
    // filled.
    Cms const* developer = developerCmsIn(cmses);
    if (!developer)
        return NotDeveloperSigned;
    // Without a snapshot nothing is known about the signer's keys: refuse
    // rather than read each table from whatever state it is in.
    const ReadSnapshot snapshot(record_->db,
                                cachedStatement(StatementKeys::BeginRead, "BEGIN"),
                                cachedStatement(StatementKeys::CommitRead, "COMMIT"));
    if (!snapshot.began())
        return KeyBlacklisted;

    switch (getKeyidRevocationStatus(CmsAccess::certificateNow(*developer)->keyId())) {
    case Superseded:
        return KeySuperseded;
    case Blacklisted:
        return KeyBlacklisted;
    }
    // Earlier keys of the chain are superseded by the very rotation the chain
    // proves; only a blacklisting of one of them taints the signer.
    for (std::string const& keyid : CmsAccess::rotationChainNow(*developer)->previousKeyids())
        if (getKeyidRevocationStatus(keyid) == Blacklisted)
            return KeyBlacklisted;

    return developerMatch(package, *developer) ? Accepted : DeveloperMismatch;
}

}  // namespace PackageSignatures
