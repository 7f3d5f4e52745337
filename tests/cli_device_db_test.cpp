// sealkeep db: a device's life through the command (install, refused and
// accepted updates, rotation, revocation, developer mode, removal), checked
// by exit status, messages, --json and the database as sqlite3 reads it.
#include <cstdlib>
#include <fstream>
#include <string>

#include <gtest/gtest.h>
#include <nlohmann/json.hpp>

#include <sealkeep/certificate.hpp>

#include "support/cli_test.hpp"
#include "support/device_root.hpp"

namespace sealkeep::test {
namespace {

using nlohmann::json;

class CliDeviceDb : public CliTest {
protected:
    static void SetUpTestSuite()
    {
        CliTest::SetUpTestSuite();
        other = pki->issue("other-developer", "developer");
        successor = pki->issue("successor", "developer");
    }

    std::string keyIdOf(Identity const& who) const
    {
        return PackageSignatures::Certificate::readCertificateFromFile(who.certPath.c_str()).keyId();
    }

    // A fresh copy of the package signed by who.
    std::string signedBy(Identity const& who, std::string const& name, std::vector<std::string> const& extra = {})
    {
        std::string path = freshPackage(name);
        auto signing = signAs(who, path, extra);
        EXPECT_EQ(signing.exitCode, 0) << signing.errors;
        return path;
    }

    CommandResult db(std::vector<std::string> args) const
    {
        args.insert(args.begin(), "db");
        args.push_back("--conf");
        args.push_back(device.conf());
        return run(args);
    }

    bool databaseExists() const { return static_cast<bool>(std::ifstream(device.database())); }

