// sealkeep ca init / ca issue / rotate / rotation show, and the command's
// usage, help and version.
#include <algorithm>
#include <cstdio>
#include <memory>
#include <string>
#include <vector>

#include <dirent.h>
#include <sys/stat.h>
#include <unistd.h>

#include <gtest/gtest.h>
#include <nlohmann/json.hpp>

#include <sealkeep/certificate.hpp>

#include "support/cli_test.hpp"

namespace sealkeep::test {
namespace {

using nlohmann::json;
using PackageSignatures::Certificate;
using PackageSignatures::Group;
using PackageSignatures::Subgroup;

// What the command says of a key file that holds no key.
const std::string garbageKeyLine = "sealkeep: --key garbage.key: holds no PEM private key this command can read\n";

class CliCa : public CliTest {
protected:
    // A request for a fresh key in the working directory.
    std::string request(std::string const& name)
    {
        generateKey(work.file(name + ".key"));
        writeRequest(work.file(name + ".key"), work.file(name + ".csr"), name);
        return name + ".csr";
    }

    CommandResult issue(std::string const& out, std::string const& csr, std::string const& group)
    {
        return run({"ca", "issue", out, "--csr", csr, "--ca-key", pki->ca().keyPath, "--ca-cert",
                    pki->ca().certPath, "--group", group});
    }

    std::string keyIdOf(std::string const& certPath)
    {
        return Certificate::readCertificateFromFile(certPath.c_str()).keyId();
    }

    // The names in the working directory, hidden ones included.
    std::vector<std::string> workFiles() const
    {
        std::vector<std::string> names;
        struct CloseDir {
            void operator()(DIR* dir) const { closedir(dir); }
        };
        std::unique_ptr<DIR, CloseDir> dir(opendir(work.path().c_str()));
        while (dirent* entry = readdir(dir.get())) {
            std::string name = entry->d_name;
            if (name != "." && name != "..")
                names.push_back(name);
        }
        std::sort(names.begin(), names.end());
        return names;
    }

