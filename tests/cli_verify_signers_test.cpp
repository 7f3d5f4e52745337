// sealkeep verify as a gate and at a terminal: who signed each block (-v and
// --json, checked against openssl's own reading of the certificates), a
// refused block that still names its signer, the pins a gate adds, CA files
// that yield no certificate, and hostile subjects printed harmlessly.
#include <chrono>
#include <cstdio>
#include <fstream>
#include <string>

#include <sys/resource.h>

#include <gtest/gtest.h>
#include <nlohmann/json.hpp>

#include "support/blocks.hpp"
#include "support/cli_test.hpp"
#include "support/process.hpp"
#include "terminal_text.hpp"

namespace sealkeep::test {
namespace {

using nlohmann::json;

// What openssl itself reads from a certificate.
struct PeerFacts {
    std::string subject;      // RFC 2253
    std::string keyId;        // lower case, no colons
    std::string fingerprint;  // likewise
    std::string opensslFingerprint;  // as openssl prints it: upper case with colons
};

std::string lowerWithoutColons(std::string text)
{
    std::string result;
    for (char c : text) {
        if (c != ':' && c != ' ' && c != '\n')
            result += static_cast<char>(std::tolower(static_cast<unsigned char>(c)));
    }
    return result;
}

std::string afterFirst(std::string const& text, std::string const& marker)
{
    std::size_t at = text.find(marker);
    return at == std::string::npos ? "" : text.substr(at + marker.size());
}

PeerFacts peerFactsOf(std::string const& certPath)
{
    auto openssl = [&](std::vector<std::string> options) {
        std::vector<std::string> argv = {"openssl", "x509", "-engine", "gost", "-in", certPath, "-noout"};
        argv.insert(argv.end(), options.begin(), options.end());
        CommandResult result = runCommand(argv);
        EXPECT_EQ(result.exitCode, 0) << result.errors;
        return result.output;
    };
    PeerFacts facts;
    std::string subject = afterFirst(openssl({"-subject", "-nameopt", "RFC2253"}), "subject=");
    facts.subject = subject.substr(0, subject.find('\n'));
    std::string fingerprint = afterFirst(openssl({"-fingerprint", "-sha256"}), "Fingerprint=");
    facts.opensslFingerprint = fingerprint.substr(0, fingerprint.find('\n'));
    facts.fingerprint = lowerWithoutColons(facts.opensslFingerprint);
    facts.keyId = lowerWithoutColons(afterFirst(openssl({"-ext", "subjectKeyIdentifier"}), "Identifier: \n"));
    return facts;
}

class CliVerifySigners : public CliTest {
protected:
    CommandResult verify(std::string const& package, std::vector<std::string> const& extra = {}) const
    {
        std::vector<std::string> args = {"verify", package, "--ca", pki->ca().certPath};
        args.insert(args.end(), extra.begin(), extra.end());
        return run(args);
    }

    json verifyJson(std::string const& package, std::vector<std::string> const& extra = {}) const
    {
        std::vector<std::string> args = extra;
        args.push_back("--json");
        return json::parse(verify(package, args).output)["packages"][0];
    }

    // A package signed by developer, seclab and client.
    std::string threeSignatures() const
    {
        std::string package = freshPackage();
        for (Identity const* who : {&pki->developer(), &pki->seclab(), &pki->client()})
            EXPECT_EQ(signAs(*who, package).exitCode, 0);
        return package;
    }

    // Exit status 1, "PACKAGE: refused", the refusal line last on standard
    // error, and the reason in --json.
    void expectRefused(std::string const& package, std::vector<std::string> const& pins, std::string const& reason,
                       std::string const& why) const
    {
        auto result = verify(package, pins);
        EXPECT_EQ(result.exitCode, 1) << result.errors;
        EXPECT_EQ(result.output, package + ": refused\n");
        EXPECT_EQ(result.errors, "sealkeep: " + package + ": " + why + "\n");
        json verdict = verifyJson(package, pins);
        EXPECT_EQ(verdict["ok"], false);
        EXPECT_EQ(verdict["reason"], reason);
        EXPECT_EQ(verdict["error"], why);
    }

    void expectAccepted(std::string const& package, std::vector<std::string> const& pins) const
    {
        auto result = verify(package, pins);
        EXPECT_EQ(result.exitCode, 0) << result.errors;
        EXPECT_EQ(result.errors, "");
        EXPECT_EQ(verifyJson(package, pins)["reason"], "ok");
    }

