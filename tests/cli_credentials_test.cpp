// sealkeep's keys and pass phrases, and the checks it makes on its
// credentials before any package is touched: every refusal is one line that
// names the option, exits with 1 (2 for bad usage) and leaves each package
// byte for byte as it was.
#include <ctime>
#include <string>
#include <vector>

#include <gtest/gtest.h>
#include <nlohmann/json.hpp>
#include <openssl/pem.h>
#include <openssl/x509v3.h>

#include <sealkeep/certificate.hpp>

#include "support/cli_test.hpp"
#include "support/signing.hpp"

namespace sealkeep::test {
namespace {

using PackageSignatures::Certificate;

class CliCredentials : public CliTest {
protected:
    // The developer key protected by the pass phrase "s3cret".
    std::string encryptedDeveloperKey()
    {
        std::string encrypted = work.file("developer-encrypted.key");
        auto made = runShell("openssl pkey -engine gost -in " + shellQuoted(pki->developer().keyPath) +
                             " -aes256 -passout pass:s3cret -out " + shellQuoted(encrypted) + " 2>&1");
        EXPECT_EQ(made.exitCode, 0) << made.output;
        return encrypted;
    }

    CommandResult detached(std::vector<std::string> const& args, std::string const& redirections = {},
                           std::vector<std::string> const& environment = {}) const
    {
        return runSealkeepDetached(work.path(), environment, args, redirections);
    }

    // A certificate-authority-issued developer identity for a key of the
    // given GOST size and parameter set.
    Identity developerWithParamset(std::string const& name, int bits, char const* paramset) const
    {
        std::string keyPath = work.file(name + ".key");
        generateKey(keyPath, bits, paramset);
        writeRequest(keyPath, work.file(name + ".csr"), name);
        auto issued = run({"ca", "issue", name + ".pem", "--csr", name + ".csr", "--ca-key", pki->ca().keyPath,
                           "--ca-cert", pki->ca().certPath, "--group", "developer"});
        EXPECT_EQ(issued.exitCode, 0) << issued.errors;
        return Identity{keyPath, work.file(name + ".pem")};
    }

    std::string rsaKey(std::string const& name, int bits) const
    {
        std::string path = work.file(name);
        auto made = runShell("openssl genpkey -algorithm RSA -pkeyopt rsa_keygen_bits:" + std::to_string(bits) +
                             " -out " + shellQuoted(path) + " 2>&1");
        EXPECT_EQ(made.exitCode, 0) << made.output;
        return path;
    }