    static unsigned permissionsOf(std::string const& path)
    {
        struct stat status {};
        stat(path.c_str(), &status);
        return status.st_mode & 07777;
    }
};

TEST_F(CliCa, InitMakesASelfSignedCa)
{
    generateKey(work.file("ca.key"));
    auto result = run({"ca", "init", "ca.pem", "--key", "ca.key", "--cn", "Command CA"});
    EXPECT_EQ(result.exitCode, 0) << result.errors;
    EXPECT_EQ(result.output, "ca.pem: CA certificate for \"Command CA\"\n");
    Certificate ca = Certificate::readCertificateFromFile(work.file("ca.pem").c_str());
    EXPECT_EQ(ca.subject(), "Command CA");
    EXPECT_TRUE(ca.verify(work.file("ca.pem").c_str()));
}

TEST_F(CliCa, InitRefusesAMissingKeyAndLeavesNoFile)
{
    auto result = run({"ca", "init", "ca.pem", "--key", "missing.key", "--cn", "Command CA"});
    EXPECT_EQ(result.exitCode, 1);
    EXPECT_EQ(result.errors, "sealkeep: --key missing.key: cannot read the private key: No such file or directory\n");
    EXPECT_FALSE(fileExists(work.file("ca.pem")));

    writeText(work.file("garbage.key"), "not a key\n");
    auto garbage = run({"ca", "init", "ca.pem", "--key", "garbage.key", "--cn", "Command CA"});
    EXPECT_EQ(garbage.exitCode, 1);
    EXPECT_EQ(garbage.errors, garbageKeyLine);
    EXPECT_FALSE(fileExists(work.file("ca.pem")));
}

// An existing certificate must survive a key that does not read, even when
// it is to be replaced.
TEST_F(CliCa, InitLeavesAnExistingCertificateAsItWas)
{
    writeText(work.file("ca.pem"), "the CA certificate in use\n");
    writeText(work.file("garbage.key"), "not a key\n");
    auto files = workFiles();
    auto result = run({"ca", "init", "ca.pem", "--key", "garbage.key", "--cn", "Command CA", "--force"});
    EXPECT_EQ(result.exitCode, 1);
    EXPECT_EQ(result.errors, garbageKeyLine);
    EXPECT_EQ(readText(work.file("ca.pem")), "the CA certificate in use\n");
    EXPECT_EQ(workFiles(), files);
}

// Replacing a file keeps its permissions; a new one gets what the umask
// leaves, as if created in place.
TEST_F(CliCa, InitReplacesAFileKeepingItsPermissions)
{
    generateKey(work.file("ca.key"));
    writeText(work.file("ca.pem"), "an old certificate\n");
    ASSERT_EQ(chmod(work.file("ca.pem").c_str(), 0640), 0);
    auto result = run({"ca", "init", "ca.pem", "--key", "ca.key", "--cn", "Command CA", "--force"});
    EXPECT_EQ(result.exitCode, 0) << result.errors;
    EXPECT_EQ(Certificate::readCertificateFromFile(work.file("ca.pem").c_str()).subject(), "Command CA");
    EXPECT_EQ(permissionsOf(work.file("ca.pem")), 0640u);

    auto fresh = runShell("cd " + shellQuoted(work.path()) + " && umask 027 && exec " + shellQuoted(SEALKEEP_CLI) +
                          " ca init new.pem --key ca.key --cn 'Command CA'");
    EXPECT_EQ(fresh.exitCode, 0) << fresh.errors;
    EXPECT_EQ(permissionsOf(work.file("new.pem")), 0640u);
}

// A write cut short (here by a file size limit, as by a full disk) leaves
// the certificate and the chain that were there.
TEST_F(CliCa, AWriteCutShortLeavesTheFormerOutputs)
{
    std::string csr = request("limited");
    ASSERT_EQ(issue("signer.pem", csr, "developer").exitCode, 0);
    Bytes certificate = readFile(work.file("signer.pem"));
    auto files = workFiles();
    auto issued = runSealkeepWithFileSizeLimit(200, work.path(),
                                               {"ca", "issue", "signer.pem", "--csr", csr, "--ca-key",
                                                pki->ca().keyPath, "--ca-cert", pki->ca().certPath, "--group",
                                                "seclab", "--force"});
    EXPECT_EQ(issued.exitCode, 1);
    EXPECT_EQ(issued.errors, "Could not save resulting certificate file\nsealkeep: signer.pem: certificate not issued\n");
    EXPECT_EQ(readFile(work.file("signer.pem")), certificate);
    EXPECT_EQ(workFiles(), files);

    Identity a = pki->issue("limited-a", "developer");
    Identity b = pki->issue("limited-b", "developer");
    Identity c = pki->issue("limited-c", "developer");
    ASSERT_EQ(run({"rotate", "chain.pem", "--old-cert", a.certPath, "--old-key", a.keyPath, "--new-cert", b.certPath,
                   "--new-key", b.keyPath})
                  .exitCode,
              0);
    Bytes chain = readFile(work.file("chain.pem"));
    files = workFiles();
    auto appended = runSealkeepWithFileSizeLimit(200, work.path(),
                                                 {"rotate", "chain.pem", "--append", "--old-cert", b.certPath,
                                                  "--old-key", b.keyPath, "--new-cert", c.certPath, "--new-key",
                                                  c.keyPath});
    EXPECT_EQ(appended.exitCode, 1);
    EXPECT_EQ(appended.errors, "sealkeep: chain.pem: rotation not recorded: File too large\n");
    EXPECT_EQ(readFile(work.file("chain.pem")), chain);
    EXPECT_EQ(workFiles(), files);
}

TEST_F(CliCa, IssueWritesACertificateOfTheGroup)
{
    std::string csr = request("mdm-signer");
    auto result = issue("signer.pem", csr, "seclab:mdm");
    EXPECT_EQ(result.exitCode, 0) << result.errors;
    Certificate signer = Certificate::readCertificateFromFile(work.file("signer.pem").c_str());
    EXPECT_EQ(signer.group(), Group::Seclab);
    EXPECT_EQ(signer.subgroup(), Subgroup::Mdm);
    EXPECT_EQ(result.output,
              "signer.pem: seclab:mdm certificate for \"mdm-signer\", key id " + signer.keyId() + "\n");
    EXPECT_TRUE(signer.verify(pki->ca().certPath.c_str()));
}

TEST_F(CliCa, IssueChecksTheGroupBeforeWritingAnything)
{
    std::string csr = request("refused");
    struct Case {
        std::string group, message;
    } cases[] = {
        {"vip", "unknown group in \"vip\" (expected developer, seclab or client)"},
        {"Developer", "unknown group in \"Developer\" (expected developer, seclab or client)"},
        {"client:vip", "unknown subgroup in \"client:vip\" (leave it out for a regular signer)"},
        {"developer:regular", "unknown subgroup in \"developer:regular\" (leave it out for a regular signer)"},
    };
    for (auto const& c : cases) {
        auto result = issue("out.pem", csr, c.group);
        EXPECT_EQ(result.exitCode, 1) << c.group;
        EXPECT_EQ(result.errors, "sealkeep: out.pem: " + c.message + "\n");
        EXPECT_FALSE(fileExists(work.file("out.pem"))) << c.group;
    }
    auto trailing = issue("out.pem", csr, "developer:");
    EXPECT_EQ(trailing.exitCode, 1);
    EXPECT_FALSE(fileExists(work.file("out.pem")));
    auto missingGroup = run({"ca", "issue", "out.pem", "--csr", csr, "--ca-key", pki->ca().keyPath, "--ca-cert",
                             pki->ca().certPath});
    EXPECT_EQ(missingGroup.exitCode, 2);
}

TEST_F(CliCa, IssueReportsALibraryFailureNamingTheOutput)
{
    auto result = issue("out.pem", "missing.csr", "developer");
    EXPECT_EQ(result.exitCode, 1);
    EXPECT_EQ(result.errors, "Could not open CSR file: No such file or directory\n"
                             "sealkeep: out.pem: certificate not issued\n");
    EXPECT_FALSE(fileExists(work.file("out.pem")));
}

TEST_F(CliCa, RotateMakesAndExtendsAChain)
{
    Identity a = pki->issue("rotate-a", "developer");
    Identity b = pki->issue("rotate-b", "developer");
    Identity c = pki->issue("rotate-c", "developer");
    auto first = run({"rotate", "chain.pem", "--old-cert", a.certPath, "--old-key", a.keyPath, "--new-cert",
                      b.certPath, "--new-key", b.keyPath});
    EXPECT_EQ(first.exitCode, 0) << first.errors;
    EXPECT_EQ(first.output, "chain.pem: 1 rotation, newest key " + keyIdOf(b.certPath) + "\n");

    auto again = run({"rotate", "chain.pem", "--old-cert", b.certPath, "--old-key", b.keyPath, "--new-cert",
                      c.certPath, "--new-key", c.keyPath});
    EXPECT_EQ(again.exitCode, 1);
    EXPECT_EQ(again.errors, "sealkeep: chain.pem: already exists (use --append to add a rotation to it)\n");

    auto appended = run({"rotate", "chain.pem", "--append", "--old-cert", b.certPath, "--old-key", b.keyPath,
                         "--new-cert", c.certPath, "--new-key", c.keyPath});
    EXPECT_EQ(appended.exitCode, 0) << appended.errors;
    EXPECT_EQ(appended.output, "chain.pem: 2 rotations, newest key " + keyIdOf(c.certPath) + "\n");

    auto shown = run({"rotation", "show", "chain.pem", "--json"});
    EXPECT_EQ(shown.exitCode, 0) << shown.errors;
    json chain = json::parse(shown.output);
    EXPECT_EQ(chain["ok"], true);
    EXPECT_EQ(chain["path"], "chain.pem");
    EXPECT_EQ(chain["schemaVersion"], 1);
    ASSERT_EQ(chain["rotations"].size(), 2u);
    EXPECT_EQ(chain["rotations"][0]["old"], json({{"subject", "rotate-a"}, {"keyId", keyIdOf(a.certPath)}}));
    EXPECT_EQ(chain["rotations"][1]["new"], json({{"subject", "rotate-c"}, {"keyId", keyIdOf(c.certPath)}}));

    auto text = run({"rotation", "show", "chain.pem"});
    EXPECT_EQ(text.exitCode, 0);
    EXPECT_EQ(text.output, "chain.pem: 2 rotations, every proof verifies\n"
                           "  1: \"rotate-a\" " + keyIdOf(a.certPath) + " -> \"rotate-b\" " + keyIdOf(b.certPath) +
                               "\n"
                               "  2: \"rotate-b\" " + keyIdOf(b.certPath) + " -> \"rotate-c\" " +
                               keyIdOf(c.certPath) + "\n");
}

TEST_F(CliCa, RotateRefusals)
{
    Identity a = pki->issue("refuse-a", "developer");
    Identity b = pki->issue("refuse-b", "developer");
    auto noChain = run({"rotate", "chain.pem", "--append", "--old-cert", a.certPath, "--old-key", a.keyPath,
                        "--new-cert", b.certPath, "--new-key", b.keyPath});
    EXPECT_EQ(noChain.exitCode, 1);
    EXPECT_EQ(noChain.errors, "sealkeep: chain.pem: cannot append to the chain: No such file or directory\n");

    // The old key does not belong to the old certificate: no proof is made.
    auto wrongKey = run({"rotate", "chain.pem", "--old-cert", a.certPath, "--old-key", b.keyPath, "--new-cert",
                         b.certPath, "--new-key", b.keyPath});
    EXPECT_EQ(wrongKey.exitCode, 1);
    EXPECT_EQ(wrongKey.errors, "sealkeep: --old-key " + b.keyPath + ": not the key of the certificate given with "
                               "--old-cert " + a.certPath + "\n");
    EXPECT_FALSE(fileExists(work.file("chain.pem")));

    auto missing = run({"rotation", "show", "missing.pem"});
    EXPECT_EQ(missing.exitCode, 1);
    EXPECT_NE(missing.errors.find("sealkeep: missing.pem: cannot read the rotation chain\n"), std::string::npos);
    EXPECT_EQ(run({"rotation"}).exitCode, 2);
}

// A chain file of 300 MB is refused by its size, at once and in little
// memory, by both commands that read one.
TEST_F(CliCa, AHugeChainFileIsRefusedByItsSize)
{
    Identity a = pki->issue("huge-a", "developer");
    Identity b = pki->issue("huge-b", "developer");
    std::string path = work.file("huge.pem");
    writeText(path, "-----BEGIN PROOF OF ROTATION CHAIN-----\n");
    ASSERT_EQ(truncate(path.c_str(), 300L << 20), 0);
    std::string limit = "Proof-of-rotation chain of " + std::to_string(300L << 20) +
                        " bytes, more than the limit of 1048576 bytes\n";
    std::string measures = work.file("measures");
    for (auto const& args : std::vector<std::vector<std::string>>{
             {"rotation", "show", path},
             {"rotate", path, "--append", "--old-cert", a.certPath, "--old-key", a.keyPath, "--new-cert", b.certPath,
              "--new-key", b.keyPath}}) {
        SCOPED_TRACE(args[0]);
        auto result = runShell("/usr/bin/time -o " + shellQuoted(measures) + " -f '%e %M' " + sealkeepCommandLine(args));
        EXPECT_EQ(result.exitCode, 1);
        EXPECT_EQ(result.errors.rfind(limit, 0), 0u) << result.errors;
        double seconds = 0;
        long peakKib = 0;
        // time's last line; a line about the exit status may come first.
        std::string measured = readText(measures);
        std::size_t last = measured.rfind('\n', measured.size() - 2);
        measured = last == std::string::npos ? measured : measured.substr(last + 1);
        ASSERT_EQ(std::sscanf(measured.c_str(), "%lf %ld", &seconds, &peakKib), 2) << readText(measures);
        EXPECT_LT(seconds, 1.0);
        EXPECT_LT(peakKib, 64 * 1024);
    }
    EXPECT_EQ(fileSize(path), 300L << 20);
}

// ---------------------------------------------------------------------------
// Usage

TEST_F(CliCa, VersionAndHelp)
{
    auto version = run({"--version"});
    EXPECT_EQ(version.exitCode, 0);
    EXPECT_EQ(version.output.rfind("sealkeep " SEALKEEP_TEST_VERSION "\nOpenSSL ", 0), 0u) << version.output;
    for (auto const& words : std::vector<std::vector<std::string>>{{"sign"},
                                                                    {"verify"},
                                                                    {"inspect"},
                                                                    {"strip"},
                                                                    {"ca", "init"},
                                                                    {"ca", "issue"},
                                                                    {"rotate"},
                                                                    {"rotation", "show"}}) {
        std::vector<std::string> args = words;
        args.push_back("--help");
        auto help = run(args);
        std::string usage = "Usage: sealkeep " + words[0] + (words.size() > 1 ? " " + words[1] : "") + " [OPTIONS]";
        EXPECT_EQ(help.exitCode, 0) << usage;
        EXPECT_NE(help.output.find(usage), std::string::npos) << help.output;
    }
}

TEST_F(CliCa, BadUsageExitsWithTwo)
{
    auto none = run({});
    EXPECT_EQ(none.exitCode, 2);
    EXPECT_EQ(none.errors, "sealkeep: A subcommand is required (see --help)\n");
    auto unknown = run({"frobnicate"});
    EXPECT_EQ(unknown.exitCode, 2);
    EXPECT_EQ(unknown.errors, "sealkeep: unknown subcommand \"frobnicate\"; the subcommands are: sign, prepare, "
                              "sign-request, attach, verify, inspect, strip, ca, rotate, rotation, db, ima, help "
                              "(see --help)\n");
    auto unknownBelow = run({"ca", "sign"});
    EXPECT_EQ(unknownBelow.exitCode, 2);
    EXPECT_EQ(unknownBelow.errors,
              "sealkeep: unknown subcommand \"sign\"; the subcommands are: init, issue (see --help)\n");
    EXPECT_EQ(run({"ca"}).exitCode, 2);
    EXPECT_EQ(run({"inspect"}).exitCode, 2);
}

}  // namespace
}  // namespace sealkeep::test
