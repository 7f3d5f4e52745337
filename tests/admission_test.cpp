// Package admission: the decision on a package's developer signature (revoked
// keys, blacklisted ancestors, same developer or a proven rotation), and the
// system developer's certificate.
#include <gtest/gtest.h>

#include <memory>
#include <string>
#include <vector>

#include <sys/stat.h>

#include <sealkeep/database.hpp>

#include "support/database_fixture.hpp"
#include "support/files.hpp"
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
using PackageSignatures::PackageCheckResult;

TEST(PackageCheckResult, ValuesAreTheIntegersInstallersCompare)
{
    EXPECT_EQ(0, PackageSignatures::Accepted);
    EXPECT_EQ(1, PackageSignatures::NotDeveloperSigned);
    EXPECT_EQ(3, PackageSignatures::DeveloperMismatch);
    EXPECT_EQ(5, PackageSignatures::KeySuperseded);
    EXPECT_EQ(6, PackageSignatures::KeyBlacklisted);
    const int asInteger = PackageSignatures::KeyBlacklisted;
    EXPECT_EQ(6, asInteger);
}

class Admission : public RotatingKeysTest {
protected:
    void SetUp() override
    {
        database = std::make_unique<Database>(files.databasePath(), files.confPath());
    }

    // The decision, which must not depend on the unused flag.
    int check(std::string const& package, std::vector<Cms> const& cmses)
    {
        const int decision = database->checkPackage(package, cmses, false);
        EXPECT_EQ(decision, database->checkPackage(package, cmses, true));
        return decision;
    }

    ChainPtr chain(std::string const& name, std::vector<RotationStep> const& rotations) const
    {
        return writeRotationChain(files.file(name + ".chain"), rotations);
    }

    TrustFiles files;
    std::unique_ptr<Database> database;
};

TEST_F(Admission, WithoutADeveloperSignatureTheCheckDoesNotApply)
{
    EXPECT_EQ(1, check("p", {}));
    EXPECT_EQ(1, check("p", {signedCms(pki->seclab()), signedCms(pki->client())}));
    EXPECT_EQ(1, check("p", {signedCms(pki->client())}));
    // Only the first signature is considered.
    EXPECT_EQ(1, check("p", {signedCms(pki->seclab()), signedCms(identity('a'))}));
}

TEST_F(Admission, ANewPackageFromAnyUnrevokedDeveloperIsAccepted)
{
    EXPECT_EQ(0, check("p", {signedCms(identity('a'))}));
    EXPECT_EQ(0, check("p", {signedCms(identity('b')), signedCms(pki->client())}));
}

TEST_F(Admission, RevokedSigningKeysAreRefusedEvenForNewPackages)
{
    ASSERT_TRUE(database->insertRevokedKeyid(keyid('a'), Database::Blacklisted));
    ASSERT_TRUE(database->insertRevokedKeyid(keyid('b'), Database::Superseded));
    EXPECT_EQ(6, check("p", {signedCms(identity('a'))}));
    EXPECT_EQ(5, check("p", {signedCms(identity('b'))}));
}

TEST_F(Admission, SignaturesOfOtherGroupsPlayNoPart)
{
    ASSERT_TRUE(database->insertRevokedKeyid(keyidOf(pki->client()), Database::Blacklisted));
    ASSERT_TRUE(database->insertPackage("p", {signedCms(identity('a'))}));
    EXPECT_EQ(0, check("p", {signedCms(identity('a')), signedCms(pki->client())}));
}

TEST_F(Admission, AnUpdateMustComeFromTheInstalledDeveloper)
{
    ASSERT_TRUE(database->insertPackage("p", {signedCms(identity('a')), signedCms(pki->seclab())}));
    EXPECT_EQ(0, check("p", {signedCms(identity('a'))}));
    EXPECT_EQ(3, check("p", {signedCms(identity('b'))}));
    // Another package is not affected by p's developer.
    EXPECT_EQ(0, check("q", {signedCms(identity('b'))}));
}

TEST_F(Admission, AnUpdateByARotatedKeyNeedsTheInstalledKeyInItsChain)
{
    ASSERT_TRUE(database->insertPackage("p", {signedCms(identity('a'))}));
    ChainPtr fromA = chain("ab", {{identity('a'), identity('b')}});
    ChainPtr fromC = chain("cb", {{identity('c'), identity('b')}});
    ChainPtr throughA = chain("dac", {{identity('d'), identity('a')}, {identity('a'), identity('c')}});
    EXPECT_EQ(0, check("p", {signedCms(identity('b'), fromA.get())}));
    EXPECT_EQ(3, check("p", {signedCms(identity('b'), fromC.get())}));
    EXPECT_EQ(0, check("p", {signedCms(identity('c'), throughA.get())}));
}

