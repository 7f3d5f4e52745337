// sealkeep with keys in a real PKCS#11 token: SoftHSM2 initialised in the
// test's own directory, an EC P-256 developer key and an RSA-2048 trusted-
// application key generated inside it with pkcs11-tool, reached through
// libp11's "pkcs11" engine. The keys never leave the token; the PIN comes
// from each pass-phrase source in turn.
#include <unistd.h>

#include <cstdlib>
#include <memory>
#include <string>
#include <vector>

#include <gtest/gtest.h>

#include <sealkeep/file_with_cmses.hpp>

#include "support/cli_test.hpp"
#include "support/payload_signatures.hpp"
#include "support/signing.hpp"

namespace sealkeep::test {
namespace {

constexpr char const* softhsmModule = "/usr/lib/softhsm/libsofthsm2.so";
constexpr char const* pin = "1234";
const std::string trustedApplication = "/usr/lib/optee_armtz/8aaaf200-2450-11e4-abe2-0002a5d5c51b.ta";
const std::string developerUri = "pkcs11:token=sealkeep-test;object=developer;type=private";
const std::string taUri = "pkcs11:token=sealkeep-test;object=ta;type=private";

// What the token tests need from Debian; empty when everything is there.
std::string missingTools()
{
    for (auto const& tool : {"softhsm2-util", "pkcs11-tool", "openssl"}) {
        if (runShell(std::string("command -v ") + tool + " >/dev/null").exitCode != 0)
            return std::string(tool) + " is not installed";
    }
    if (access(softhsmModule, R_OK) != 0)
        return std::string(softhsmModule) + " is missing (Debian package softhsm2)";
    auto engine = runShell("openssl engine pkcs11 -t 2>&1");
    if (engine.exitCode != 0)
        return "OpenSSL has no pkcs11 engine (Debian package libengine-pkcs11-openssl)";
    return {};
}

void mustRun(std::string const& commandLine)
{
    auto result = runShell(commandLine + " 2>&1");
    if (result.exitCode != 0)
        throw std::runtime_error(commandLine + ": " + result.output);
}

class CliToken : public CliTest {
protected:
    static void SetUpTestSuite()
    {
        missing = missingTools();
        if (!missing.empty())
            return;
        CliTest::SetUpTestSuite();
        token = std::make_unique<TempDir>();
        std::string tokens = token->file("tokens");
        mustRun("mkdir " + shellQuoted(tokens));
        writeText(token->file("softhsm2.conf"),
                  "directories.tokendir = " + tokens + "\nobjectstore.backend = file\nlog.level = ERROR\n");
        // Inherited by every command the tests run, sealkeep included.
        setenv("SOFTHSM2_CONF", token->file("softhsm2.conf").c_str(), 1);
        mustRun("softhsm2-util --init-token --free --label sealkeep-test --pin 1234 --so-pin 5678");
        std::string tool = std::string("pkcs11-tool --module ") + softhsmModule +
                           " --token-label sealkeep-test --login --pin 1234 ";
        mustRun(tool + "--keypairgen --key-type EC:prime256v1 --id 01 --label developer");
        mustRun(tool + "--keypairgen --key-type rsa:2048 --id 02 --label ta");
        mustRun(tool + "--read-object --type pubkey --id 02 -o " + shellQuoted(token->file("ta-public.der")));

        // The developer's request is signed inside the token by OpenSSL's
        // own tool, configured for the same module.
        writeText(token->file("openssl.cnf"), std::string("openssl_conf = init\n[init]\nengines = engines\n"
                                                          "[engines]\npkcs11 = pkcs11\n[pkcs11]\n"
                                                          "engine_id = pkcs11\nMODULE_PATH = ") +
                                                  softhsmModule + "\ninit = 0\n");
        mustRun("OPENSSL_CONF=" + shellQuoted(token->file("openssl.cnf")) +
                " openssl req -new -engine pkcs11 -keyform engine -key " +
                shellQuoted(developerUri + ";pin-value=1234") + " -subj /CN=token-developer -out " +
                shellQuoted(token->file("developer.csr")));

        rpmWithTa = buildRpm(rpmDir->path(), "token-demo",
                             {regularFile(trustedApplication, std::string(5000, 't')),
                              regularFile("/usr/share/token/readme.txt", "signed in a token\n")});
    }
    static void TearDownTestSuite()
    {
        if (!missing.empty())
            return;
        unsetenv("SOFTHSM2_CONF");
        token.reset();
        CliTest::TearDownTestSuite();
    }
    void SetUp() override
    {
        if (!missing.empty())
            GTEST_SKIP() << "no PKCS#11 token to test with: " << missing;
    }

    std::vector<std::string> engineOptions() const
    {
        return {"--engine", "pkcs11", "--engine-ctrl", std::string("MODULE_PATH:") + softhsmModule};
    }

