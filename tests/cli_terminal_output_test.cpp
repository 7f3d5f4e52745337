// Text that came from a file never reaches the terminal as control
// characters: a certificate subject holding ESC, BEL and a newline (from
// the test CA, and from a self-made certificate appended to a package) and
// a payload file name holding them print escaped in the text output of
// every subcommand, and `ca issue` refuses such a subject. Standard output
// and standard error hold no byte below 0x20 other than the newline that
// ends a line.
#include <algorithm>
#include <string>
#include <vector>

#include <openssl/obj_mac.h>
#include <openssl/x509.h>

#include <gtest/gtest.h>

#include <sealkeep/sealkeep.hpp>

#include "support/cli_test.hpp"
#include "support/device_root.hpp"
#include "support/pki.hpp"
#include "support/rpm_surgery.hpp"

namespace sealkeep::test {
namespace {

// A subject that would clear the screen, ring the bell and forge a line.
const std::string hostileName = "evil\x1b[2J\x07\nblock 2: verified";
const std::string hostileShown = "evil\\x1b[2J\\x07\\nblock 2: verified";
// A payload name that would set the window title and forge a line; rpmbuild
// refuses control characters in file names, so the header is given them
// after the build, in place of a placeholder of the same length.
const std::string payloadDir = "/usr/share/hostile/";
const std::string hostileFile = "f\x1b]0;pwned\x07\nforged";
const std::string hostileFileShown = "f\\x1b]0;pwned\\x07\\nforged";
const std::string placeholderFile = "f" + std::string(hostileFile.size() - 1, 'Z');

// Every byte below 0x20 (and DEL) that is not the newline ending a line.
std::string controlsIn(std::string const& text)
{
    std::string found;
    for (unsigned char c : text)
        if ((c < 0x20 && c != '\n') || c == 0x7f)
            found += "\\x" + std::string(1, "0123456789abcdef"[c >> 4]) + "0123456789abcdef"[c & 15];
    return found;
}

class CliTerminalOutput : public CliTest {
protected:
    static void SetUpTestSuite()
    {
        CliTest::SetUpTestSuite();
        hostile = pki->issueNamed("hostile", hostileName);
        hostilePackage = buildHostilePackage();
    }

    // bytes with the placeholder name replaced by the hostile one.
    static void rename(Bytes& bytes, std::string const& what)
    {
        auto at = std::search(bytes.begin(), bytes.end(), placeholderFile.begin(), placeholderFile.end());
        if (at == bytes.end())
            throw std::runtime_error("the placeholder name is not in the " + what);
        std::copy(hostileFile.begin(), hostileFile.end(), at);
    }

    // A package whose one file carries the hostile name, in its header and in
    // its (zstd) payload alike.
    static std::string buildHostilePackage()
    {
        std::string built = buildRpm(rpmDir->path(), "cli-hostile", {regularFile(payloadDir + placeholderFile, "x\n")});
        RpmParts parts = splitRpm(readFile(built));
        rename(parts.header, "header");
        std::string archive = rpmDir->file("payload");
        writeFile(archive + ".zst", parts.payload);
        if (runCommand({"zstd", "-q", "-d", "-f", archive + ".zst", "-o", archive}).exitCode != 0)
            throw std::runtime_error("cannot decompress the payload");
        Bytes cpio = readFile(archive);
        rename(cpio, "payload");
        writeFile(archive, cpio);
        if (runCommand({"zstd", "-q", "-f", archive, "-o", archive + ".zst"}).exitCode != 0)
            throw std::runtime_error("cannot compress the payload");
        parts.payload = readFile(archive + ".zst");
        std::string path = rpmDir->file("cli-hostile.rpm");
        writeFile(path, joinRpm(parts));
        return path;
    }

    // A self-made certificate (signed by its own key) for the hostile name,
    // of the client group, as anyone may append to a package.
    Identity selfMade() const
    {
        Identity who{work.file("self.key"), work.file("self.pem")};
        generateKey(who.keyPath);
        PkeyPtr key = loadKey(who.keyPath);
        X509Ptr cert = makeBareCertificate(key.get(), hostileName);
        addExtension(cert.get(), NID_key_usage, "critical,digitalSignature");
        addExtension(cert.get(), NID_subject_key_identifier, "hash");
        addExtension(cert.get(), NID_ext_key_usage, "critical,emailProtection,packageSigning");
        addGroupExtension(cert.get(), "client");
        signCertificate(cert.get(), key.get());
        saveCertificate(cert.get(), who.certPath);
        return who;
    }

    // Runs the subcommand and checks that nothing it printed holds a control
    // character.
    CommandResult checked(std::vector<std::string> const& args, int exitCode = 0)
    {
        auto result = run(args);
        std::string words;
        for (auto const& arg : args)
            words += " " + arg;
        EXPECT_EQ(result.exitCode, exitCode) << words << "\n" << result.errors;
        EXPECT_EQ(controlsIn(result.output), "") << words << " printed:\n" << result.output;
        EXPECT_EQ(controlsIn(result.errors), "") << words << " reported:\n" << result.errors;
        return result;
    }

    static bool holdsLine(std::string const& text, std::string const& line)
    {
        return ("\n" + text).find("\n" + line + "\n") != std::string::npos;
    }