TEST_F(Admission, SupersededAncestorsPassAndBlacklistedOnesDoNot)
{
    ASSERT_TRUE(database->insertPackage("p", {signedCms(identity('a'))}));
    ChainPtr fromA = chain("ab", {{identity('a'), identity('b')}});
    const std::vector<Cms> update{signedCms(identity('b'), fromA.get())};
    ASSERT_TRUE(database->insertPackage("p", update));
    ASSERT_EQ(Database::Superseded, database->getKeyidRevocationStatus(keyid('a')));
    EXPECT_EQ(0, check("p", update));
    // The old key itself may no longer sign.
    EXPECT_EQ(5, check("p", {signedCms(identity('a'))}));

    ASSERT_TRUE(database->insertRevokedKeyid(keyid('a'), Database::Blacklisted));
    EXPECT_EQ(6, check("p", update));
    EXPECT_EQ(6, check("q", update));
}

TEST_F(Admission, ABlacklistedAncestorAnywhereInTheChainIsRefused)
{
    ChainPtr abc = chain("abc", {{identity('a'), identity('b')}, {identity('b'), identity('c')}});
    const std::vector<Cms> signatures{signedCms(identity('c'), abc.get())};
    ASSERT_TRUE(database->insertRevokedKeyid(keyid('b'), Database::Superseded));
    EXPECT_EQ(0, check("p", signatures));
    ASSERT_TRUE(database->insertRevokedKeyid(keyid('a'), Database::Blacklisted));
    EXPECT_EQ(6, check("p", signatures));
}

TEST_F(Admission, APackageWithoutADeveloperCannotBeTakenOverByOne)
{
    ASSERT_TRUE(database->insertPackage("p", {signedCms(pki->seclab()), signedCms(pki->client())}));
    EXPECT_EQ(3, check("p", {signedCms(identity('a'))}));
    EXPECT_FALSE(database->developerMatch("p", signedCms(identity('a'))));
}

TEST_F(Admission, DeveloperMatch)
{
    EXPECT_TRUE(database->developerMatch("p", signedCms(identity('a'))));
    ASSERT_TRUE(database->insertPackage("p", {signedCms(identity('a'))}));
    EXPECT_TRUE(database->developerMatch("p", signedCms(identity('a'))));
    EXPECT_FALSE(database->developerMatch("p", signedCms(identity('b'))));
    ChainPtr fromA = chain("ab", {{identity('a'), identity('b')}});
    EXPECT_TRUE(database->developerMatch("p", signedCms(identity('b'), fromA.get())));
    // Revocation is not developerMatch's concern.
    ASSERT_TRUE(database->insertRevokedKeyid(keyid('a'), Database::Blacklisted));
    EXPECT_TRUE(database->developerMatch("p", signedCms(identity('a'))));
}

// When what is installed cannot be read (here another process has renamed
// the packages table away), an update from another developer must not pass
// for a first installation: a failed lookup is a mismatch.
TEST_F(Admission, APackageLookupThatFailsIsAMismatch)
{
    ASSERT_TRUE(database->insertPackage("p", {signedCms(identity('a'))}));
    const std::vector<Cms> other{signedCms(identity('b'))};
    ASSERT_EQ(3, check("p", other));
    SqliteFile(files.databasePath()).exec("ALTER TABLE packages RENAME TO moved_packages");

    // The statements this connection prepared no longer run...
    EXPECT_EQ(3, check("p", other));
    EXPECT_EQ(3, check("q", other));
    EXPECT_FALSE(database->developerMatch("p", other.front()));
    EXPECT_FALSE(database->developerMatch("q", other.front()));
    // ...while packageExists still answers only whether it found the package.
    EXPECT_FALSE(database->packageExists("p"));
    // A new connection cannot even prepare them.
    database = std::make_unique<Database>(files.databasePath(), files.confPath());
    EXPECT_FALSE(database->developerMatch("q", other.front()));
    EXPECT_EQ(3, check("p", other));
    EXPECT_EQ(3, check("q", other));
}

