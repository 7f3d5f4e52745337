// Certificate and package records: the statements each operation runs, a
// package's rows replaced as a whole, certificates shared between packages,
// keys superseded by rotation, the active set, and the certificate cache.
#include <gtest/gtest.h>

#include <algorithm>
#include <memory>
#include <string>
#include <vector>

#include <sealkeep/database.hpp>

#include "support/database_fixture.hpp"
#include "support/package_signatures.hpp"
#include "support/rotating_keys.hpp"
#include "support/sqlite_file.hpp"
#include "support/statement_log.hpp"

namespace sealkeep::test {
namespace {

using PackageSignatures::Certificate;
using PackageSignatures::Cms;
using PackageSignatures::Database;
using PackageSignatures::Group;
using PackageSignatures::Subgroup;
using Keyids = std::vector<std::string>;

class PackageRecords : public RotatingKeysTest {
protected:
    void SetUp() override { database = open(); }

    std::unique_ptr<Database> open() const
    {
        return std::make_unique<Database>(files.databasePath(), files.confPath());
    }

    static Certificate certificateOf(Identity const& who)
    {
        return Certificate::readCertificateFromFile(who.certPath.c_str());
    }

    // The key ids recorded for package, sorted.
    Keyids recordedKeyids(std::string const& package) const
    {
        SqliteFile file(files.databasePath());
        return file.queryTexts(
            "SELECT c.key FROM packages p JOIN certificates c ON c.id = p.certificateid WHERE "
            "p.id = '" +
            package + "' ORDER BY c.key");
    }

    Rows revoked() const
    {
        return SqliteFile(files.databasePath())
            .queryRows("SELECT keyid, type FROM revoked_keyids ORDER BY keyid");
    }

    long long count(std::string const& table) const
    {
        return SqliteFile(files.databasePath()).queryInt("SELECT COUNT(1) FROM " + table);
    }

    static Keyids sorted(Keyids keyids)
    {
        std::sort(keyids.begin(), keyids.end());
        return keyids;
    }

    // Replaces, by other means, the DER of the certificate row with key id
    // keyid.
    void rewriteCertificate(std::string const& keyid, std::vector<unsigned char> const& der) const
    {
        SqliteFile file(files.databasePath());
        sqlite3_stmt* update = nullptr;
        ASSERT_EQ(SQLITE_OK, sqlite3_prepare_v2(file.handle(),
                                                "UPDATE certificates SET certificate = ? WHERE key = ?",
                                                -1, &update, nullptr));
        sqlite3_bind_blob(update, 1, der.data(), static_cast<int>(der.size()), SQLITE_STATIC);
        sqlite3_bind_text(update, 2, keyid.c_str(), -1, SQLITE_TRANSIENT);
        EXPECT_EQ(SQLITE_DONE, sqlite3_step(update));
        sqlite3_finalize(update);
    }

    std::string chainPath(std::string const& name) const { return files.file(name + ".chain"); }