    std::string coveredText(json const& block) const
    {
        return "covers bytes [" + std::to_string(block["coveredBegin"].get<long long>()) + ", " +
               std::to_string(block["coveredEnd"].get<long long>()) + ")";
    }
};

TEST_F(CliVerifySigners, VerboseNamesEverySignerAsOpensslReadsIt)
{
    std::string package = threeSignatures();
    auto result = verify(package, {"-v"});
    ASSERT_EQ(result.exitCode, 0) << result.errors;
    EXPECT_EQ(result.output.find(package + ": verified (3 signatures)\n"), 0u) << result.output;
    json blocks = verifyJson(package)["blocks"];
    ASSERT_EQ(blocks.size(), 3u);
    std::size_t at = 0;
    int number = 1;
    for (Identity const* who : {&pki->developer(), &pki->seclab(), &pki->client()}) {
        PeerFacts peer = peerFactsOf(who->certPath);
        ASSERT_EQ(peer.fingerprint.size(), 64u);
        ASSERT_FALSE(peer.keyId.empty());
        // In file order, each block with its subject, key id and fingerprint.
        at = result.output.find("  block " + std::to_string(number) + " of 3: verified\n", at);
        ASSERT_NE(at, std::string::npos) << result.output;
        for (std::string const& line : {"    subject: " + peer.subject + "\n", "    key id: " + peer.keyId + "\n",
                                        "    sha256 fingerprint: " + peer.fingerprint + "\n"}) {
            std::size_t found = result.output.find(line, at);
            EXPECT_NE(found, std::string::npos) << line << result.output;
            EXPECT_LT(found, result.output.find("  block ", at + 1)) << line;
        }
        // --json lists the blocks as they were checked, newest first.
        json const& block = blocks[3 - number];
        EXPECT_EQ(block["index"], number);
        EXPECT_EQ(block["verified"], true);
        EXPECT_EQ(block["reason"], "ok");
        EXPECT_EQ(block["subject"], peer.subject);
        EXPECT_EQ(block["keyId"], peer.keyId);
        EXPECT_EQ(block["sha256Fingerprint"], peer.fingerprint);
        EXPECT_EQ(block["issuer"], peerFactsOf(pki->ca().certPath).subject);
        EXPECT_EQ(block["subgroup"], "regular");
        for (char const* key : {"serial", "notBefore", "notAfter", "signingTime"})
            EXPECT_TRUE(block[key].is_string() && !block[key].get<std::string>().empty()) << key;
        EXPECT_EQ(block["previousKeyIds"], json::array());
        ++number;
    }
    EXPECT_EQ(blocks[2]["group"], "developer");
    EXPECT_EQ(blocks[1]["group"], "seclab");
    EXPECT_EQ(blocks[0]["group"], "client");
    EXPECT_EQ(json::parse(verify(package, {"--json"}).output)["schemaVersion"], 1);
    // --print-certs is the same listing.
    EXPECT_EQ(verify(package, {"--print-certs"}).output, result.output);
    // Without -v, one line.
    EXPECT_EQ(verify(package).output, package + ": verified (3 signatures)\n");
}

// The developer block's covered bytes changed: it is refused but still names
// the certificate its CMS carries.
TEST_F(CliVerifySigners, ATamperedBlockStillNamesItsSigner)
{
    std::string package = freshPackage();
    ASSERT_EQ(signAs(pki->developer(), package).exitCode, 0);
    ASSERT_EQ(signAs(pki->client(), package).exitCode, 0);
    Bytes bytes = readFile(package);
    bytes.at(fileSize(rpmTemplate) - 1) ^= 1;
    writeFile(package, bytes);
    PeerFacts developer = peerFactsOf(pki->developer().certPath);

    json verdict = verifyJson(package);
    EXPECT_EQ(verdict["reason"], "content_digest_mismatch");
    ASSERT_EQ(verdict["blocks"].size(), 2u);
    json const& refused = verdict["blocks"][1];
    EXPECT_EQ(refused["index"], 1);
    EXPECT_EQ(refused["verified"], false);
    EXPECT_EQ(refused["reason"], "content_digest_mismatch");
    EXPECT_EQ(refused["signerKnown"], true);
    EXPECT_EQ(refused["group"], "developer");
    EXPECT_EQ(refused["subject"], developer.subject);
    EXPECT_EQ(refused["keyId"], developer.keyId);
    EXPECT_EQ(refused["sha256Fingerprint"], developer.fingerprint);
    EXPECT_EQ(verdict["blocks"][0]["reason"], "ok");

    auto result = verify(package, {"-v"});
    EXPECT_EQ(result.exitCode, 1);
    EXPECT_NE(result.output.find("  block 1 of 2: refused: the covered bytes do not match the signature "
                                 "(content digest)\n    group: developer:regular\n    subject: " +
                                 developer.subject + "\n"),
              std::string::npos)
        << result.output;
    EXPECT_NE(result.output.find("    key id: " + developer.keyId + "\n"), std::string::npos);
    // The refusal line names the signer's group too.
    std::string line = "sealkeep: " + package + ": block 1 of 2 (developer, " + coveredText(refused) +
                       "): the covered bytes do not match the signature (content digest)\n";
    ASSERT_GE(result.errors.size(), line.size());
    EXPECT_EQ(result.errors.substr(result.errors.size() - line.size()), line) << result.errors;
}

// A changed signature value in the newest block: the walk stops there, and
// the blocks it did not reach are said to be unchecked.
TEST_F(CliVerifySigners, ABlockWithAnInvalidSignatureNamesItsSignerAndTheUncheckedOnes)
{
    std::string package = threeSignatures();
    Bytes bytes = readFile(package);
    bytes.at(bytes.size() - 12 - 1) ^= 1;
    writeFile(package, bytes);
    PeerFacts client = peerFactsOf(pki->client().certPath);
    json verdict = verifyJson(package);
    EXPECT_EQ(verdict["reason"], "signature_invalid");
    ASSERT_EQ(verdict["blocks"].size(), 1u);
    EXPECT_EQ(verdict["blocks"][0]["index"], 3);
    EXPECT_EQ(verdict["blocks"][0]["keyId"], client.keyId);
    EXPECT_EQ(verdict["blocks"][0]["sha256Fingerprint"], client.fingerprint);
    auto result = verify(package, {"-v"});
    EXPECT_NE(result.output.find("  blocks 1 to 2 of 3: not checked (the newer block was refused)\n"
                                 "  block 3 of 3: refused: the signature value does not verify with the signer's key\n"),
              std::string::npos)
        << result.output;
    EXPECT_NE(result.output.find("    sha256 fingerprint: " + client.fingerprint + "\n"), std::string::npos);
}

// An undecodable block names no signer: its facts are null.
TEST_F(CliVerifySigners, AnUndecodableBlockHasNoSigner)
{
    std::string package = freshPackage();
    ASSERT_EQ(signAs(pki->developer(), package).exitCode, 0);
    appendFile(package, makeBlock(patternBytes(50, 4), 2));
    json block = verifyJson(package)["blocks"][0];
    EXPECT_EQ(block["reason"], "cms_malformed");
    EXPECT_EQ(block["signerKnown"], false);
    for (char const* key : {"group", "subject", "keyId", "sha256Fingerprint", "signingTime"})
        EXPECT_TRUE(block[key].is_null()) << key;
    EXPECT_NE(verify(package, {"-v"}).output.find("  block 2 of 2: refused: the CMS is malformed"), std::string::npos);
}

TEST_F(CliVerifySigners, SignerPinsByKeyIdAndFingerprint)
{
    std::string package = threeSignatures();
    PeerFacts developer = peerFactsOf(pki->developer().certPath);
    PeerFacts seclab = peerFactsOf(pki->seclab().certPath);
    PeerFacts client = peerFactsOf(pki->client().certPath);
    json blocks = verifyJson(package)["blocks"];

    expectAccepted(package, {"--signer", "1=" + developer.keyId});
    expectAccepted(package, {"--signer", "developer=" + developer.keyId, "--signer", "seclab=" + seclab.keyId,
                             "--signer", "3=sha256:" + client.fingerprint});
    // As openssl prints a fingerprint, and a key id in upper case.
    expectAccepted(package, {"--signer", "2=sha256:" + seclab.opensslFingerprint});
    std::string upper = developer.keyId;
    for (char& c : upper)
        c = static_cast<char>(std::toupper(static_cast<unsigned char>(c)));
    expectAccepted(package, {"--signer", "1=" + upper});

    expectRefused(package, {"--signer", "1=" + seclab.keyId}, "signer_not_pinned",
                  "block 1 of 3 (developer, " + coveredText(blocks[2]) +
                      "): the signer is not the one pinned for this position (pinned: --signer 1=" + seclab.keyId +
                      "; found: " + developer.keyId + ")");
    expectRefused(package, {"--signer", "client=sha256:" + developer.fingerprint}, "signer_not_pinned",
                  "block 3 of 3 (client, " + coveredText(blocks[0]) +
                      "): the signer is not the one pinned for this position (pinned: --signer client=sha256:" +
                      developer.fingerprint + "; found: sha256:" + client.fingerprint + ")");
    // The pinned block carries the reason in --json; the others stay ok.
    json verdict = verifyJson(package, {"--signer", "2=" + developer.keyId});
    EXPECT_EQ(verdict["blocks"][1]["index"], 2);
    EXPECT_EQ(verdict["blocks"][1]["reason"], "signer_not_pinned");
    EXPECT_EQ(verdict["blocks"][1]["verified"], false);
    EXPECT_EQ(verdict["blocks"][0]["reason"], "ok");
    EXPECT_EQ(verdict["blocks"][2]["reason"], "ok");

    std::string two = freshPackage("two.rpm");
    ASSERT_EQ(signAs(pki->developer(), two).exitCode, 0);
    ASSERT_EQ(signAs(pki->seclab(), two).exitCode, 0);
    expectRefused(two, {"--signer", "3=" + client.keyId}, "signer_not_pinned",
                  "the signer is not the one pinned for this position (pinned: --signer 3=" + client.keyId +
                      "; no block 3 in a stack of 2)");
    expectRefused(two, {"--signer", "client=" + client.keyId}, "signer_not_pinned",
                  "the signer is not the one pinned for this position (pinned: --signer client=" + client.keyId +
                      "; no client signature)");
}

TEST_F(CliVerifySigners, RequiredStackAndLeastSignatures)
{
    std::string package = freshPackage();
    ASSERT_EQ(signAs(pki->developer(), package).exitCode, 0);
    ASSERT_EQ(signAs(pki->seclab(), package).exitCode, 0);
    expectAccepted(package, {"--require", "developer,seclab"});
    expectAccepted(package, {"--min-signatures", "2"});
    expectAccepted(package, {"--require", "developer,seclab", "--min-signatures", "1"});
    expectRefused(package, {"--require", "developer,seclab,client"}, "stack_incomplete",
                  "the stack of signatures is not the one required (signatures: developer, seclab; required: "
                  "developer, seclab, client)");
    expectRefused(package, {"--require", "developer,client"}, "stack_incomplete",
                  "the stack of signatures is not the one required (signatures: developer, seclab; required: "
                  "developer, client)");
    expectRefused(package, {"--require", "developer"}, "stack_incomplete",
                  "the stack of signatures is not the one required (signatures: developer, seclab; required: "
                  "developer)");
    expectRefused(package, {"--min-signatures", "3"}, "stack_incomplete",
                  "the stack of signatures is not the one required (2 signatures, at least 3 required)");
    // A stack that does not verify is refused for that, whatever the pins.
    Bytes bytes = readFile(package);
    bytes.at(0) ^= 1;
    writeFile(package, bytes);
    EXPECT_EQ(verifyJson(package, {"--min-signatures", "3"})["reason"], "content_digest_mismatch");
}

TEST_F(CliVerifySigners, PinsThatDoNotParseAreBadUsage)
{
    std::string package = threeSignatures();
    for (std::vector<std::string> const& pins :
         {std::vector<std::string>{"--signer", "abcdef"}, {"--signer", "4=abcdef"}, {"--signer", "0=abcdef"},
          {"--signer", "owner=abcdef"}, {"--signer", "1=not-hex"}, {"--signer", "1=sha256:abcd"},
          {"--require", "developer,,client"}, {"--require", "developer,owner"},
          {"--require", "developer,seclab,client,client"}, {"--min-signatures", "0"}, {"--min-signatures", "4"}}) {
        auto result = verify(package, pins);
        EXPECT_EQ(result.exitCode, 2) << pins[0] << " " << pins[1] << ": " << result.errors;
        EXPECT_EQ(result.output, "");
    }
}

// Every CA file that yields no certificate is the CA file's fault.
TEST_F(CliVerifySigners, ACaFileWithoutACertificateIsUnreadable)
{
    std::string package = freshPackage();
    ASSERT_EQ(signAs(pki->developer(), package).exitCode, 0);
    std::string caPem = readText(pki->ca().certPath);
    std::string der = work.file("ca.der");
    ASSERT_EQ(runCommand({"openssl", "x509", "-engine", "gost", "-in", pki->ca().certPath, "-outform", "DER", "-out",
                          der})
                  .exitCode,
              0);
    std::string key = pki->ca().keyPath;
    std::string directory = work.path();
    std::string empty = work.file("empty.pem");
    writeText(empty, "");
    std::string garbage = work.file("garbage.pem");
    writeText(garbage, "not a certificate\n");
    // A first certificate whose base64 is broken, then a good one: the read
    // stops at the first block that does not decode.
    std::string badFirst = work.file("bad-first.pem");
    std::string broken = caPem;
    broken.replace(broken.find('\n') + 10, 4, "!!!!");
    writeText(badFirst, broken + caPem);
    for (std::string const& ca : {der, key, directory, empty, garbage, badFirst}) {
        auto result = run({"verify", package, "--ca", ca, "--json"});
        EXPECT_EQ(result.exitCode, 1) << ca;
        json verdict = json::parse(result.output)["packages"][0];
        EXPECT_EQ(verdict["reason"], "unreadable_ca") << ca;
        EXPECT_EQ(verdict["blocks"], json::array()) << ca;
        std::string line = "sealkeep: " + package + ": no CA certificates could be read from " + ca +
                           (ca == directory ? ": not a regular file\n" : "\n");
        ASSERT_GE(result.errors.size(), line.size()) << ca;
        EXPECT_EQ(result.errors.substr(result.errors.size() - line.size()), line) << result.errors;
    }
    // The good certificate alone still verifies.
    EXPECT_EQ(run({"verify", package, "--ca", pki->ca().certPath}).exitCode, 0);
}

// A PEM block far larger than any certificate ends the read at once: quick,
// and without holding the block.
TEST_F(CliVerifySigners, AHugePemBlockIsRefusedQuicklyInLittleMemory)
{
    std::string package = freshPackage();
    ASSERT_EQ(signAs(pki->developer(), package).exitCode, 0);
    std::string ca = work.file("huge.pem");
    {
        std::ofstream out(ca, std::ios::binary);
        out << "-----BEGIN CERTIFICATE-----\n";
        std::string line(64, 'A');
        line += '\n';
        for (long written = 0; written < (256L << 20); written += static_cast<long>(line.size()))
            out << line;
        out << "-----END CERTIFICATE-----\n";
    }
    struct rusage before {};
    getrusage(RUSAGE_CHILDREN, &before);
    auto start = std::chrono::steady_clock::now();
    auto result = runSealkeepWithin(60, work.path(), {"verify", package, "--ca", ca, "--json"});
    auto seconds = std::chrono::duration<double>(std::chrono::steady_clock::now() - start).count();
    struct rusage after {};
    getrusage(RUSAGE_CHILDREN, &after);
    EXPECT_EQ(result.exitCode, 1) << result.errors;
    EXPECT_EQ(json::parse(result.output)["packages"][0]["reason"], "unreadable_ca");
    EXPECT_NE(result.errors.find("Certificate store \"" + ca + "\" holds a PEM block larger than any certificate\n"),
              std::string::npos)
        << result.errors;
    EXPECT_LT(seconds, 10.0);
    // The largest child so far: when it is this one, well below the block.
    EXPECT_LT(after.ru_maxrss, 200L * 1024) << "KiB, before: " << before.ru_maxrss;
}

// A certificate subject with ESC, BEL and a newline (anyone can make one and
// sign with it) reaches the terminal escaped.
TEST_F(CliVerifySigners, ControlCharactersInASubjectPrintEscaped)
{
    Identity evil = pki->issue("evil\x1b]0;pwned\x07\nblock 1 of 1: verified", "developer");
    std::string package = freshPackage();
    ASSERT_EQ(signAs(evil, package).exitCode, 0) << signAs(evil, package).errors;
    auto result = verify(package, {"-v"});
    ASSERT_EQ(result.exitCode, 0) << result.errors;
    for (std::string const& text : {result.output, result.errors}) {
        for (std::size_t i = 0; i < text.size(); ++i) {
            unsigned char c = static_cast<unsigned char>(text[i]);
            EXPECT_FALSE(c < 0x20 && c != '\n') << "byte " << static_cast<int>(c) << " at " << i << ": " << text;
        }
    }
    EXPECT_EQ(result.output.find("\nblock 1 of 1: verified"), std::string::npos) << result.output;
    // RFC 2253 writes the controls as \XX; the line shows that text as the
    // terminal escapes show any text from a file.
    json block = verifyJson(package)["blocks"][0];
    std::string rfc2253 = "CN=evil\\1B]0\\;pwned\\07\\0Ablock 1 of 1: verified";
    EXPECT_EQ(block["subject"], rfc2253);
    EXPECT_NE(result.output.find("    subject: " + cli::visible(rfc2253) + "\n"), std::string::npos) << result.output;
}

}  // namespace
}  // namespace sealkeep::test