// Without a file to read, nothing is known about the signer's keys: every
// developer signature is refused as blacklisted.
TEST_F(Admission, AnUnopenableDatabaseRefusesEveryDeveloperSignature)
{
    const std::string path = files.file("missing-directory/trust.db");
    EXPECT_EQ("Could not open database at " + path + "\n",
              stderrOf([&] { database = std::make_unique<Database>(path, files.confPath()); }));
    EXPECT_EQ(6, check("p", {signedCms(identity('a'))}));
    EXPECT_EQ(1, check("p", {signedCms(pki->client())}));
}

// A connection left inside a transaction that it could not end (its COMMIT
// and ROLLBACK refused here) keeps reading the file as it was then, blind to
// any key blacklisted since: it refuses rather than decide on that.
TEST_F(Admission, AConnectionLeftInsideATransactionRefuses)
{
    RefusingConnections refusing(
        {{SQLITE_TRANSACTION, "COMMIT"}, {SQLITE_TRANSACTION, "ROLLBACK"}});
    auto stuck = std::make_unique<Database>(files.databasePath(), files.confPath());
    ASSERT_EQ(0, database->checkPackage("p", {signedCms(identity('a'))}, false));
    EXPECT_EQ(6, stuck->checkPackage("p", {signedCms(identity('a'))}, false));
}

TEST_F(Admission, ADecisionReadsOneStateOfTheFileAndLetsItGo)
{
    ChainPtr fromA = chain("ab", {{identity('a'), identity('b')}});
    ASSERT_TRUE(database->insertPackage("p", {signedCms(identity('a'))}));
    const std::vector<Cms> update{signedCms(identity('b'), fromA.get())};
    StatementLog log;
    database = std::make_unique<Database>(files.databasePath(), files.confPath());
    log.take();

    EXPECT_EQ(0, database->checkPackage("p", update, false));
    const std::string revocationStatus = "SELECT type FROM revoked_keyids WHERE keyid = ?";
    EXPECT_EQ((Rows{"BEGIN", revocationStatus, revocationStatus,
                    "SELECT 1 FROM packages WHERE id = ?",
                    "SELECT certificate FROM certificates WHERE id IN (SELECT certificateid FROM "
                    "packages WHERE id = ?) AND group_id = (SELECT id FROM groups WHERE name = ?)",
                    "COMMIT"}),
              log.take());
    EXPECT_TRUE(lockableAtOnce(files.databasePath()));

    // A refusal ends the snapshot as well; without a developer signature the
    // file is not read at all.
    ASSERT_TRUE(database->insertRevokedKeyid(keyid('b'), Database::Blacklisted));
    log.take();
    EXPECT_EQ(6, database->checkPackage("p", update, false));
    EXPECT_EQ((Rows{"BEGIN", revocationStatus, "COMMIT"}), log.take());
    EXPECT_TRUE(lockableAtOnce(files.databasePath()));
    log.take();
    EXPECT_EQ(1, database->checkPackage("p", {signedCms(pki->client())}, false));
    EXPECT_EQ(Rows{}, log.take());
}

// A Cms whose bytes were replaced with assign() after its certificate was
// read is judged on the bytes it holds now: a client signature put in the
// developer's place is no developer signature.
TEST_F(Admission, ASignatureIsJudgedOnTheBytesItHoldsNow)
{
    std::vector<Cms> cmses{signedCms(identity('a'))};
    ASSERT_EQ(Group::Developer, cmses[0].certificate()->group());
    cmses[0].assign(signedCms(pki->client()).data());
    EXPECT_EQ(1, check("p", cmses));

    // And the other way round: a seclab signature replaced by a developer's.
    std::vector<Cms> replaced{signedCms(pki->seclab())};
    ASSERT_EQ(Group::Seclab, replaced[0].certificate()->group());
    replaced[0].assign(signedCms(identity('b')).data());
    EXPECT_EQ(0, check("p", replaced));
}

// After a decision on one developer key, the bytes of another developer are
// assigned: a blacklisting of the new key is seen, also by the records.
TEST_F(Admission, AKeyRevokedAfterAnAssignIsTheOneJudged)
{
    std::vector<Cms> cmses{signedCms(identity('a'))};
    ASSERT_EQ(0, check("p", cmses));
    cmses[0].assign(signedCms(identity('b')).data());
    ASSERT_TRUE(database->insertRevokedKeyid(keyid('b'), Database::Blacklisted));
    EXPECT_EQ(6, check("p", cmses));
    ASSERT_TRUE(database->removeRevokedKeyid(keyid('b'), Database::Blacklisted));
    ASSERT_TRUE(database->insertPackage("p", cmses));
    EXPECT_EQ((std::vector<std::string>{keyid('b')}), keyidsOf(database->packageCertificates("p")));
    EXPECT_EQ(0, check("p", {signedCms(identity('b'))}));
}

