// sealkeep db: a device's life through the command (install, refused and
// accepted updates, rotation, revocation, developer mode, removal), checked
// by exit status, messages, --json and the database as sqlite3 reads it.
#include <sys/stat.h>

#include <cstdlib>
#include <fstream>
#include <sstream>
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
    EXPECT_EQ(db({"check", package}).exitCode, 1);
    EXPECT_FALSE(databaseExists());
}

// An empty file is no database either: asking writes no tables into it.
TEST_F(CliDeviceDb, ReadOnlyCommandsLeaveAnEmptyFileEmpty)
{
    writeText(device.database(), "");
    std::string package = signedBy(pki->developer(), "p.rpm");
    for (auto const& command : std::vector<std::vector<std::string>>{
             {"status"}, {"list"}, {"certificates"}, {"revoked"}, {"developer-mode"}, {"check", package}}) {
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
    auto install = db({"install", signedBy(pki->developer(), "p.rpm")});
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

    auto installed = db({"install", first});
    ASSERT_EQ(installed.exitCode, 0) << installed.errors;
    EXPECT_EQ(installed.output, "cli-demo: accepted (signer " + developer + ")\ncli-demo: recorded\n");
    EXPECT_EQ(device.query("SELECT p.id, c.key FROM packages p JOIN certificates c ON c.id = p.certificateid"),
              "cli-demo|" + developer + "\n");

    auto status = db({"status", "--json"});
    ASSERT_EQ(status.exitCode, 0) << status.errors;
    EXPECT_EQ(json::parse(status.output),
              json({{"configuration", device.conf()},
                    {"database", device.database()},
                    {"databaseSchemaVersion", 4},
                    {"developerMode", {{"enabled", false}, {"decidedBy", device.root() + "/etc/sealkeep/developermode.conf"}}},
                    {"packages", 1},
                    {"certificates", 1},
                    {"supersededKeyIds", 0},
                    {"blacklistedKeyIds", 0},
                    {"schemaVersion", 1}}));

    // Another developer may not take the package over.
    std::string stranger = keyIdOf(other);
    auto refused = db({"install", signedBy(other, "other.rpm")});
    EXPECT_EQ(refused.exitCode, 1);
    EXPECT_EQ(refused.output, "cli-demo: developer_mismatch (signer " + stranger + ", installed " + developer + ")\n");
    EXPECT_EQ(refused.errors, "sealkeep: " + work.file("other.rpm") + ": not installed: developer_mismatch\n");
    EXPECT_EQ(device.query("SELECT c.key FROM packages p JOIN certificates c ON c.id = p.certificateid"),
              developer + "\n");

    // The developer rotates to a new key: the update through the chain is accepted.
    auto rotate = run({"rotate", "chain.pem", "--old-cert", pki->developer().certPath, "--old-key",
                       pki->developer().keyPath, "--new-cert", successor.certPath, "--new-key", successor.keyPath});
    ASSERT_EQ(rotate.exitCode, 0) << rotate.errors;
    std::string rotated = signedBy(successor, "rotated.rpm", {"--rotation-chain", "chain.pem"});
    std::string next = keyIdOf(successor);
    auto check = db({"check", rotated, "--json"});
    EXPECT_EQ(check.exitCode, 0) << check.errors;
    EXPECT_EQ(json::parse(check.output), json({{"path", rotated},
                                               {"ok", true},
                                               {"package", "cli-demo"},
                                               {"decision", "accepted"},
                                               {"code", 0},
                                               {"signerKeyId", next},
                                               {"previousKeyIds", {developer}},
                                               {"installedKeyId", developer},
                                               {"schemaVersion", 1}}));
    auto update = db({"install", rotated});
    ASSERT_EQ(update.exitCode, 0) << update.errors;
    EXPECT_EQ(device.query("SELECT keyid, type FROM revoked_keyids"), developer + "|0\n");

    // The old key is superseded: the first package is no longer admitted.
    auto superseded = db({"check", first});
    EXPECT_EQ(superseded.exitCode, 1);
    EXPECT_EQ(superseded.output, "cli-demo: key_superseded (signer " + developer + ", installed " + next + ")\n");

    auto list = db({"list", "--json"});
    ASSERT_EQ(list.exitCode, 0);
    json packages = json::parse(list.output)["packages"];
    ASSERT_EQ(packages.size(), 1u);
    EXPECT_EQ(packages[0]["name"], "cli-demo");
    ASSERT_EQ(packages[0]["signers"].size(), 1u);
    EXPECT_EQ(packages[0]["signers"][0]["keyId"], next);
    EXPECT_EQ(packages[0]["signers"][0]["group"], "developer");

    // Blacklisting the key it was rotated from blocks the update, and drops nothing active.
    auto blacklist = db({"revoke", developer, "--blacklisted"});
    EXPECT_EQ(blacklist.exitCode, 0) << blacklist.errors;
    EXPECT_EQ(blacklist.output, developer + ": blacklisted\n");
    auto blocked = db({"install", rotated});
    EXPECT_EQ(blocked.exitCode, 1);
    EXPECT_EQ(blocked.output, "cli-demo: key_blacklisted (signer " + next + ", rotated from " + developer +
                                  ", installed " + next + ")\n");
    auto revoked = db({"revoked", "--json"});
    EXPECT_EQ(json::parse(revoked.output), json({{"revoked", {{{"keyId", developer}, {"type", "blacklisted"}}}}, {"schemaVersion", 1}}));

    // Blacklisting the package's own key drops its certificate from the active set.
    EXPECT_EQ(db({"revoke", next, "--blacklisted"}).exitCode, 0);
    auto active = db({"certificates", "--active", "--json"});
    EXPECT_EQ(json::parse(active.output), json({{"certificates", json::array()}, {"schemaVersion", 1}}));
    EXPECT_EQ(json::parse(db({"certificates", "--json"}).output)["certificates"].size(), 2u);
    auto unrevoke = db({"unrevoke", next, "--blacklisted"});
    EXPECT_EQ(unrevoke.output, next + ": not revoked\n");
    EXPECT_EQ(device.query("SELECT count(*) FROM revoked_keyids WHERE keyid = '" + next + "'"), "0\n");

    auto removed = db({"remove", "cli-demo"});
    EXPECT_EQ(removed.exitCode, 0);
    EXPECT_EQ(removed.output, "cli-demo: removed\n");
    EXPECT_EQ(device.query("SELECT count(*) FROM packages"), "0\n");
    EXPECT_EQ(db({"remove", "cli-demo"}).output, "cli-demo: was not recorded\n");
}

TEST_F(CliDeviceDb, RevocationFileFollowsDeveloperMode)
{
    std::string stranger = keyIdOf(other);
    device.writeRevocation(stranger + "=blacklisted\n");
    ASSERT_EQ(db({"install", signedBy(pki->developer(), "first.rpm")}).exitCode, 0);
    EXPECT_EQ(device.query("SELECT keyid, type FROM revoked_keyids"), stranger + "|1\n");

    device.setDeveloperMode(true);
    auto mode = db({"developer-mode"});
    EXPECT_EQ(mode.output, "developer mode: on (decided by " + device.runtimeDeveloperMode() + ")\n");
    auto sync = db({"sync"});
    EXPECT_EQ(sync.exitCode, 0) << sync.errors;
    EXPECT_EQ(sync.output, "revoked key ids updated (developer mode on)\n");
    EXPECT_EQ(device.query("SELECT count(*) FROM revoked_keyids"), "0\n");
    EXPECT_EQ(db({"check", "tool", signedBy(other, "other.rpm"), "--other-name"}).exitCode, 0);

    device.setDeveloperMode(false);
    sync = db({"sync"});
    EXPECT_EQ(sync.output, "revoked key ids updated (developer mode off)\n");
    EXPECT_EQ(device.query("SELECT keyid, type FROM revoked_keyids"), stranger + "|1\n");
    auto blocked = db({"check", "tool", "other.rpm", "--other-name"});
    EXPECT_EQ(blocked.exitCode, 1);
    EXPECT_EQ(blocked.output, "tool: key_blacklisted (signer " + stranger + ")\n");

    // A missing revocation file is reported and changes nothing.
    std::remove(device.revocation().c_str());
    auto failed = db({"sync"});
    EXPECT_EQ(failed.exitCode, 1);
    EXPECT_EQ(failed.errors, "sealkeep: " + device.revocation() + ": could not apply the revocation file\n");
}

TEST_F(CliDeviceDb, ConfigurationUnderRootfs)
{
    ASSERT_EQ(db({"install", signedBy(pki->developer(), "first.rpm")}).exitCode, 0);
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
    ASSERT_EQ(db({"install", signedBy(pki->developer(), "first.rpm")}).exitCode, 0);
    std::string plain = freshPackage("plain.rpm");
    auto result = db({"install", plain});
    EXPECT_EQ(result.exitCode, 1);
    EXPECT_EQ(result.errors, "sealkeep: " + plain + ": the signatures do not verify against " + pki->ca().certPath + "\n");
}

// A package is recorded under the NAME of its own header: another name is
// refused unless it is meant, so that one package's signatures never pass
// for another's record by a slip of the command line.
TEST_F(CliDeviceDb, TheNameComesFromThePackageHeader)
{
    std::string package = signedBy(pki->developer(), "p.rpm");
    auto wrong = db({"install", "tool", package});
    EXPECT_EQ(wrong.exitCode, 1);
    EXPECT_EQ(wrong.errors, "sealkeep: " + package +
                                ": its header names the package cli-demo, not tool (give --other-name to record it "
                                "under another name)\n");
    EXPECT_EQ(wrong.output, "");
    auto check = db({"check", "tool", package});
    EXPECT_EQ(check.exitCode, 1);
    EXPECT_EQ(check.errors, wrong.errors);

    auto same = db({"install", "cli-demo", package});
    EXPECT_EQ(same.exitCode, 0) << same.errors;
    auto meant = db({"install", "tool", package, "--other-name"});
    EXPECT_EQ(meant.exitCode, 0) << meant.errors;
    EXPECT_EQ(device.query("SELECT DISTINCT id FROM packages ORDER BY id"), "cli-demo\ntool\n");
}

// A signed file that is no RPM package has no name of its own: it needs one.
TEST_F(CliDeviceDb, AFileWithoutAHeaderNeedsAName)
{
    ASSERT_EQ(db({"install", signedBy(pki->developer(), "p.rpm")}).exitCode, 0);
    std::string blob = work.file("blob");
    writeText(blob, "not a package, but signed all the same\n");
    ASSERT_EQ(signAs(pki->developer(), blob).exitCode, 0);
    auto unnamed = db({"check", blob});
    EXPECT_EQ(unnamed.exitCode, 1);
    EXPECT_EQ(unnamed.errors,
              "sealkeep: " + blob + ": no package name: it has no RPM header to take one from; give NAME\n");
    auto named = db({"check", "blob", blob});
    EXPECT_EQ(named.exitCode, 0) << named.errors;
    EXPECT_EQ(named.output, "blob: accepted (signer " + keyIdOf(pki->developer()) + ")\n");
}

// Installers and readers on one device database at once: a lock held by
// another process is waited for, never taken for a damaged file. Three
// processes install, one checks and one lists, 25 rounds each; a failure is
// only ever the busy refusal that follows the wait.
TEST_F(CliDeviceDb, ProcessesSharingTheDatabaseWaitForEachOther)
{
    std::string package = signedBy(pki->developer(), "p.rpm");
    ASSERT_EQ(db({"install", package}).exitCode, 0);
    std::vector<std::vector<std::string>> roles = {{"install", package}, {"install", "other", package, "--other-name"},
                                                   {"install", "third", package, "--other-name"}, {"check", package},
                                                   {"list"}};
    std::string script;
    std::vector<std::string> logs;
    for (std::size_t p = 0; p < roles.size(); ++p) {
        std::vector<std::string> args = {"db"};
        args.insert(args.end(), roles[p].begin(), roles[p].end());
        args.insert(args.end(), {"--conf", device.conf()});
        logs.push_back(work.file("process-" + std::to_string(p) + ".log"));
        script += "( for round in $(seq 25); do " + sealkeepCommandLine(args) + " >/dev/null 2>>" +
                  shellQuoted(logs.back()) + " || echo \"exit $?\" >>" + shellQuoted(logs.back()) + "; done ) & ";
    }
    ASSERT_EQ(runShell("cd " + shellQuoted(work.path()) + " && " + script + "wait").exitCode, 0);
    const std::string busy = "sealkeep: " + device.database() + ": the database is busy: another process kept it "
                             "locked for 5 seconds; try again";
    for (std::size_t p = 0; p < roles.size(); ++p) {
        SCOPED_TRACE(roles[p][0]);
        std::string log = fileExists(logs[p]) ? readText(logs[p]) : "";
        EXPECT_EQ(log.find("not an SQLite database"), std::string::npos) << log;
        std::istringstream lines(log);
        for (std::string line; std::getline(lines, line);)
            EXPECT_TRUE(line == busy || line.rfind("Database is busy: ", 0) == 0 || line.rfind("exit 1", 0) == 0)
                << line;
    }
    EXPECT_EQ(device.query("SELECT DISTINCT id FROM packages ORDER BY id"), "cli-demo\nother\nthird\n");
}

// The database file is looked at before SQLite opens it: a FIFO in its
// place would make every subcommand wait for ever.
TEST_F(CliDeviceDb, ADatabaseThatIsNoRegularFileIsRefused)
{
    ASSERT_EQ(mkfifo(device.database().c_str(), 0600), 0);
    std::string package = signedBy(pki->developer(), "p.rpm");
    for (auto const& command : std::vector<std::vector<std::string>>{{"status"}, {"install", package}}) {
        std::vector<std::string> args = {"db"};
        args.insert(args.end(), command.begin(), command.end());
        args.insert(args.end(), {"--conf", device.conf()});
        auto result = runSealkeepWithin(20, work.path(), args);
        EXPECT_EQ(result.exitCode, 1) << command[0];
        EXPECT_EQ(result.errors, "sealkeep: " + device.database() + ": cannot open the database: not a regular file\n");
    }
}

}  // namespace
}  // namespace sealkeep::test