    // The developer's certificate, issued by the command's CA from the
    // token's request.
    std::string developerCertificate()
    {
        std::string cert = work.file("token-developer.pem");
        auto issued = run({"ca", "issue", cert, "--csr", token->file("developer.csr"), "--ca-key",
                           pki->ca().keyPath, "--ca-cert", pki->ca().certPath, "--group", "developer"});
        EXPECT_EQ(issued.exitCode, 0) << issued.errors;
        return cert;
    }

    std::string packageWithTa(std::string const& name) const
    {
        std::string path = work.file(name);
        writeFile(path, readFile(rpmWithTa));
        return path;
    }

    // The trusted application's signed header verifies with the token's
    // public key under openssl pkeyutl (PSS, SHA-256).
    bool headerVerifiesWithTokenKey(std::string const& package) const
    {
        auto file = PackageSignatures::FileWithCmses::fromPath(package);
        auto cmses = file ? file->cmses() : std::vector<PackageSignatures::Cms>{};
        if (cmses.empty())
            return false;
        auto table = tableOf(cmses.front().data(), 1);
        if (!table || table->size() != 1)
            return false;
        Bytes header = bytesOfHex(std::string(table->front().value.begin(), table->front().value.end()));
        std::size_t signatureSize = header.at(18) | header.at(19) << 8;
        writeFile(work.file("ta-hash.bin"), Bytes(header.begin() + 20, header.begin() + 52));
        writeFile(work.file("ta-signature.bin"),
                  Bytes(header.begin() + 52, header.begin() + 52 + static_cast<long>(signatureSize)));
        auto verified = runCommand({"openssl", "pkeyutl", "-verify", "-pubin", "-keyform", "DER", "-inkey",
                                    token->file("ta-public.der"), "-in", work.file("ta-hash.bin"), "-sigfile",
                                    work.file("ta-signature.bin"), "-pkeyopt", "digest:sha256", "-pkeyopt",
                                    "rsa_padding_mode:pss", "-pkeyopt", "rsa_pss_saltlen:digest", "-pkeyopt",
                                    "rsa_mgf1_md:sha256"});
        return verified.exitCode == 0 &&
               verified.output.find("Signature Verified Successfully") != std::string::npos;
    }