    // Runs a refused sign and checks that the package did not change.
    void expectRefused(std::vector<std::string> const& args, std::string const& package, int status,
                       std::string const& errors)
    {
        Bytes before = readFile(package);
        auto result = run(args);
        EXPECT_EQ(result.exitCode, status) << result.errors;
        EXPECT_EQ(result.errors, errors);
        EXPECT_EQ(result.output, "");
        EXPECT_EQ(readFile(package), before);
    }
};

// ---------------------------------------------------------------------------
// Pass phrases

TEST_F(CliCredentials, EveryPassPhraseSourceUnlocksTheKeyWithoutATerminal)
{
    std::string key = encryptedDeveloperKey();
    writeText(work.file("pass.txt"), "s3cret\n");
    struct Case {
        std::string source, redirections;
        std::vector<std::string> environment;
    };
    for (auto const& c : std::vector<Case>{{"pass:s3cret", "", {}},
                                           {"env:RELEASE_PASS", "", {"RELEASE_PASS=s3cret"}},
                                           {"file:pass.txt", "", {}},
                                           {"fd:3", "3< pass.txt", {}},
                                           {"stdin", "< pass.txt", {}}}) {
        std::string package = freshPackage();
        auto result = detached({"sign", package, "--cert", pki->developer().certPath, "--key", key, "--pass",
                                c.source},
                               c.redirections, c.environment);
        EXPECT_EQ(result.exitCode, 0) << c.source << ": " << result.errors;
        EXPECT_TRUE(verifyFile(package, pki->ca().certPath)) << c.source;
    }
}

TEST_F(CliCredentials, ThreeJobsUnlockTheKeyOnce)
{
    std::string key = encryptedDeveloperKey();
    // One line only: a second reading would get nothing.
    writeText(work.file("pass.txt"), "s3cret\n");
    std::vector<std::string> args = {"sign", freshPackage("a.rpm"), freshPackage("b.rpm"), freshPackage("c.rpm"),
                                     "--jobs", "3", "--cert", pki->developer().certPath, "--key", key};
    auto fromStdin = args;
    fromStdin.insert(fromStdin.end(), {"--pass", "stdin"});
    auto result = detached(fromStdin, "< pass.txt");
    EXPECT_EQ(result.exitCode, 0) << result.errors;
    for (auto const& name : {"a.rpm", "b.rpm", "c.rpm"})
        EXPECT_TRUE(verifyFile(work.file(name), pki->ca().certPath)) << name;

    std::vector<std::string> again = {"sign", freshPackage("d.rpm"), freshPackage("e.rpm"), freshPackage("f.rpm"),
                                      "--jobs", "3", "--cert", pki->developer().certPath, "--key", key,
                                      "--pass", "fd:4"};
    auto fromDescriptor = detached(again, "4< pass.txt");
    EXPECT_EQ(fromDescriptor.exitCode, 0) << fromDescriptor.errors;
}

TEST_F(CliCredentials, AnEncryptedKeyWithoutSourceOrTerminalIsRefusedInOneLine)
{
    std::string key = encryptedDeveloperKey();
    std::string package = freshPackage();
    Bytes before = readFile(package);
    auto result = detached({"sign", package, "--cert", pki->developer().certPath, "--key", key}, "< /dev/null");
    EXPECT_EQ(result.exitCode, 1);
    EXPECT_EQ(result.errors, "sealkeep: --key " + key +
                                 ": cannot unlock the private key: it is protected by a pass phrase, none was "
                                 "given and there is no terminal to ask on\n");
    EXPECT_EQ(readFile(package), before);

    auto wrong = detached({"sign", package, "--cert", pki->developer().certPath, "--key", key, "--pass",
                           "pass:wrong"});
    EXPECT_EQ(wrong.exitCode, 1);
    EXPECT_EQ(wrong.errors, "sealkeep: --key " + key + ": the pass phrase does not unlock the private key\n");

    auto unset = detached({"sign", package, "--cert", pki->developer().certPath, "--key", key, "--pass",
                           "env:SEALKEEP_TEST_UNSET"});
    EXPECT_EQ(unset.exitCode, 1);
    EXPECT_EQ(unset.errors,
              "sealkeep: --pass env:SEALKEEP_TEST_UNSET: the environment variable SEALKEEP_TEST_UNSET is not set\n");

    auto unknown = detached({"sign", package, "--cert", pki->developer().certPath, "--key", key, "--pass",
                             "s3cret"});
    EXPECT_EQ(unknown.exitCode, 2);
    EXPECT_EQ(unknown.errors, "sealkeep: --pass: unknown pass-phrase source \"s3cret\" (expected pass:TEXT, "
                              "env:VAR, file:PATH, fd:N or stdin)\n");
    EXPECT_EQ(readFile(package), before);
}

TEST_F(CliCredentials, EveryKeyOptionTakesAPassPhrase)
{
    std::string key = encryptedDeveloperKey();
    auto ca = run({"ca", "init", "own-ca.pem", "--key", key, "--pass", "pass:s3cret", "--cn", "Locked CA"});
    EXPECT_EQ(ca.exitCode, 0) << ca.errors;
    generateKey(work.file("signer.key"));
    writeRequest(work.file("signer.key"), work.file("signer.csr"), "signer");
    writeText(work.file("pass.txt"), "s3cret\n");
    auto issued = detached({"ca", "issue", "signer.pem", "--csr", "signer.csr", "--ca-key", key, "--ca-pass", "stdin",
                       "--ca-cert", "own-ca.pem", "--group", "developer"},
                      "< pass.txt");
    EXPECT_EQ(issued.exitCode, 0) << issued.errors;

    Identity fresh = pki->issue("rotated-to", "developer");
    auto rotated = detached({"rotate", "chain.pem", "--old-cert", pki->developer().certPath, "--old-key", key,
                             "--old-pass", "file:pass.txt", "--new-cert", fresh.certPath, "--new-key",
                             fresh.keyPath});
    EXPECT_EQ(rotated.exitCode, 0) << rotated.errors;

    std::string taKey = work.file("ta-encrypted.key");
    auto made = runShell("openssl genpkey -algorithm RSA -pkeyopt rsa_keygen_bits:2048 -aes256 -pass pass:ta-pin "
                         "-out " + shellQuoted(taKey) + " 2>&1");
    ASSERT_EQ(made.exitCode, 0) << made.output;
    std::string package = freshPackage();
    // Two keys reading standard input take one line each, in order.
    writeText(work.file("both.txt"), "s3cret\nta-pin\n");
    auto signedBoth = detached({"sign", package, "--cert", pki->developer().certPath, "--key", key, "--pass",
                                "stdin", "--ta-key", taKey, "--ta-pass", "stdin", "--ta-algorithm", "pss"},
                               "< both.txt");
    EXPECT_EQ(signedBoth.exitCode, 0) << signedBoth.errors;
    EXPECT_TRUE(verifyFile(package, pki->ca().certPath));
}

// ---------------------------------------------------------------------------
// Pre-flight of sign

TEST_F(CliCredentials, AKeyThatIsNotTheCertificatesIsRefused)
{
    std::string package = freshPackage();
    expectRefused({"sign", package, "--cert", pki->developer().certPath, "--key", pki->seclab().keyPath}, package, 1,
                  "sealkeep: --key " + pki->seclab().keyPath + ": not the key of the certificate given with --cert " +
                      pki->developer().certPath + "\n");
}

TEST_F(CliCredentials, ACertificateOutsideItsValidityIsRefused)
{
    std::string package = freshPackage();
    Identity expired = pki->issueWithValidity("expired", -2 * 86400, -86400);
    X509Ptr cert = loadCertificate(expired.certPath);
    std::tm end{};
    ASN1_TIME_to_tm(X509_get0_notAfter(cert.get()), &end);
    char date[32];
    strftime(date, sizeof date, "%Y-%m-%d %H:%M:%S UTC", &end);
    expectRefused({"sign", package, "--cert", expired.certPath, "--key", expired.keyPath}, package, 1,
                  "sealkeep: --cert " + expired.certPath + ": the certificate expired on " + date + "\n");

    Identity early = pki->issueWithValidity("early", 86400, 2 * 86400);
    cert = loadCertificate(early.certPath);
    std::tm start{};
    ASN1_TIME_to_tm(X509_get0_notBefore(cert.get()), &start);
    strftime(date, sizeof date, "%Y-%m-%d %H:%M:%S UTC", &start);
    expectRefused({"sign", package, "--cert", early.certPath, "--key", early.keyPath}, package, 1,
                  "sealkeep: --cert " + early.certPath + ": the certificate is not valid before " + date + "\n");
}

TEST_F(CliCredentials, ACertificateWithoutGroupIsRefused)
{
    std::string package = freshPackage();
    Identity plain = pki->issue("no-group", nullptr);
    expectRefused({"sign", package, "--cert", plain.certPath, "--key", plain.keyPath}, package, 1,
                  "sealkeep: --cert " + plain.certPath +
                      ": the certificate lacks the package-signing purpose (extended key usage packageSigning)\n");
}

TEST_F(CliCredentials, ATrustedApplicationKeyForAnotherSignerIsBadUsage)
{
    std::string package = freshPackage();
    ASSERT_EQ(signAs(pki->developer(), package).exitCode, 0);
    std::string taKey = rsaKey("ta.key", 2048);
    expectRefused({"sign", package, "--cert", pki->seclab().certPath, "--key", pki->seclab().keyPath, "--ta-key",
                   taKey, "--ta-algorithm", "pss"},
                  package, 2,
                  "sealkeep: --ta-key " + taKey +
                      ": only a developer signs trusted applications; the certificate is a seclab's\n");
}

TEST_F(CliCredentials, ATrustedApplicationKeyBelow2048BitsIsRefused)
{
    std::string package = freshPackage();
    std::string weak = rsaKey("weak-ta.key", 1024);
    expectRefused({"sign", package, "--cert", pki->developer().certPath, "--key", pki->developer().keyPath,
                   "--ta-key", weak, "--ta-algorithm", "pkcs1"},
                  package, 1,
                  "sealkeep: --ta-key " + weak +
                      ": an RSA key of 1024 bits; OP-TEE refuses trusted applications signed with RSA keys below "
                      "2048 bits\n");
    expectRefused({"sign", package, "--cert", pki->developer().certPath, "--key", pki->developer().keyPath,
                   "--ta-key", pki->seclab().keyPath, "--ta-algorithm", "pkcs1"},
                  package, 1,
                  "sealkeep: --ta-key " + pki->seclab().keyPath +
                      ": not an RSA key; OP-TEE verifies trusted applications with RSA keys of 2048 bits or more\n");
}

TEST_F(CliCredentials, ARotationChainEndingElsewhereIsRefused)
{
    std::string package = freshPackage();
    Identity next = pki->issue("successor", "developer");
    ASSERT_EQ(run({"rotate", "chain.pem", "--old-cert", pki->developer().certPath, "--old-key",
                   pki->developer().keyPath, "--new-cert", next.certPath, "--new-key", next.keyPath})
                  .exitCode,
              0);
    std::string end = Certificate::readCertificateFromFile(next.certPath.c_str()).keyId();
    std::string signer = Certificate::readCertificateFromFile(pki->developer().certPath.c_str()).keyId();
    expectRefused({"sign", package, "--cert", pki->developer().certPath, "--key", pki->developer().keyPath,
                   "--rotation-chain", "chain.pem"},
                  package, 1,
                  "sealkeep: --rotation-chain chain.pem: the rotation chain ends at key id " + end +
                      ", not at the signer's key id " + signer + "\n");
    auto atSigner = run({"sign", package, "--cert", next.certPath, "--key", next.keyPath, "--rotation-chain",
                         "chain.pem"});
    EXPECT_EQ(atSigner.exitCode, 0) << atSigner.errors;
}

TEST_F(CliCredentials, ARotationChainThatDoesNotVerifyIsRefused)
{
    // A proof whose old signature is made with a key that is not the old
    // certificate's.
    Identity next = pki->issue("forged-successor", "developer");
    X509Ptr oldCert = loadCertificate(pki->developer().certPath);
    X509Ptr newCert = loadCertificate(next.certPath);
    PkeyPtr wrongKey = loadKey(pki->seclab().keyPath);
    PkeyPtr newKey = loadKey(next.keyPath);
    ProofOfRotationChain* chain = sk_ProofOfRotation_new_null();
    ASSERT_TRUE(chain);
    sk_ProofOfRotation_push(chain, ProofOfRotation_create(oldCert.get(), wrongKey.get(), newCert.get(), newKey.get()));
    FILE* out = fopen(work.file("forged.pem").c_str(), "w");
    ASSERT_TRUE(out);
    EXPECT_EQ(PEM_write_ProofOfRotationChain(out, chain), 1);
    fclose(out);
    ProofOfRotationChain_free(chain);

    std::string package = freshPackage();
    expectRefused({"sign", package, "--cert", next.certPath, "--key", next.keyPath, "--rotation-chain", "forged.pem"},
                  package, 1,
                  "Could not verify old signature in proof-of-rotation\nCould not verify proof[0]\n"
                  "sealkeep: --rotation-chain forged.pem: the rotation chain does not verify\n");
}

TEST_F(CliCredentials, AKeyTheKernelCannotVerifyIsRefusedForFileSignatures)
{
    struct Case {
        int bits;
        char const* paramset;
        char const* name;
    };
    for (auto const& c : std::vector<Case>{{256, "TCA", "id-tc26-gost-3410-2012-256-paramSetA"},
                                           {512, "C", "id-tc26-gost-3410-2012-512-paramSetC"}}) {
        Identity who = developerWithParamset(std::string("kernel-") + c.paramset + std::to_string(c.bits), c.bits,
                                             c.paramset);
        std::string package = freshPackage();
        expectRefused({"sign", package, "--cert", who.certPath, "--key", who.keyPath}, package, 1,
                      "sealkeep: --key " + who.keyPath + ": a key of the GOST parameter set " + c.name +
                          ", which the Linux kernel's IMA cannot verify: every file signed with it would be "
                          "unreadable under IMA appraisal (--no-file-signatures signs without them, "
                          "--allow-unverifiable-file-signatures signs them anyway)\n");
        auto without = run({"sign", package, "--cert", who.certPath, "--key", who.keyPath, "--no-file-signatures"});
        EXPECT_EQ(without.exitCode, 0) << without.errors;
        std::string other = freshPackage("anyway.rpm");
        auto anyway = run({"sign", other, "--cert", who.certPath, "--key", who.keyPath,
                           "--allow-unverifiable-file-signatures"});
        EXPECT_EQ(anyway.exitCode, 0) << anyway.errors;
    }
    for (auto const& [bits, paramset] : std::vector<std::pair<int, char const*>>{{256, "B"}, {256, "TCB"}, {512, "A"}}) {
        Identity who = developerWithParamset(std::string("kernel-ok-") + paramset + std::to_string(bits), bits,
                                             paramset);
        auto result = run({"sign", freshPackage(), "--cert", who.certPath, "--key", who.keyPath});
        EXPECT_EQ(result.exitCode, 0) << paramset << ": " << result.errors;
    }
}

// ---------------------------------------------------------------------------
// The certificate authority and rotations

TEST_F(CliCredentials, IssueRefusesACaKeyThatIsNotTheCas)
{
    generateKey(work.file("signer.key"));
    writeRequest(work.file("signer.key"), work.file("signer.csr"), "signer");
    auto result = run({"ca", "issue", "signer.pem", "--csr", "signer.csr", "--ca-key", pki->developer().keyPath,
                       "--ca-cert", pki->ca().certPath, "--group", "developer"});
    EXPECT_EQ(result.exitCode, 1);
    EXPECT_EQ(result.errors, "sealkeep: --ca-key " + pki->developer().keyPath +
                                 ": not the key of the CA certificate given with --ca-cert " + pki->ca().certPath +
                                 "\n");
    EXPECT_FALSE(fileExists(work.file("signer.pem")));
}

TEST_F(CliCredentials, InitAndIssueReplaceAnExistingCertificateOnlyWithForce)
{
    generateKey(work.file("ca.key"));
    writeText(work.file("ca.pem"), "the CA certificate in use\n");
    auto init = run({"ca", "init", "ca.pem", "--key", "ca.key", "--cn", "Second CA"});
    EXPECT_EQ(init.exitCode, 1);
    EXPECT_EQ(init.errors, "sealkeep: ca.pem: already exists (use --force to replace it)\n");
    EXPECT_EQ(readText(work.file("ca.pem")), "the CA certificate in use\n");
    EXPECT_EQ(run({"ca", "init", "ca.pem", "--key", "ca.key", "--cn", "Second CA", "--force"}).exitCode, 0);

    generateKey(work.file("signer.key"));
    writeRequest(work.file("signer.key"), work.file("signer.csr"), "signer");
    writeText(work.file("signer.pem"), "a signer certificate in use\n");
    std::vector<std::string> issue = {"ca", "issue", "signer.pem", "--csr", "signer.csr", "--ca-key", "ca.key",
                                      "--ca-cert", "ca.pem", "--group", "developer"};
    auto refused = run(issue);
    EXPECT_EQ(refused.exitCode, 1);
    EXPECT_EQ(refused.errors, "sealkeep: signer.pem: already exists (use --force to replace it)\n");
    EXPECT_EQ(readText(work.file("signer.pem")), "a signer certificate in use\n");
    issue.push_back("--force");
    EXPECT_EQ(run(issue).exitCode, 0);
}

TEST_F(CliCredentials, ARotationToTheSameKeyIsRefused)
{
    std::string keyId = Certificate::readCertificateFromFile(pki->developer().certPath.c_str()).keyId();
    auto same = run({"rotate", "chain.pem", "--old-cert", pki->developer().certPath, "--old-key",
                     pki->developer().keyPath, "--new-cert", pki->developer().certPath, "--new-key",
                     pki->developer().keyPath});
    EXPECT_EQ(same.exitCode, 1);
    EXPECT_EQ(same.errors, "sealkeep: --new-cert " + pki->developer().certPath +
                               ": the new certificate carries the same key id as the old one (" + keyId +
                               "); a rotation must change the key\n");
    EXPECT_FALSE(fileExists(work.file("chain.pem")));

    // The same key certified again for another group.
    writeRequest(pki->developer().keyPath, work.file("again.csr"), "again");
    ASSERT_EQ(run({"ca", "issue", "again.pem", "--csr", "again.csr", "--ca-key", pki->ca().keyPath, "--ca-cert",
                   pki->ca().certPath, "--group", "seclab"})
                  .exitCode,
              0);
    auto regrouped = run({"rotate", "chain.pem", "--old-cert", pki->developer().certPath, "--old-key",
                          pki->developer().keyPath, "--new-cert", "again.pem", "--new-key", pki->developer().keyPath});
    EXPECT_EQ(regrouped.exitCode, 1);
    EXPECT_EQ(regrouped.errors, "sealkeep: --new-cert again.pem: the new certificate carries the same key id as the "
                                "old one (" + keyId +
                                    "); a rotation must change the key (the groups differ: developer and seclab; a "
                                    "new group needs a new certificate, not a rotation)\n");
    EXPECT_FALSE(fileExists(work.file("chain.pem")));
}

TEST_F(CliCredentials, ARotationKeyThatIsNotItsCertificatesIsRefused)
{
    Identity fresh = pki->issue("rotation-target", "developer");
    auto result = run({"rotate", "chain.pem", "--old-cert", pki->developer().certPath, "--old-key",
                       pki->seclab().keyPath, "--new-cert", fresh.certPath, "--new-key", fresh.keyPath});
    EXPECT_EQ(result.exitCode, 1);
    EXPECT_EQ(result.errors, "sealkeep: --old-key " + pki->seclab().keyPath +
                                 ": not the key of the certificate given with --old-cert " +
                                 pki->developer().certPath + "\n");
    EXPECT_FALSE(fileExists(work.file("chain.pem")));
}

// ---------------------------------------------------------------------------
// The gost engine

TEST_F(CliCredentials, AMissingGostEngineStopsEverySubcommandInOneLine)
{
    std::string expected = "The 'gost' engine isn't available\n"
                           "sealkeep: the gost engine cannot be loaded (looked for in /nonexistent); nothing can be "
                           "signed or verified without it\n";
    std::string package = freshPackage();
    Bytes before = readFile(package);
    for (auto const& args : std::vector<std::vector<std::string>>{
             {"--version"},
             {"verify", package, "--ca", pki->ca().certPath},
             {"sign", package, "--cert", pki->developer().certPath, "--key", pki->developer().keyPath}}) {
        auto result = detached(args, "", {"OPENSSL_ENGINES=/nonexistent"});
        EXPECT_EQ(result.exitCode, 1) << args[0];
        EXPECT_EQ(result.errors, expected) << args[0];
        EXPECT_EQ(result.output, "") << args[0];
    }
    EXPECT_EQ(readFile(package), before);
}

TEST_F(CliCredentials, VersionNamesOpenSslAndTheEngine)
{
    auto result = run({"--version"});
    EXPECT_EQ(result.exitCode, 0) << result.errors;
    EXPECT_EQ(result.output.rfind(std::string("sealkeep ") + SEALKEEP_TEST_VERSION + "\nOpenSSL 3.", 0), 0u)
        << result.output;
    EXPECT_NE(result.output.find("\ngost engine: "), std::string::npos) << result.output;
}

// ---------------------------------------------------------------------------
// Verification of a package whose signer's certificate has expired since

TEST_F(CliCredentials, VerifyNamesAnExpiredSignerCertificate)
{
    Identity expired = pki->issueWithValidity("lapsed", -2 * 86400, -86400);
    std::string package = freshPackage();
    // The library signs whatever it is given; only the command checks.
    ASSERT_TRUE(signFile(package, expired));
    auto text = run({"verify", package, "--ca", pki->ca().certPath});
    EXPECT_EQ(text.exitCode, 1);
    std::string line = "sealkeep: " + package + ": block 1 of 1 (developer, covers bytes [0, " +
                       std::to_string(fileSize(freshPackage("unsigned.rpm"))) +
                       ")): the signer's certificate (or a CA certificate of its chain) has expired\n";
    ASSERT_GE(text.errors.size(), line.size());
    EXPECT_EQ(text.errors.substr(text.errors.size() - line.size()), line) << text.errors;

    auto json = run({"verify", package, "--ca", pki->ca().certPath, "--json"});
    auto document = nlohmann::json::parse(json.output);
    EXPECT_EQ(document["packages"][0]["reason"], "certificate_expired");
    EXPECT_EQ(document["packages"][0]["blocks"][0]["reason"], "certificate_expired");

    // Another CA's signer is still not trusted, not expired.
    Pki other("another CA");
    std::string foreign = freshPackage("foreign.rpm");
    ASSERT_TRUE(signFile(foreign, other.developer()));
    auto untrusted = run({"verify", foreign, "--ca", pki->ca().certPath, "--json"});
    EXPECT_EQ(nlohmann::json::parse(untrusted.output)["packages"][0]["reason"], "certificate_chain_not_trusted");
}

}  // namespace
}  // namespace sealkeep::test