// A decision leaves the caller's objects as it found them: what they answer
// afterwards is what they would have answered without it.
TEST_F(Admission, ADecisionFillsNoCacheOfTheCaller)
{
    std::vector<Cms> cmses{signedCms(identity('a'))};
    ASSERT_EQ(0, check("p", cmses));
    cmses[0].assign(signedCms(pki->client()).data());
    EXPECT_EQ(Group::Client, cmses[0].certificate()->group());
    EXPECT_EQ(keyidOf(pki->client()), cmses[0].certificate()->keyId());
}

// The system developer key id file is found through the default
// configuration, under $SEALKEEP_ROOTFS.
class SystemDeveloper : public RotatingKeysTest {
protected:
    SystemDeveloper() : rootfs("SEALKEEP_ROOTFS", root.path())
    {
        mkdir(root.file("etc").c_str(), 0700);
        mkdir(root.file("etc/sealkeep").c_str(), 0700);
        writeText(root.file("etc/sealkeep/sealkeep.conf"),
                  keyFileText({{"main", {{"system_developer_keyid_path", keyidPath()}}}}));
    }

    std::string keyidPath() const { return root.file("system-developer.keyid"); }

    static bool isSystemDeveloper(Certificate const& certificate, std::string& errors)
    {
        bool result = false;
        errors = stderrOf([&] { result = certificate.isSystemDeveloperCertificate(); });
        return result;
    }

    static Certificate certificateOf(char name)
    {
        return Certificate::readCertificateFromFile(identity(name).certPath.c_str());
    }

    TempDir root;
    ScopedEnvironment rootfs;
};

TEST_F(SystemDeveloper, TheFirstLineNamesTheSystemDeveloper)
{
    writeText(keyidPath(), keyid('a') + "\n" + keyid('b') + "\n");
    std::string errors;
    EXPECT_TRUE(isSystemDeveloper(certificateOf('a'), errors));
    EXPECT_FALSE(isSystemDeveloper(certificateOf('b'), errors));
    EXPECT_EQ("", errors);

    writeText(keyidPath(), keyid('b'));
    EXPECT_TRUE(isSystemDeveloper(certificateOf('b'), errors));
    EXPECT_FALSE(isSystemDeveloper(certificateOf('a'), errors));
}

TEST_F(SystemDeveloper, TheLineIsComparedExactly)
{
    std::string errors;
    for (std::string const& line : {keyid('a') + " ", " " + keyid('a'), keyid('a') + "\r",
                                    keyid('a').substr(1)}) {
        writeText(keyidPath(), line + "\n");
        EXPECT_FALSE(isSystemDeveloper(certificateOf('a'), errors)) << line;
        EXPECT_EQ("", errors);
    }
}

TEST_F(SystemDeveloper, AnEmptyFileMatchesOnlyAnEmptyKeyId)
{
    writeText(keyidPath(), "");
    std::string errors;
    EXPECT_FALSE(isSystemDeveloper(certificateOf('a'), errors));
    EXPECT_TRUE(isSystemDeveloper(Certificate(), errors));
    EXPECT_EQ("", errors);
}

TEST_F(SystemDeveloper, AnUnopenableFileMatchesNothing)
{
    std::string errors;
    for (Certificate const& certificate : {certificateOf('a'), Certificate()}) {
        EXPECT_FALSE(isSystemDeveloper(certificate, errors));
        EXPECT_EQ("Couldn't retrieve system developer key id\n", errors);
    }
    // A configuration without the key gives an empty path, which cannot be
    // opened either.
    writeText(root.file("etc/sealkeep/sealkeep.conf"), "[main]\n");
    EXPECT_FALSE(isSystemDeveloper(certificateOf('a'), errors));
    EXPECT_EQ("Couldn't retrieve system developer key id\n", errors);
}

TEST_F(SystemDeveloper, ADatabaseConfigurationDoesNotCount)
{
    // The key id file named by another configuration is never read.
    TrustFiles other;
    writeText(other.file("system-developer.keyid"), keyid('a') + "\n");
    Database database(other.databasePath(), other.confPath());
    writeText(keyidPath(), keyid('b') + "\n");
    std::string errors;
    EXPECT_FALSE(isSystemDeveloper(certificateOf('a'), errors));
    EXPECT_TRUE(isSystemDeveloper(certificateOf('b'), errors));
}

}  // namespace
}  // namespace sealkeep::test