    static inline std::string missing;
    static inline std::unique_ptr<TempDir> token;
    static inline std::string rpmWithTa;
};

TEST_F(CliToken, SignsWithBothKeysInTheTokenWithThePinFromEverySource)
{
    std::string cert = developerCertificate();
    writeText(work.file("pin.txt"), std::string(pin) + "\n");
    writeText(work.file("pins.txt"), std::string(pin) + "\n" + pin + "\n");
    struct Case {
        std::string source, redirections;
        std::vector<std::string> environment;
    };
    for (auto const& c : std::vector<Case>{{"pass:1234", "", {}},
                                           {"env:TOKEN_PIN", "", {"TOKEN_PIN=1234"}},
                                           {"file:pin.txt", "", {}},
                                           {"fd:3", "3< pins.txt", {}},
                                           {"stdin", "< pins.txt", {}}}) {
        std::string package = packageWithTa("token-" + c.source.substr(0, c.source.find(':')) + ".rpm");
        std::vector<std::string> args = {"sign", package, "--cert", cert, "--key", developerUri, "--pass", c.source,
                                         "--ta-key", taUri, "--ta-pass", c.source, "--ta-algorithm", "pss"};
        auto engine = engineOptions();
        args.insert(args.end(), engine.begin(), engine.end());
        auto result = runSealkeepDetached(work.path(), c.environment, args, c.redirections);
        EXPECT_EQ(result.exitCode, 0) << c.source << ": " << result.errors;
        EXPECT_EQ(result.output, package + ": signed as developer (1 signature)\n") << c.source;
        auto verified = run({"verify", package, "--ca", pki->ca().certPath});
        EXPECT_EQ(verified.exitCode, 0) << c.source << ": " << verified.errors;
        EXPECT_TRUE(headerVerifiesWithTokenKey(package)) << c.source;
        auto fileSignatures = run({"inspect", package, "--json"});
        EXPECT_NE(fileSignatures.output.find("\"fileSignatures\""), std::string::npos) << fileSignatures.output;
    }
}

TEST_F(CliToken, ThreeJobsLoadTheTokenKeysWithOnePinReading)
{
    std::string cert = developerCertificate();
    writeText(work.file("pins.txt"), std::string(pin) + "\n" + pin + "\n");
    std::vector<std::string> args = {"sign",     packageWithTa("a.rpm"), packageWithTa("b.rpm"),
                                     packageWithTa("c.rpm"), "--jobs", "3", "--cert", cert, "--key", developerUri,
                                     "--pass", "stdin", "--ta-key", taUri, "--ta-pass", "stdin",
                                     "--ta-algorithm", "pkcs1"};
    auto engine = engineOptions();
    args.insert(args.end(), engine.begin(), engine.end());
    auto result = runSealkeepDetached(work.path(), {}, args, "< pins.txt");
    EXPECT_EQ(result.exitCode, 0) << result.errors;
    for (auto const& name : {"a.rpm", "b.rpm", "c.rpm"}) {
        auto verified = run({"verify", work.file(name), "--ca", pki->ca().certPath});
        EXPECT_EQ(verified.exitCode, 0) << name << ": " << verified.errors;
    }
}

// The certificate authority and rotations take token keys as well: a CA
// whose key is the token's EC key issues a certificate that verifies with
// it, and the developer rotates from the token key to a key in a file.
TEST_F(CliToken, CaAndRotationUseTokenKeys)
{
    auto engine = engineOptions();
    std::vector<std::string> init = {"ca", "init", "token-ca.pem", "--key", developerUri, "--pass", "pass:1234",
                                     "--cn", "Token CA"};
    init.insert(init.end(), engine.begin(), engine.end());
    auto made = run(init);
    ASSERT_EQ(made.exitCode, 0) << made.errors;

    generateKey(work.file("signer.key"));
    writeRequest(work.file("signer.key"), work.file("signer.csr"), "signer");
    std::vector<std::string> issue = {"ca", "issue", "signer.pem", "--csr", "signer.csr", "--ca-key", developerUri,
                                      "--ca-pass", "pass:1234", "--ca-cert", "token-ca.pem", "--group", "developer"};
    issue.insert(issue.end(), engine.begin(), engine.end());
    auto issued = run(issue);
    ASSERT_EQ(issued.exitCode, 0) << issued.errors;
    X509Ptr ca = loadCertificate(work.file("token-ca.pem"));
    X509Ptr signer = loadCertificate(work.file("signer.pem"));
    EXPECT_EQ(X509_verify(signer.get(), X509_get0_pubkey(ca.get())), 1);

    // The token's RSA key is not this CA's.
    std::vector<std::string> wrongCa = {"ca", "issue", "other.pem", "--csr", "signer.csr", "--ca-key", taUri,
                                        "--ca-pass", "pass:1234", "--ca-cert", "token-ca.pem", "--group",
                                        "developer"};
    wrongCa.insert(wrongCa.end(), engine.begin(), engine.end());
    auto refused = run(wrongCa);
    EXPECT_EQ(refused.exitCode, 1);
    EXPECT_EQ(refused.errors, "sealkeep: --ca-key " + taUri +
                                  ": not the key of the CA certificate given with --ca-cert token-ca.pem\n");

    std::string cert = developerCertificate();
    std::vector<std::string> rotate = {"rotate", "chain.pem", "--old-cert", cert, "--old-key", developerUri,
                                       "--old-pass", "pass:1234", "--new-cert", "signer.pem", "--new-key",
                                       "signer.key"};
    rotate.insert(rotate.end(), engine.begin(), engine.end());
    auto rotated = run(rotate);
    EXPECT_EQ(rotated.exitCode, 0) << rotated.errors;
    auto shown = run({"rotation", "show", "chain.pem"});
    EXPECT_EQ(shown.exitCode, 0) << shown.errors;
}

TEST_F(CliToken, AWrongPinOrATokenKeyOfAnotherCertificateIsRefusedBeforeThePackage)
{
    std::string cert = developerCertificate();
    std::string package = packageWithTa("refused.rpm");
    Bytes before = readFile(package);
    auto engine = engineOptions();

    std::vector<std::string> wrongPin = {"sign", package, "--cert", cert, "--key", developerUri, "--pass",
                                         "pass:9999", "--no-file-signatures"};
    wrongPin.insert(wrongPin.end(), engine.begin(), engine.end());
    auto wrong = runSealkeepDetached(work.path(), {}, wrongPin);
    EXPECT_EQ(wrong.exitCode, 1);
    // libp11 prints its own lines first; the command's is the last.
    std::string line = "sealkeep: --key " + developerUri +
                       ": the engine pkcs11 cannot load the key with the PIN given: failed loading private key\n";
    ASSERT_GE(wrong.errors.size(), line.size());
    EXPECT_EQ(wrong.errors.substr(wrong.errors.size() - line.size()), line) << wrong.errors;

    // The token's RSA key is not the developer certificate's.
    std::vector<std::string> mismatch = {"sign", package, "--cert", cert, "--key", taUri, "--pass", "pass:1234"};
    mismatch.insert(mismatch.end(), engine.begin(), engine.end());
    auto other = runSealkeepDetached(work.path(), {}, mismatch);
    EXPECT_EQ(other.exitCode, 1);
    EXPECT_EQ(other.errors, "sealkeep: --key " + taUri + ": not the key of the certificate given with --cert " +
                                cert + "\n");

    auto noEngine = runSealkeepDetached(work.path(), {}, {"sign", package, "--cert", cert, "--key", developerUri});
    EXPECT_EQ(noEngine.exitCode, 2);
    EXPECT_EQ(noEngine.errors, "sealkeep: --key " + developerUri +
                                   ": a key held by an engine needs --engine (pkcs11 for a PKCS#11 token)\n");
    EXPECT_EQ(readFile(package), before);
}

}  // namespace
}  // namespace sealkeep::test