    TrustFiles files;
    std::unique_ptr<Database> database;
};

TEST_F(PackageRecords, GroupAndSubgroupRowsAreMadeOnceEach)
{
    const sqlite3_int64 developer = database->insertGroup(Group::Developer);
    EXPECT_NE(0, developer);
    EXPECT_EQ(developer, database->insertGroup(Group::Developer));
    const sqlite3_int64 seclab = database->insertGroup(Group::Seclab);
    EXPECT_NE(developer, seclab);
    const sqlite3_int64 mdm = database->insertSubgroup(Subgroup::Mdm);
    EXPECT_EQ(mdm, database->insertSubgroup(Subgroup::Mdm));

    SqliteFile file(files.databasePath());
    EXPECT_EQ((Rows{std::to_string(developer) + "|developer", std::to_string(seclab) + "|seclab"}),
              file.queryRows("SELECT id, name FROM groups ORDER BY id"));
    EXPECT_EQ((Rows{std::to_string(mdm) + "|mdm"}), file.queryRows("SELECT id, name FROM subgroups"));
}

TEST_F(PackageRecords, EachOperationRunsItsStatementsInOrder)
{
    const Certificate developer = certificateOf(identity('a'));
    const Certificate seclab = certificateOf(pki->seclab());
    StatementLog log;
    database = open();
    log.take();

    const Rows selectCertificate{"SELECT id FROM certificates WHERE certificate = ?"};
    const Rows newCertificate{
        "SELECT id FROM certificates WHERE certificate = ?",
        "SELECT id FROM groups WHERE name = ?",
        "INSERT INTO groups (name) VALUES (?)",
        "SELECT id FROM subgroups WHERE name = ?",
        "INSERT INTO subgroups (name) VALUES (?)",
        "INSERT INTO certificates (certificate, key, subject, group_id, subgroup_id)VALUES (?, ?, "
        "?, ?, ?)",
    };
    EXPECT_NE(0, database->insertCertificate(developer));
    EXPECT_EQ(newCertificate, log.take());
    EXPECT_NE(0, database->insertCertificate(developer));
    EXPECT_EQ(selectCertificate, log.take());

    EXPECT_TRUE(database->insertPackageWithCertificate("p", developer));
    EXPECT_EQ((Rows{selectCertificate[0], "INSERT INTO packages (id, certificateid) VALUES (?, ?)"}),
              log.take());

    EXPECT_TRUE(database->removePackage("p"));
    EXPECT_EQ(Rows{"DELETE FROM packages WHERE id = ?"}, log.take());

    // The seclab group is new, the subgroup (regular) is not.
    EXPECT_TRUE(database->insertPackage("p", {signedCms(pki->seclab())}));
    EXPECT_EQ((Rows{"BEGIN IMMEDIATE", "DELETE FROM packages WHERE id = ?",
                    "SELECT id FROM certificates WHERE certificate = ?",
                    "SELECT id FROM groups WHERE name = ?", "INSERT INTO groups (name) VALUES (?)",
                    "SELECT id FROM subgroups WHERE name = ?", newCertificate[5],
                    "INSERT INTO packages (id, certificateid) VALUES (?, ?)", "COMMIT"}),
              log.take());

    EXPECT_TRUE(database->packageExists("p"));
    EXPECT_EQ(Rows{"SELECT 1 FROM packages WHERE id = ?"}, log.take());
    database->packages();
    EXPECT_EQ(Rows{"SELECT DISTINCT id FROM packages"}, log.take());
    database->hasCertificatesWithGroup(Group::Seclab);
    EXPECT_EQ(Rows{"SELECT 1 FROM certificates WHERE group_id = (SELECT id FROM groups WHERE name "
                   "= ?)"},
              log.take());
    database->certificateReferences(seclab);
    EXPECT_EQ(Rows{"SELECT COUNT(1) FROM packages WHERE certificateid = (SELECT id FROM "
                   "certificates WHERE certificate = ?)"},
              log.take());
    database->packageHasCertificateWithGroup("p", Group::Seclab);
    EXPECT_EQ(Rows{"SELECT 1 FROM certificates WHERE id IN (SELECT certificateid FROM packages "
                   "WHERE id = ?) AND group_id = (SELECT id FROM groups WHERE name = ?)"},
              log.take());
    database->packageCertificateWithGroup("p", Group::Seclab);
    EXPECT_EQ(Rows{"SELECT certificate FROM certificates WHERE id IN (SELECT certificateid FROM "
                   "packages WHERE id = ?) AND group_id = (SELECT id FROM groups WHERE name = ?)"},
              log.take());
    database->activeCertificates();
    EXPECT_EQ(Rows{"SELECT certificate FROM certificates WHERE id IN (     SELECT certificateid "
                   "FROM packages ) AND key NOT IN (     SELECT keyid FROM revoked_keyids     "
                   "WHERE type = ? ) "},
              log.take());
    database->certificates();
    EXPECT_EQ(Rows{"SELECT certificate FROM certificates"}, log.take());
    database->packageCertificates("p");
    EXPECT_EQ(Rows{"SELECT id, certificate FROM certificates WHERE id IN (SELECT certificateid "
                   "FROM packages WHERE id = ?)"},
              log.take());
}

TEST_F(PackageRecords, CertificateRowHoldsItsFacts)
{
    const Certificate developer = certificateOf(identity('a'));
    const sqlite3_int64 id = database->insertCertificate(developer);
    ASSERT_NE(0, id);
    SqliteFile file(files.databasePath());
    EXPECT_EQ((Rows{std::to_string(id) + "|" + keyid('a') + "|text|a|developer|regular"}),
              file.queryRows("SELECT c.id, c.key, typeof(c.key), c.subject, g.name, s.name FROM "
                             "certificates c JOIN groups g ON g.id = c.group_id JOIN subgroups s "
                             "ON s.id = c.subgroup_id"));
    const std::vector<unsigned char> der = developer.toDer();
    EXPECT_EQ(static_cast<long long>(der.size()),
              file.queryInt("SELECT length(certificate) FROM certificates"));
}

TEST_F(PackageRecords, StoredCertificateKeepsItsIdWithoutTouchingGroups)
{
    const Certificate developer = certificateOf(identity('a'));
    const sqlite3_int64 id = database->insertCertificate(developer);
    ASSERT_NE(0, id);
    SqliteFile(files.databasePath()).exec("DELETE FROM groups; DELETE FROM subgroups");
    EXPECT_EQ(id, database->insertCertificate(developer));
    EXPECT_EQ(0, count("groups"));
    EXPECT_EQ(0, count("subgroups"));
    EXPECT_EQ(1, count("certificates"));
}

TEST_F(PackageRecords, EmptyListChangesNothing)
{
    ASSERT_TRUE(database->insertPackage("p", {signedCms(identity('a'))}));
    StatementLog log;
    database = open();
    log.take();
    EXPECT_FALSE(database->insertPackage("p", {}));
    // Not even a transaction is opened.
    EXPECT_EQ(Rows{}, log.take());
    EXPECT_EQ(Keyids{keyid('a')}, recordedKeyids("p"));
}

TEST_F(PackageRecords, RecordingAgainReplacesTheRows)
{
    ASSERT_TRUE(database->insertPackage("p", {signedCms(identity('a')), signedCms(pki->seclab())}));
    EXPECT_EQ(sorted({keyid('a'), keyidOf(pki->seclab())}), recordedKeyids("p"));
    ASSERT_TRUE(database->insertPackage("p", {signedCms(identity('b')), signedCms(pki->client())}));
    EXPECT_EQ(sorted({keyid('b'), keyidOf(pki->client())}), recordedKeyids("p"));
    EXPECT_EQ(2, count("packages"));
}

TEST_F(PackageRecords, PackagesShareTheRowOfTheirCertificate)
{
    const std::vector<Cms> signatures{signedCms(identity('a'))};
    ASSERT_TRUE(database->insertPackage("p", signatures));
    ASSERT_TRUE(database->insertPackage("q", signatures));
    EXPECT_EQ(1, count("certificates"));
    const Certificate developer = certificateOf(identity('a'));
    EXPECT_EQ(2, database->certificateReferences(developer));
    ASSERT_TRUE(database->removePackage("p"));
    EXPECT_EQ(1, database->certificateReferences(developer));
    EXPECT_EQ(0, database->certificateReferences(certificateOf(identity('b'))));
}

TEST_F(PackageRecords, RotatedAwayKeysBecomeSupersededButBlacklistingStays)
{
    ChainPtr chain = writeRotationChain(chainPath("abc"), {{identity('a'), identity('b')},
                                                           {identity('b'), identity('c')}});
    ASSERT_TRUE(database->insertRevokedKeyid(keyid('a'), Database::Blacklisted));
    ASSERT_TRUE(database->insertPackage("p", {signedCms(identity('c'), chain.get())}));
    EXPECT_EQ(sorted({keyid('a') + "|1", keyid('b') + "|0"}), revoked());
    EXPECT_EQ(Keyids{keyid('c')}, recordedKeyids("p"));
}

TEST_F(PackageRecords, EveryChainOfTheListIsApplied)
{
    ChainPtr ab = writeRotationChain(chainPath("ab"), {{identity('a'), identity('b')}});
    ChainPtr cd = writeRotationChain(chainPath("cd"), {{identity('c'), identity('d')}});
    ASSERT_TRUE(database->insertPackage(
        "p", {signedCms(identity('b'), ab.get()), signedCms(identity('d'), cd.get())}));
    EXPECT_EQ(sorted({keyid('a') + "|0", keyid('c') + "|0"}), revoked());
}

TEST_F(PackageRecords, RemovingAnUnknownPackageSucceeds)
{
    EXPECT_TRUE(database->removePackage("never-installed"));
    ASSERT_TRUE(database->insertPackage("p", {signedCms(identity('a'))}));
    EXPECT_TRUE(database->removePackage("p"));
    EXPECT_FALSE(database->packageExists("p"));
    EXPECT_TRUE(database->removePackage("p"));
    // The certificate row stays behind, unreferenced.
    EXPECT_EQ(1, count("certificates"));
}

TEST_F(PackageRecords, PackagesAreListedOnce)
{
    EXPECT_TRUE(database->packages().empty());
    ASSERT_TRUE(database->insertPackage("p", {signedCms(identity('a')), signedCms(pki->seclab())}));
    ASSERT_TRUE(database->insertPackage("q", {signedCms(identity('b'))}));
    std::vector<std::string> names = database->packages();
    std::sort(names.begin(), names.end());
    EXPECT_EQ((std::vector<std::string>{"p", "q"}), names);
    EXPECT_TRUE(database->packageExists("q"));
    EXPECT_FALSE(database->packageExists("r"));
}

TEST_F(PackageRecords, ActiveCertificatesLeaveOutBlacklistedAndUnreferenced)
{
    ASSERT_TRUE(database->insertPackage("p", {signedCms(identity('a'))}));
    ASSERT_TRUE(database->insertPackage("q", {signedCms(identity('b'))}));
    ASSERT_TRUE(database->insertPackage("r", {signedCms(identity('c'))}));
    ASSERT_NE(0, database->insertCertificate(certificateOf(identity('d'))));
    ASSERT_TRUE(database->insertRevokedKeyid(keyid('a'), Database::Blacklisted));
    ASSERT_TRUE(database->insertRevokedKeyid(keyid('b'), Database::Superseded));

    EXPECT_EQ(sorted({keyid('b'), keyid('c')}), sorted(keyidsOf(database->activeCertificates())));
    EXPECT_EQ(sorted({keyid('a'), keyid('b'), keyid('c'), keyid('d')}),
              sorted(keyidsOf(database->certificates())));
}

TEST_F(PackageRecords, GroupLookups)
{
    ASSERT_TRUE(database->insertPackage("p", {signedCms(identity('a')), signedCms(pki->seclab())}));
    ASSERT_TRUE(database->insertPackage("q", {signedCms(pki->client())}));

    EXPECT_TRUE(database->hasCertificatesWithGroup(Group::Developer));
    EXPECT_TRUE(database->hasCertificatesWithGroup(Group::Client));
    EXPECT_FALSE(database->hasCertificatesWithGroup(Group::None));

    EXPECT_TRUE(database->packageHasCertificateWithGroup("p", Group::Seclab));
    EXPECT_FALSE(database->packageHasCertificateWithGroup("p", Group::Client));
    EXPECT_FALSE(database->packageHasCertificateWithGroup("q", Group::Developer));

    std::optional<Certificate> developer = database->packageCertificateWithGroup("p", Group::Developer);
    ASSERT_TRUE(developer);
    EXPECT_EQ(keyid('a'), developer->keyId());
    EXPECT_EQ(Group::Developer, developer->group());
    EXPECT_FALSE(database->packageCertificateWithGroup("q", Group::Developer));
    EXPECT_FALSE(database->packageCertificateWithGroup("absent", Group::Developer));
}

TEST_F(PackageRecords, PackageCertificatesAreDecodedOncePerRow)
{
    ASSERT_TRUE(database->insertPackage("p", {signedCms(identity('a')), signedCms(pki->seclab())}));
    EXPECT_EQ(sorted({keyid('a'), keyidOf(pki->seclab())}),
              sorted(keyidsOf(database->packageCertificates("p"))));
    EXPECT_TRUE(database->packageCertificates("absent").empty());

    // Another process rewrites a row under the same id: this object keeps
    // serving what it decoded, a new one reads the row.
    rewriteCertificate(keyid('a'), certificateOf(identity('b')).toDer());

    EXPECT_EQ(sorted({keyid('a'), keyidOf(pki->seclab())}),
              sorted(keyidsOf(database->packageCertificates("p"))));
    EXPECT_EQ(sorted({keyid('b'), keyidOf(pki->seclab())}),
              sorted(keyidsOf(open()->packageCertificates("p"))));
}

TEST_F(PackageRecords, LookupsDecodeWhatIsStoredNow)
{
    ASSERT_TRUE(database->insertPackage("p", {signedCms(identity('a'))}));
    EXPECT_EQ(keyid('a'), database->packageCertificateWithGroup("p", Group::Developer)->keyId());
    rewriteCertificate(keyid('a'), certificateOf(identity('b')).toDer());
    EXPECT_EQ(keyid('b'), database->packageCertificateWithGroup("p", Group::Developer)->keyId());
    EXPECT_EQ(Keyids{keyid('b')}, keyidsOf(database->certificates()));

    // Undecodable bytes give an empty certificate, reported every time.
    rewriteCertificate(keyid('a'), {0x30, 0x03, 0x02, 0x01, 0x01});
    for (int i = 0; i < 2; ++i) {
        std::optional<Certificate> stored;
        EXPECT_EQ("Could not decode X.509 certificate\n",
                  stderrOf([&] { stored = database->packageCertificateWithGroup("p", Group::Developer); }));
        ASSERT_TRUE(stored);
        EXPECT_EQ(nullptr, stored->get());
        EXPECT_EQ("", stored->keyId());
    }
}

TEST_F(PackageRecords, UnreadableSignerRollsTheWholePackageBack)
{
    ASSERT_TRUE(database->insertPackage("p", {signedCms(identity('a'))}));
    ChainPtr chain = writeRotationChain(chainPath("bc"), {{identity('b'), identity('c')}});
    const std::vector<Cms> signatures{signedCms(identity('c'), chain.get()),
                                      Cms({0x30, 0x03, 0x02, 0x01, 0x01})};
    bool recorded = true;
    const std::string errors = stderrOf([&] { recorded = database->insertPackage("p", signatures); });
    EXPECT_FALSE(recorded);
    EXPECT_EQ("Could not decode DER CMS\n", errors);
    EXPECT_EQ(Keyids{keyid('a')}, recordedKeyids("p"));
    EXPECT_EQ(Rows{}, revoked());
    // The connection is not left inside a transaction: the next change lasts.
    EXPECT_TRUE(database->removePackage("p"));
    EXPECT_FALSE(open()->packageExists("p"));
}

TEST_F(PackageRecords, OneSignerTwiceInOneListIsRefused)
{
    ASSERT_TRUE(database->insertPackage("p", {signedCms(identity('a'))}));
    EXPECT_FALSE(database->insertPackage("p", {signedCms(pki->client()), signedCms(pki->client())}));
    EXPECT_EQ(Keyids{keyid('a')}, recordedKeyids("p"));
}

TEST_F(PackageRecords, RefusedSupersedingRollsTheWholePackageBack)
{
    ASSERT_TRUE(database->insertPackage("p", {signedCms(identity('a'))}));
    ChainPtr chain = writeRotationChain(chainPath("ab"), {{identity('a'), identity('b')}});
    const std::vector<Cms> signatures{signedCms(identity('b'), chain.get())};
    {
        RefusingConnections refusing({{SQLITE_INSERT, "revoked_keyids"}});
        auto refused = open();
        EXPECT_FALSE(refused->insertPackage("p", signatures));
    }
    EXPECT_EQ(Keyids{keyid('a')}, recordedKeyids("p"));
    EXPECT_EQ(Rows{}, revoked());
    EXPECT_TRUE(database->insertPackage("p", signatures));
    EXPECT_EQ(Keyids{keyid('b')}, recordedKeyids("p"));
}

// A lookup that cannot read its table has not found the row absent: adding
// one then would duplicate a stored certificate or make a second row for a
// name. Nothing is inserted and the id is 0.
TEST_F(PackageRecords, AFailedLookupInsertsNothing)
{
    const Certificate developer = certificateOf(identity('a'));
    const sqlite3_int64 stored = database->insertCertificate(developer);
    ASSERT_NE(0, stored);
    {
        RefusingConnections refusing({{SQLITE_READ, "certificates"},
                                      {SQLITE_READ, "groups"},
                                      {SQLITE_READ, "subgroups"}});
        auto refused = open();
        EXPECT_EQ(0, refused->insertCertificate(developer));
        EXPECT_EQ(0, refused->insertCertificate(certificateOf(pki->seclab())));
        EXPECT_EQ(0, refused->insertGroup(Group::Client));
        EXPECT_EQ(0, refused->insertSubgroup(Subgroup::Mdm));
        EXPECT_FALSE(refused->insertPackage("p", {signedCms(identity('a'))}));
    }
    SqliteFile file(files.databasePath());
    EXPECT_EQ(Rows{std::to_string(stored)}, file.queryTexts("SELECT id FROM certificates"));
    EXPECT_EQ(Rows{"developer"}, file.queryTexts("SELECT name FROM groups"));
    EXPECT_EQ(Rows{"regular"}, file.queryTexts("SELECT name FROM subgroups"));
    EXPECT_EQ(0, count("packages"));
}

// A connection left inside a transaction that it could neither commit nor
// roll back (both refused here, so that the snapshot taken when opening
// stays open) writes nothing for good any more: recording says so rather
// than join that transaction and report rows that are lost at close.
TEST_F(PackageRecords, AConnectionLeftInsideATransactionRecordsNothingAndSaysSo)
{
    {
        RefusingConnections refusing(
            {{SQLITE_TRANSACTION, "COMMIT"}, {SQLITE_TRANSACTION, "ROLLBACK"}});
        auto stuck = open();
        EXPECT_FALSE(stuck->insertPackage("p", {signedCms(identity('a'))}));
        EXPECT_FALSE(stuck->updateRevokedKeyids());
    }
    EXPECT_EQ(0, count("packages"));
}

TEST_F(PackageRecords, FailedCommitReportsFailureAndKeepsTheOldRows)
{
    ASSERT_TRUE(database->insertPackage("p", {signedCms(identity('a'))}));
    const std::vector<Cms> signatures{signedCms(identity('b'))};
    {
        RefusingConnections refusing({{SQLITE_TRANSACTION, "COMMIT"}});
        auto refused = open();
        EXPECT_FALSE(refused->insertPackage("p", signatures));
        // Rolled back, not left open: this connection still sees the old rows.
        ASSERT_TRUE(refused->packageCertificateWithGroup("p", Group::Developer));
        EXPECT_EQ(keyid('a'), refused->packageCertificateWithGroup("p", Group::Developer)->keyId());
    }
    EXPECT_EQ(Keyids{keyid('a')}, recordedKeyids("p"));
}

}  // namespace
}  // namespace sealkeep::test