    static inline Identity hostile;
    static inline std::string hostilePackage;
};

TEST_F(CliTerminalOutput, CaIssueRefusesASubjectWithControlCharacters)
{
    generateKey(work.file("request.key"));
    writeRequest(work.file("request.key"), work.file("request.csr"), hostileName);
    auto issued = checked({"ca", "issue", "out.pem", "--csr", "request.csr", "--ca-key", pki->ca().keyPath,
                           "--ca-cert", pki->ca().certPath, "--group", "developer"},
                          1);
    EXPECT_EQ(issued.output, "");
    EXPECT_EQ(issued.errors, "sealkeep: out.pem: certificate not issued: the request's subject holds control "
                             "characters: \"" + hostileShown + "\"\n");
    EXPECT_FALSE(fileExists(work.file("out.pem")));

    auto init = checked({"ca", "init", "ca.pem", "--key", "request.key", "--cn", hostileName}, 1);
    EXPECT_EQ(init.errors, "sealkeep: ca.pem: CA certificate not issued: the common name holds control "
                           "characters: \"" + hostileShown + "\"\n");
    EXPECT_FALSE(fileExists(work.file("ca.pem")));

    // An ordinary subject is still issued.
    writeRequest(work.file("request.key"), work.file("plain.csr"), "Developer One");
    checked({"ca", "issue", "plain.pem", "--csr", "plain.csr", "--ca-key", pki->ca().keyPath, "--ca-cert",
             pki->ca().certPath, "--group", "developer"});
}

TEST_F(CliTerminalOutput, HostileSubjectsAndNamesPrintEscapedEverywhere)
{
    std::string package = work.file("hostile.rpm");
    writeFile(package, readFile(hostilePackage));
    auto signing = checked({"sign", package, "--cert", hostile.certPath, "--key", hostile.keyPath});
    EXPECT_EQ(signing.output, package + ": signed as developer (1 signature)\n");

    auto inspected = checked({"inspect", package, "--files"});
    EXPECT_TRUE(holdsLine(inspected.output, "  signer: \"" + hostileShown + "\" developer:regular"))
        << inspected.output;
    EXPECT_NE(inspected.output.find("    " + payloadDir + hostileFileShown + ": "), std::string::npos)
        << inspected.output;
    checked({"verify", package, "--ca", pki->ca().certPath});

    // The files installed under a root, labelled.
    std::string root = work.file("root");
    runShell("mkdir -p " + shellQuoted(root + payloadDir));
    writeText(root + payloadDir + hostileFile, "x\n");
    auto dryRun = checked({"ima", "apply", package, "--root", root, "--ca", pki->ca().certPath, "--xattr-user",
                           "--dry-run"});
    EXPECT_EQ(dryRun.output.rfind(root + payloadDir + hostileFileShown + ": would set user.ima (", 0), 0u)
        << dryRun.output;
    auto applied = checked({"ima", "apply", package, "--root", root, "--ca", pki->ca().certPath, "--xattr-user"});
    EXPECT_TRUE(holdsLine(applied.output, root + payloadDir + hostileFileShown + ": user.ima set")) << applied.output;
    writeText(root + payloadDir + hostileFile, "y\n");
    auto refused = checked({"ima", "apply", package, "--root", root, "--ca", pki->ca().certPath, "--xattr-user"}, 1);
    EXPECT_EQ(refused.errors, "sealkeep: " + root + payloadDir + hostileFileShown + ": changed since it was signed\n");

    // The device's database shows the signer's subject.
    DeviceRoot device(pki->ca().certPath);
    auto db = [&](std::vector<std::string> args, int exitCode = 0) {
        args.insert(args.begin(), "db");
        args.insert(args.end(), {"--conf", device.conf()});
        return checked(args, exitCode);
    };
    db({"install", package});
    std::string keyId = PackageSignatures::Certificate::readCertificateFromFile(hostile.certPath.c_str()).keyId();
    auto listed = db({"list"});
    EXPECT_EQ(listed.output, "cli-hostile\n  developer " + keyId + " " + hostileShown + "\n");
    auto certificates = db({"certificates"});
    EXPECT_EQ(certificates.output, "developer " + keyId + " " + hostileShown + "\n");
    db({"check", package});
    db({"status"});

    // A rotation from the hostile signer's key to another.
    Identity successor = pki->issue("hostile-successor", "developer");
    checked({"rotate", "chain.pem", "--old-cert", hostile.certPath, "--old-key", hostile.keyPath, "--new-cert",
             successor.certPath, "--new-key", successor.keyPath});
    auto shown = checked({"rotation", "show", "chain.pem"});
    EXPECT_TRUE(holdsLine(shown.output, "  1: \"" + hostileShown + "\" " + keyId + " -> \"hostile-successor\" " +
                                            PackageSignatures::Certificate::readCertificateFromFile(
                                                successor.certPath.c_str())
                                                .keyId()))
        << shown.output;
    checked({"strip", package, "--last"});
}

TEST_F(CliTerminalOutput, ASelfMadeCertificateAppendedPrintsEscaped)
{
    std::string package = freshPackage();
    ASSERT_EQ(signAs(pki->developer(), package).exitCode, 0);
    Identity self = selfMade();
    auto appended = checked({"sign", package, "--cert", self.certPath, "--key", self.keyPath});
    EXPECT_EQ(appended.output, package + ": signed as client (2 signatures)\n");

    auto inspected = checked({"inspect", package});
    EXPECT_TRUE(holdsLine(inspected.output, "  signer: \"" + hostileShown + "\" client:regular")) << inspected.output;
    EXPECT_NE(inspected.output.find("\n    issued by "), std::string::npos) << inspected.output;
    auto verified = checked({"verify", package, "--ca", pki->ca().certPath}, 1);
    EXPECT_EQ(verified.output, package + ": refused\n");
    checked({"strip", package, "--last"});
}

}  // namespace
}  // namespace sealkeep::test
