// A device through a life, as its installer drives the library: real RPM
// packages signed by the test CA's developers (one of them rotating its key)
// and seclab, verified, admitted or refused by the trust database, recorded,
// revoked through the revocation file, developer mode switched on and off,
// and the package removed at last.
#include <gtest/gtest.h>

#include <memory>
#include <stdexcept>
#include <string>
#include <vector>

#include <sealkeep/database.hpp>
#include <sealkeep/file_with_cmses.hpp>

#include "support/database_fixture.hpp"
#include "support/files.hpp"
#include "support/package_signatures.hpp"
#include "support/rotating_keys.hpp"
#include "support/rpm_builder.hpp"
#include "support/signing.hpp"

namespace sealkeep::test {
namespace {

using PackageSignatures::Certificate;
using PackageSignatures::Cms;
using PackageSignatures::Database;
using PackageSignatures::FileWithCmses;
using PackageSignatures::Group;

class DeviceLife : public RotatingKeysTest {
protected:
    // A copy of the built package signed by developer (with chain) and then
    // by seclab, as a build service hands it out.
    std::string release(std::string const& name, Identity const& developer,
                        ProofOfRotationChain* chain = nullptr)
    {
        const std::string path = files.file(name + ".rpm");
        writeFile(path, readFile(built));
        SignOptions options = framed();
        options.chain = chain;
        if (!signFile(path, developer, options) || !signFile(path, pki->seclab(), framed()))
            throw std::runtime_error("cannot sign " + path);
        return path;
    }

    // What the installer does with a file: verify its signatures, ask for
    // admission, and record the package when it is admitted.
    int install(std::string const& package, std::string const& path)
    {
        auto file = FileWithCmses::fromPath(path.c_str(), "r");
        if (!file || !file->verifyCmses(pki->ca().certPath.c_str()))
            return -1;
        const std::vector<Cms> signatures = file->cmses();
        const int decision = database->checkPackage(package, signatures, false);
        if (decision == PackageSignatures::Accepted && !database->insertPackage(package, signatures))
            return -2;
        return decision;
    }

    std::string installedDeveloper(std::string const& package)
    {
        std::optional<Certificate> developer =
            database->packageCertificateWithGroup(package, Group::Developer);
        return developer ? developer->keyId() : "";
    }

    TrustFiles files;
    std::string built;
    std::unique_ptr<Database> database;
};

TEST_F(DeviceLife, InstallUpdateRotateRevokeAndRemove)
{
    // Key d is revoked on bind: in force outside developer mode only.
    files.writeRevocation({}, {{keyid('d'), "blacklisted"}});
    files.writeRuntimeMode("false");
    database = std::make_unique<Database>(files.databasePath(), files.confPath());
    ASSERT_EQ(Database::Blacklisted, database->getKeyidRevocationStatus(keyid('d')));
    built = buildRpm(files.file("build"), "hello",
                     {regularFile("/usr/share/hello/greeting", "hello, device\n")});

    // Installed from developer a, then updated by a.
    EXPECT_EQ(PackageSignatures::Accepted, install("hello", release("hello-1", identity('a'))));
    EXPECT_EQ(std::vector<std::string>{"hello"}, database->packages());
    EXPECT_EQ(keyid('a'), installedDeveloper("hello"));
    EXPECT_EQ(PackageSignatures::Accepted, install("hello", release("hello-2", identity('a'))));
    EXPECT_EQ(2u, database->packageCertificates("hello").size());

    // Developer b may not take the package over.
    EXPECT_EQ(PackageSignatures::DeveloperMismatch,
              install("hello", release("hello-3-b", identity('b'))));
    EXPECT_EQ(keyid('a'), installedDeveloper("hello"));

    // Unless a rotated to b and b's signature proves it; a is then superseded.
    ChainPtr rotation = writeRotationChain(files.file("a-to-b.chain"), {{identity('a'), identity('b')}});
    const std::string rotated = release("hello-3", identity('b'), rotation.get());
    EXPECT_EQ(Database::NotRevoked, database->getKeyidRevocationStatus(keyid('a')));
    EXPECT_EQ(PackageSignatures::Accepted, install("hello", rotated));
    EXPECT_EQ(keyid('b'), installedDeveloper("hello"));
    EXPECT_EQ(Database::Superseded, database->getKeyidRevocationStatus(keyid('a')));
    EXPECT_EQ(PackageSignatures::KeySuperseded, install("hello", release("hello-old", identity('a'))));
    EXPECT_EQ(PackageSignatures::Accepted, install("hello", rotated));

    // a is found compromised: blacklisting it through the revocation file
    // refuses everything that descends from it.
    files.writeRevocation({{keyid('a'), "blacklisted"}}, {{keyid('d'), "blacklisted"}});
    EXPECT_TRUE(database->updateRevokedKeyids());
    EXPECT_EQ(Database::Blacklisted, database->getKeyidRevocationStatus(keyid('a')));
    EXPECT_EQ(PackageSignatures::KeyBlacklisted, install("hello", rotated));
    EXPECT_EQ(PackageSignatures::KeyBlacklisted, install("fresh", rotated));
    EXPECT_EQ(PackageSignatures::Accepted, install("hello", release("hello-4", identity('b'))));

    // Developer mode lifts the revoke-on-bind keys and only those.
    const std::string fromD = release("tool", identity('d'));
    EXPECT_EQ(PackageSignatures::KeyBlacklisted, install("tool", fromD));
    files.writeRuntimeMode("true");
    EXPECT_TRUE(database->updateRevokedKeyids());
    EXPECT_EQ(Database::NotRevoked, database->getKeyidRevocationStatus(keyid('d')));
    EXPECT_EQ(Database::Blacklisted, database->getKeyidRevocationStatus(keyid('a')));
    EXPECT_EQ(PackageSignatures::Accepted, install("tool", fromD));
    files.writeRuntimeMode("false");
    EXPECT_TRUE(database->updateRevokedKeyids());
    EXPECT_EQ(Database::Blacklisted, database->getKeyidRevocationStatus(keyid('d')));
    EXPECT_EQ(PackageSignatures::KeyBlacklisted, install("tool", fromD));

    // Removed, the package may come from anyone again.
    EXPECT_TRUE(database->removePackage("hello"));
    EXPECT_FALSE(database->packageExists("hello"));
    EXPECT_EQ(std::vector<std::string>{"tool"}, database->packages());
    EXPECT_EQ(0, database->certificateReferences(
                     Certificate::readCertificateFromFile(identity('b').certPath.c_str())));
    EXPECT_EQ(PackageSignatures::Accepted, install("hello", release("hello-c", identity('c'))));

    // Everything was written through: a new connection sees the same.
    Database reopened(files.databasePath(), files.confPath());
    EXPECT_EQ(keyid('c'), reopened.packageCertificateWithGroup("hello", Group::Developer)->keyId());
    EXPECT_EQ(Database::Blacklisted, reopened.getKeyidRevocationStatus(keyid('a')));
}

}  // namespace
}  // namespace sealkeep::test