    DeviceRoot device{pki->ca().certPath};
    static inline Identity other, successor;
};

TEST_F(CliDeviceDb, ReadOnlyCommandsCreateNoDatabase)
{
    for (auto const& command : std::vector<std::vector<std::string>>{
             {"status"}, {"list"}, {"certificates"}, {"revoked"}, {"developer-mode"}}) {
        auto result = db(command);
        EXPECT_EQ(result.exitCode, 1) << command[0];
        EXPECT_EQ(result.errors, "sealkeep: " + device.database() + ": cannot open the database: No such file or directory\n");
        EXPECT_EQ(result.output, "");
    }
    std::string package = signedBy(pki->developer(), "p.rpm");
    EXPECT_EQ(db({"check", "demo", package}).exitCode, 1);
    EXPECT_FALSE(databaseExists());
}

// An empty file is no database either: asking writes no tables into it.
TEST_F(CliDeviceDb, ReadOnlyCommandsLeaveAnEmptyFileEmpty)
{
    writeText(device.database(), "");
    std::string package = signedBy(pki->developer(), "p.rpm");
    for (auto const& command : std::vector<std::vector<std::string>>{
             {"status"}, {"list"}, {"certificates"}, {"revoked"}, {"developer-mode"}, {"check", "demo", package}}) {
        auto result = db(command);
        EXPECT_EQ(result.exitCode, 1) << command[0];
        EXPECT_EQ(result.errors, "sealkeep: " + device.database() + ": cannot open the database: the file is empty\n");
        EXPECT_EQ(result.output, "");
        EXPECT_EQ(fileSize(device.database()), 0) << command[0];
    }
}

TEST_F(CliDeviceDb, NewerSchemaIsRefused)
{
    runCommand({"sqlite3", device.database(), "PRAGMA user_version = 5"});
    auto result = db({"status"});
    EXPECT_EQ(result.exitCode, 1);
    EXPECT_EQ(result.errors, "sealkeep: " + device.database() +
                                 ": the database has schema version 5, newer than version 4 that this command knows\n");
    auto install = db({"install", "demo", signedBy(pki->developer(), "p.rpm")});
    EXPECT_EQ(install.exitCode, 1);
    EXPECT_EQ(device.query("PRAGMA user_version"), "5\n");
    EXPECT_EQ(device.query("SELECT count(*) FROM sqlite_master"), "0\n");
}

TEST_F(CliDeviceDb, NotADatabaseIsRefused)
{
    writeText(device.database(), "not a database, just text that is long enough to be a page header or more");
    auto result = db({"list"});
    EXPECT_EQ(result.exitCode, 1);
    EXPECT_EQ(result.errors, "sealkeep: " + device.database() + ": cannot open the database: not an SQLite database\n");
}

TEST_F(CliDeviceDb, ADevicesLife)
{
    std::string developer = keyIdOf(pki->developer());
    std::string first = signedBy(pki->developer(), "first.rpm");

    auto installed = db({"install", "demo", first});
    ASSERT_EQ(installed.exitCode, 0) << installed.errors;
    EXPECT_EQ(installed.output, "demo: Accepted (signer " + developer + ")\ndemo: recorded\n");
    EXPECT_EQ(device.query("SELECT p.id, c.key FROM packages p JOIN certificates c ON c.id = p.certificateid"),
              "demo|" + developer + "\n");

    auto status = db({"status", "--json"});
    ASSERT_EQ(status.exitCode, 0) << status.errors;
    EXPECT_EQ(json::parse(status.output),
              json({{"configuration", device.conf()},
                    {"database", device.database()},
                    {"schema_version", 4},
                    {"developer_mode", {{"enabled", false}, {"decided_by", device.root() + "/etc/sealkeep/developermode.conf"}}},
                    {"packages", 1},
                    {"certificates", 1},
                    {"superseded_keyids", 0},
                    {"blacklisted_keyids", 0}}));

    // Another developer may not take the package over.
    std::string stranger = keyIdOf(other);
    auto refused = db({"install", "demo", signedBy(other, "other.rpm")});
    EXPECT_EQ(refused.exitCode, 1);
    EXPECT_EQ(refused.output, "demo: DeveloperMismatch (signer " + stranger + ", installed " + developer + ")\n");
    EXPECT_EQ(refused.errors, "sealkeep: " + work.file("other.rpm") + ": not installed: DeveloperMismatch\n");
    EXPECT_EQ(device.query("SELECT c.key FROM packages p JOIN certificates c ON c.id = p.certificateid"),
              developer + "\n");

    // The developer rotates to a new key: the update through the chain is accepted.
    auto rotate = run({"rotate", "chain.pem", "--old-cert", pki->developer().certPath, "--old-key",
                       pki->developer().keyPath, "--new-cert", successor.certPath, "--new-key", successor.keyPath});
    ASSERT_EQ(rotate.exitCode, 0) << rotate.errors;
    std::string rotated = signedBy(successor, "rotated.rpm", {"--rotation-chain", "chain.pem"});
    std::string next = keyIdOf(successor);
    auto check = db({"check", "demo", rotated, "--json"});
    EXPECT_EQ(check.exitCode, 0) << check.errors;
    EXPECT_EQ(json::parse(check.output), json({{"package", "demo"},
                                               {"decision", "Accepted"},
                                               {"code", 0},
                                               {"signer_keyid", next},
                                               {"previous_keyids", {developer}},
                                               {"installed_keyid", developer}}));
    auto update = db({"install", "demo", rotated});
    ASSERT_EQ(update.exitCode, 0) << update.errors;
    EXPECT_EQ(device.query("SELECT keyid, type FROM revoked_keyids"), developer + "|0\n");

    // The old key is superseded: the first package is no longer admitted.
    auto superseded = db({"check", "demo", first});
    EXPECT_EQ(superseded.exitCode, 1);
    EXPECT_EQ(superseded.output, "demo: KeySuperseded (signer " + developer + ", installed " + next + ")\n");

    auto list = db({"list", "--json"});
    ASSERT_EQ(list.exitCode, 0);
    json packages = json::parse(list.output)["packages"];
    ASSERT_EQ(packages.size(), 1u);
    EXPECT_EQ(packages[0]["name"], "demo");
    ASSERT_EQ(packages[0]["signers"].size(), 1u);
    EXPECT_EQ(packages[0]["signers"][0]["keyid"], next);
    EXPECT_EQ(packages[0]["signers"][0]["group"], "developer");

    // Blacklisting the key it was rotated from blocks the update, and drops nothing active.
    auto blacklist = db({"revoke", developer, "--blacklisted"});
    EXPECT_EQ(blacklist.exitCode, 0) << blacklist.errors;
    EXPECT_EQ(blacklist.output, developer + ": blacklisted\n");
    auto blocked = db({"install", "demo", rotated});
    EXPECT_EQ(blocked.exitCode, 1);
    EXPECT_EQ(blocked.output, "demo: KeyBlacklisted (signer " + next + ", rotated from " + developer +
                                  ", installed " + next + ")\n");
    auto revoked = db({"revoked", "--json"});
    EXPECT_EQ(json::parse(revoked.output), json({{"revoked", {{{"keyid", developer}, {"type", "blacklisted"}}}}}));

    // Blacklisting the package's own key drops its certificate from the active set.
    EXPECT_EQ(db({"revoke", next, "--blacklisted"}).exitCode, 0);
    auto active = db({"certificates", "--active", "--json"});
    EXPECT_EQ(json::parse(active.output), json({{"certificates", json::array()}}));
    EXPECT_EQ(json::parse(db({"certificates", "--json"}).output)["certificates"].size(), 2u);
    auto unrevoke = db({"unrevoke", next, "--blacklisted"});
    EXPECT_EQ(unrevoke.output, next + ": not revoked\n");
    EXPECT_EQ(device.query("SELECT count(*) FROM revoked_keyids WHERE keyid = '" + next + "'"), "0\n");

    auto removed = db({"remove", "demo"});
    EXPECT_EQ(removed.exitCode, 0);
    EXPECT_EQ(removed.output, "demo: removed\n");
    EXPECT_EQ(device.query("SELECT count(*) FROM packages"), "0\n");
    EXPECT_EQ(db({"remove", "demo"}).output, "demo: was not recorded\n");
}

TEST_F(CliDeviceDb, RevocationFileFollowsDeveloperMode)
{
    std::string stranger = keyIdOf(other);
    device.writeRevocation(stranger + "=blacklisted\n");
    ASSERT_EQ(db({"install", "demo", signedBy(pki->developer(), "first.rpm")}).exitCode, 0);
    EXPECT_EQ(device.query("SELECT keyid, type FROM revoked_keyids"), stranger + "|1\n");

    device.setDeveloperMode(true);
    auto mode = db({"developer-mode"});
    EXPECT_EQ(mode.output, "developer mode: on (decided by " + device.runtimeDeveloperMode() + ")\n");
    auto sync = db({"sync"});
    EXPECT_EQ(sync.exitCode, 0) << sync.errors;
    EXPECT_EQ(sync.output, "revoked key ids updated (developer mode on)\n");
    EXPECT_EQ(device.query("SELECT count(*) FROM revoked_keyids"), "0\n");
    EXPECT_EQ(db({"check", "tool", signedBy(other, "other.rpm")}).exitCode, 0);

    device.setDeveloperMode(false);
    sync = db({"sync"});
    EXPECT_EQ(sync.output, "revoked key ids updated (developer mode off)\n");
    EXPECT_EQ(device.query("SELECT keyid, type FROM revoked_keyids"), stranger + "|1\n");
    auto blocked = db({"check", "tool", "other.rpm"});
    EXPECT_EQ(blocked.exitCode, 1);
    EXPECT_EQ(blocked.output, "tool: KeyBlacklisted (signer " + stranger + ")\n");

    // A missing revocation file is reported and changes nothing.
    std::remove(device.revocation().c_str());
    auto failed = db({"sync"});
    EXPECT_EQ(failed.exitCode, 1);
    EXPECT_EQ(failed.errors, "sealkeep: " + device.revocation() + ": could not apply the revocation file\n");
}

TEST_F(CliDeviceDb, ConfigurationUnderRootfs)
{
    ASSERT_EQ(db({"install", "demo", signedBy(pki->developer(), "first.rpm")}).exitCode, 0);
    setenv("SEALKEEP_ROOTFS", device.root().c_str(), 1);
    auto status = run({"db", "status"});
    unsetenv("SEALKEEP_ROOTFS");
    EXPECT_EQ(status.exitCode, 0) << status.errors;
    EXPECT_EQ(status.output, "configuration: " + device.conf() + "\ndatabase: " + device.database() +
                                 "\nschema version: 4\ndeveloper mode: off (decided by " + device.root() +
                                 "/etc/sealkeep/developermode.conf)\npackages: 1\ncertificates: 1\n"
                                 "superseded key ids: 0\nblacklisted key ids: 0\n");
}

TEST_F(CliDeviceDb, RevokeNeedsAType)
{
    auto result = db({"revoke", "abc"});
    EXPECT_EQ(result.exitCode, 2);
    EXPECT_NE(result.errors.find("(see --help)"), std::string::npos) << result.errors;
    EXPECT_FALSE(databaseExists());
    EXPECT_EQ(db({"revoke", "abc", "--superseded", "--blacklisted"}).exitCode, 2);
}

TEST_F(CliDeviceDb, UnsignedPackageIsRefusedBeforeTheCheck)
{
    ASSERT_EQ(db({"install", "demo", signedBy(pki->developer(), "first.rpm")}).exitCode, 0);
    std::string plain = freshPackage("plain.rpm");
    auto result = db({"install", "demo", plain});
    EXPECT_EQ(result.exitCode, 1);
    EXPECT_EQ(result.errors, "sealkeep: " + plain + ": the signatures do not verify against " + pki->ca().certPath + "\n");
}

}  // namespace
}  // namespace sealkeep::test
