// Certificate and package records: which certificates signed which installed
// packages. Recording a package replaces its rows in one transaction and
// marks the key ids its signers rotated away from as superseded.
#include <string>
#include <unordered_map>
#include <utility>
#include <vector>

#include "cms_selection.hpp"
#include "database_record.hpp"

namespace PackageSignatures {

namespace {

constexpr std::string_view selectGroupSql = "SELECT id FROM groups WHERE name = ?";
constexpr std::string_view insertGroupSql = "INSERT INTO groups (name) VALUES (?)";
constexpr std::string_view selectSubgroupSql = "SELECT id FROM subgroups WHERE name = ?";
constexpr std::string_view insertSubgroupSql = "INSERT INTO subgroups (name) VALUES (?)";
constexpr std::string_view selectCertificateSql =
    "SELECT id FROM certificates WHERE certificate = ?";
constexpr std::string_view insertCertificateSql =
    "INSERT INTO certificates (certificate, key, subject, group_id, subgroup_id)VALUES (?, ?, ?, "
    "?, ?)";
constexpr std::string_view insertPackageRowSql =
    "INSERT INTO packages (id, certificateid) VALUES (?, ?)";
constexpr std::string_view removePackageSql = "DELETE FROM packages WHERE id = ?";
constexpr std::string_view packageExistsSql = "SELECT 1 FROM packages WHERE id = ?";
constexpr std::string_view hasCertificatesWithGroupSql =
    "SELECT 1 FROM certificates WHERE group_id = (SELECT id FROM groups WHERE name = ?)";
constexpr std::string_view certificateReferencesSql =
    "SELECT COUNT(1) FROM packages WHERE certificateid = (SELECT id FROM certificates WHERE "
    "certificate = ?)";
constexpr std::string_view packageHasCertificateWithGroupSql =
    "SELECT 1 FROM certificates WHERE id IN (SELECT certificateid FROM packages WHERE id = ?) "
    "AND group_id = (SELECT id FROM groups WHERE name = ?)";
constexpr std::string_view packageCertificateWithGroupSql =
    "SELECT certificate FROM certificates WHERE id IN (SELECT certificateid FROM packages WHERE "
    "id = ?) AND group_id = (SELECT id FROM groups WHERE name = ?)";
constexpr std::string_view packageCertificatesSql =
    "SELECT id, certificate FROM certificates WHERE id IN (SELECT certificateid FROM packages "
    "WHERE id = ?)";
constexpr char activeCertificatesSql[] =
    "SELECT certificate FROM certificates WHERE id IN (     SELECT certificateid FROM packages "
    ") AND key NOT IN (     SELECT keyid FROM revoked_keyids     WHERE type = ? ) ";

// Binds the DER in place: der must outlive the step, which every caller
// guarantees by keeping it in the same scope. An empty DER binds NULL, which
// matches no row and is refused by the schema.
int bindDer(sqlite3_stmt* statement, int index, std::vector<unsigned char> const& der)
{
    return sqlite3_bind_blob(statement, index, der.empty() ? nullptr : der.data(),
                             static_cast<int>(der.size()), SQLITE_STATIC);
}

using DecodedCertificates = std::unordered_map<std::string, Certificate>;

// The certificate of a DER column, decoded once per distinct DER.
Certificate columnCertificate(sqlite3_stmt* statement, int column, DecodedCertificates& decoded)
{
    const auto* der = static_cast<const unsigned char*>(sqlite3_column_blob(statement, column));
    const auto length = static_cast<std::size_t>(sqlite3_column_bytes(statement, column));
    std::string key(der ? reinterpret_cast<const char*>(der) : "", der ? length : 0);
    auto found = decoded.find(key);
    if (found != decoded.end())
        return found->second;
    Certificate certificate = Certificate::fromDer(der, length);
    if (certificate.get())
        decoded.emplace(std::move(key), certificate);
    return certificate;
}

// Every row's certificate, in SQLite's order.
std::vector<Certificate> stepCertificates(sqlite3_stmt* statement, DecodedCertificates& decoded)
{
    std::vector<Certificate> found;
    while (step(statement) == SQLITE_ROW)
        found.push_back(columnCertificate(statement, 0, decoded));
    return found;
}

// The row id of name in a table of names (groups, subgroups), made when it is
// missing; 0 when neither works. insert runs only when select has read that
// there is no row.
sqlite3_int64 findOrInsertName(sqlite3_stmt* select, sqlite3_stmt* insert, std::string const& name)
{
    {
        StatementUse lookup(select);
        const Lookup found = lookUp(select, bindText(select, 1, name));
        if (found == Lookup::Found)
            return sqlite3_column_int(select, 0);
        if (found == Lookup::Failed)
            return 0;
    }
    StatementUse addition(insert);
    if (bindText(insert, 1, name) == SQLITE_OK && stepDone(insert))
        return sqlite3_last_insert_rowid(sqlite3_db_handle(insert));
    return 0;
}

}  // namespace

sqlite3_int64 Database::insertGroup(Group group)
{
    return findOrInsertName(cachedStatement(StatementKeys::SelectGroup, selectGroupSql),
                            cachedStatement(StatementKeys::InsertGroup, insertGroupSql),
                            groupToString(group));
}

sqlite3_int64 Database::insertSubgroup(Subgroup subgroup)
{
    return findOrInsertName(cachedStatement(StatementKeys::SelectSubgroup, selectSubgroupSql),
                            cachedStatement(StatementKeys::InsertSubgroup, insertSubgroupSql),
                            subgroupToString(subgroup));
}

sqlite3_int64 Database::insertCertificate(Certificate const& certificate)
{
    const std::vector<unsigned char> der = certificate.toDer();
    {
        StatementUse select(cachedStatement(StatementKeys::SelectCertificate, selectCertificateSql));
        const Lookup found = lookUp(select.get(), bindDer(select.get(), 1, der));
        if (found == Lookup::Found)
            return sqlite3_column_int64(select.get(), 0);
        if (found == Lookup::Failed)
            return 0;
    }
    const std::string keyId = certificate.keyId();
    const std::string subject = certificate.subject();
    // A failed group or subgroup lookup (0) is stored as it is: the row still
    // records who signed.
    const sqlite3_int64 groupId = insertGroup(certificate.group());
    const sqlite3_int64 subgroupId = insertSubgroup(certificate.subgroup());

    StatementUse insert(cachedStatement(StatementKeys::InsertCertificate, insertCertificateSql));
    sqlite3_stmt* s = insert.get();
    if (bindDer(s, 1, der) == SQLITE_OK && bindText(s, 2, keyId) == SQLITE_OK &&
        bindText(s, 3, subject) == SQLITE_OK && sqlite3_bind_int64(s, 4, groupId) == SQLITE_OK &&
        sqlite3_bind_int64(s, 5, subgroupId) == SQLITE_OK && stepDone(s))
        return sqlite3_last_insert_rowid(record_->db);
    return 0;
}

bool Database::insertPackageWithCertificate(std::string_view package,
                                            Certificate const& certificate)
{
    const sqlite3_int64 certificateId = insertCertificate(certificate);
    if (certificateId == 0)
        return false;
    StatementUse insert(
        cachedStatement(StatementKeys::InsertPackageWithCertificate, insertPackageRowSql));
    sqlite3_stmt* s = insert.get();
    return bindText(s, 1, package) == SQLITE_OK &&
           sqlite3_bind_int64(s, 2, certificateId) == SQLITE_OK && stepDone(s);
}

bool Database::insertPackage(std::string_view package, std::vector<Cms> const& cmses)
{
    if (cmses.empty())
        return false;
    // Leaving early rolls everything back: the package keeps its old rows.
    Transaction transaction(record_->db, Transaction::Immediate);
    if (!began(transaction))
        return false;
    if (!removePackage(package))
        return false;
    for (Cms const& cms : cmses) {
        // What the bytes held now say, whatever the caller's caches keep.
        if (!insertPackageWithCertificate(package, *CmsAccess::certificateNow(cms)))
            return false;
        // The signer's earlier keys may no longer make new signatures. An
        // insert never lowers a blacklisting.
        for (std::string const& keyid : CmsAccess::rotationChainNow(cms)->previousKeyids())
            if (!insertRevokedKeyid(keyid, Superseded))
                return false;
    }
    return committed(transaction);
}

bool Database::removePackage(std::string_view package)
{
    StatementUse remove(cachedStatement(StatementKeys::RemovePackage, removePackageSql));
    return bindText(remove.get(), 1, package) == SQLITE_OK && stepDone(remove.get());
}

bool Database::readPackageExists(std::string_view package, bool& recorded)
{
    StatementUse select(cachedStatement(StatementKeys::PackageExists, packageExistsSql));
    const Lookup found = lookUp(select.get(), bindText(select.get(), 1, package));
    if (found == Lookup::Failed)
        return false;
    recorded = found == Lookup::Found;
    return true;
}

bool Database::packageExists(std::string_view package)
{
    bool recorded = false;
    return readPackageExists(package, recorded) && recorded;
}

std::vector<std::string> Database::packages()
{
    StatementPtr select = prepareOnce(record_->db, "SELECT DISTINCT id FROM packages");
    std::vector<std::string> names;
    names.reserve(1024);
    while (step(select.get()) == SQLITE_ROW)
        names.push_back(columnText(select.get(), 0));
    return names;
}

bool Database::hasCertificatesWithGroup(Group group)
{
    const std::string name = groupToString(group);
    StatementUse select(
        cachedStatement(StatementKeys::HasCertificatesWithGroup, hasCertificatesWithGroupSql));
    return bindText(select.get(), 1, name) == SQLITE_OK &&
           step(select.get()) == SQLITE_ROW;
}

int Database::certificateReferences(Certificate const& certificate)
{
    const std::vector<unsigned char> der = certificate.toDer();
    StatementUse count(
        cachedStatement(StatementKeys::CertificateReferences, certificateReferencesSql));
    if (bindDer(count.get(), 1, der) != SQLITE_OK || step(count.get()) != SQLITE_ROW)
        return 0;
    return sqlite3_column_int(count.get(), 0);
}

bool Database::packageHasCertificateWithGroup(std::string_view package, Group group)
{
    const std::string name = groupToString(group);
    StatementUse select(cachedStatement(StatementKeys::PackageHasCertificateWithGroup,
                                        packageHasCertificateWithGroupSql));
    return bindText(select.get(), 1, package) == SQLITE_OK &&
           bindText(select.get(), 2, name) == SQLITE_OK &&
           step(select.get()) == SQLITE_ROW;
}

std::optional<Certificate> Database::packageCertificateWithGroup(std::string_view package,
                                                                 Group group)
{
    const std::string name = groupToString(group);
    StatementUse select(cachedStatement(StatementKeys::PackageCertificateWithGroup,
                                        packageCertificateWithGroupSql));
    if (bindText(select.get(), 1, package) != SQLITE_OK ||
        bindText(select.get(), 2, name) != SQLITE_OK || step(select.get()) != SQLITE_ROW)
        return std::nullopt;
    return columnCertificate(select.get(), 0, record_->decodedCertificates);
}

std::vector<Certificate> Database::activeCertificates()
{
    StatementPtr select = prepareOnce(record_->db, activeCertificatesSql);
    if (sqlite3_bind_int(select.get(), 1, Blacklisted) != SQLITE_OK)
        return {};
    return stepCertificates(select.get(), record_->decodedCertificates);
}

std::vector<Certificate> Database::certificates()
{
    StatementPtr select = prepareOnce(record_->db, "SELECT certificate FROM certificates");
    return stepCertificates(select.get(), record_->decodedCertificates);
}

std::vector<Certificate> Database::packageCertificates(std::string_view package)
{
    StatementUse select(cachedStatement(StatementKeys::PackageCertificates, packageCertificatesSql));
    std::vector<Certificate> found;
    if (bindText(select.get(), 1, package) != SQLITE_OK)
        return found;
    // Row ids are decoded once per object and never forgotten: a row deleted
    // and its id reused by SQLite would still be served from the cache.
    auto& cache = record_->certificateCache;
    while (step(select.get()) == SQLITE_ROW) {
        const int id = sqlite3_column_int(select.get(), 0);
        auto cached = cache.find(id);
        if (cached == cache.end())
            cached =
                cache.emplace(id, columnCertificate(select.get(), 1, record_->decodedCertificates))
                    .first;
        found.push_back(cached->second);
    }
    return found;
}

}  // namespace PackageSignatures
