// Every subcommand's --json document, made on real packages, certificates,
// chains, installed files and a device's database, validates against the
// installed sealkeep.schema.json (Python's jsonschema), each against the
// document its subcommand names and against the schema as a whole.
#include <string>
#include <utility>
#include <vector>

#include <gtest/gtest.h>
#include <nlohmann/json.hpp>

#include "support/cli_test.hpp"
#include "support/device_root.hpp"
#include "support/payload_signatures.hpp"
#include "support/pki.hpp"

namespace sealkeep::test {
namespace {

using nlohmann::json;

// Validates NAME=FILE pairs: each file against $defs/NAME and against the
// whole schema; one line per error, exit status 1 when there is any.
constexpr char const* validator = R"(
import json, sys
import jsonschema
schema = json.load(open(sys.argv[1]))
jsonschema.Draft202012Validator.check_schema(schema)
whole = {k: v for k, v in schema.items() if k != "anyOf"}
errors = 0
for pair in sys.argv[2:]:
    name, path = pair.split("=", 1)
    document = json.load(open(path))
    for target in (dict(whole, **{"$ref": "#/$defs/" + name}), schema):
        for error in jsonschema.Draft202012Validator(target).iter_errors(document):
            print(name, path, error.message, list(error.absolute_path))
            errors += 1
sys.exit(1 if errors else 0)
)";

class CliJsonSchema : public CliTest {
protected:
    // Runs the subcommand with --json, expecting exitCode, and keeps its
    // document to validate as the schema's definition name.
    json document(std::string const& name, std::vector<std::string> args, int exitCode = 0)
    {
        args.push_back("--json");
        auto result = run(args);
        EXPECT_EQ(result.exitCode, exitCode) << name << ": " << result.errors;
        std::string path = work.file("document-" + std::to_string(documents.size()) + ".json");
        writeText(path, result.output);
        documents.emplace_back(name, path);
        json parsed = json::parse(result.output, nullptr, false);
        EXPECT_FALSE(parsed.is_discarded()) << name << ": " << result.output;
        return parsed;
    }

    // The validator's verdict on every document kept.
    CommandResult validate() const
    {
        std::string script = work.file("validate.py");
        writeText(script, validator);
        std::vector<std::string> argv = {"python3", script, SEALKEEP_TEST_SCHEMA};
        for (auto const& [name, path] : documents)
            argv.push_back(name + "=" + path);
        return runCommand(argv);
    }

    std::vector<std::pair<std::string, std::string>> documents;
};

TEST_F(CliJsonSchema, EveryDocumentOfEverySubcommandValidates)
{
    // A CA and a developer certificate of our own.
    generateKey(work.file("ca.key"));
    document("caInit", {"ca", "init", "ca.pem", "--key", "ca.key", "--cn", "schema CA"});
    document("caInit", {"ca", "init", "ca.pem", "--key", "ca.key", "--cn", "schema CA"}, 1);
    generateKey(work.file("dev.key"));
    writeRequest(work.file("dev.key"), work.file("dev.csr"), "schema developer");
    document("caIssue", {"ca", "issue", "dev.pem", "--csr", "dev.csr", "--ca-key", "ca.key", "--ca-cert", "ca.pem",
                         "--group", "developer"});
    document("caIssue", {"ca", "issue", "dev.pem", "--csr", "dev.csr", "--ca-key", "ca.key", "--ca-cert", "ca.pem",
                         "--group", "nobody"}, 1);

    // Packages signed, one that is not there among them.
    std::string package = freshPackage("package.rpm");
    std::string second = freshPackage("second.rpm");
    json signing = document("sign", {"sign", package, second, "missing.rpm", "--cert", pki->developer().certPath,
                                     "--key", pki->developer().keyPath}, 1);
    EXPECT_EQ(signing["packages"].size(), 3u);
    document("sign", {"sign", package, "--cert", pki->seclab().certPath, "--key", pki->seclab().keyPath});
    std::string unsignedPackage = freshPackage("unsigned.rpm");
    json verdicts = document("verify", {"verify", package, unsignedPackage, "missing.rpm", "--ca",
                                        pki->ca().certPath}, 1);
    EXPECT_EQ(verdicts["packages"][2]["reason"], "unreadable_file");
    document("verify", {"verify", package, "--ca", "missing-ca.pem"}, 1);
    document("inspect", {"inspect", package, "--files"});
    document("inspect", {"inspect", "missing.rpm"}, 1);
    document("strip", {"strip", second, "--last"});
    document("strip", {"strip", second});
    document("strip", {"strip", "missing.rpm"}, 1);

    // Signing in three steps: a request, its signature, attached; then a
    // signature that no longer fits the package, and a request that is not one.
    std::string offline = freshPackage("offline.rpm");
    document("prepare", {"prepare", offline, "--cert", pki->developer().certPath, "-o", "offline.request"});
    document("prepare", {"prepare", "missing.rpm", "--cert", pki->developer().certPath, "-o", "none.request"}, 1);
    writeText(work.file("bad.request"), "not a request\n");
    document("signRequest", {"sign-request", "offline.request", "--cert", pki->developer().certPath, "--key",
                             pki->developer().keyPath, "-o", "offline.signature"});
    document("signRequest", {"sign-request", "bad.request", "--cert", pki->developer().certPath, "--key",
                             pki->developer().keyPath, "-o", "bad.signature"}, 1);
    document("attach", {"attach", offline, "offline.signature"});
    document("attach", {"attach", offline, "offline.signature"}, 1);

    // A rotation chain.
    Identity successor = pki->issue("schema-successor", "developer");
    document("rotate", {"rotate", "chain.pem", "--old-cert", pki->developer().certPath, "--old-key",
                        pki->developer().keyPath, "--new-cert", successor.certPath, "--new-key", successor.keyPath});
    document("rotate", {"rotate", "chain.pem", "--old-cert", pki->developer().certPath, "--old-key",
                        pki->developer().keyPath, "--new-cert", successor.certPath, "--new-key", successor.keyPath},
             1);
    document("rotationShow", {"rotation", "show", "chain.pem"});
    document("rotationShow", {"rotation", "show", "missing.pem"}, 1);

    // Files installed under a root, labelled; one changed.
    std::string root = work.file("root");
    unpackPayload(package, root);
    json applied = document("imaApply", {"ima", "apply", package, "--root", root, "--ca", pki->ca().certPath,
                                         "--xattr-user"});
    EXPECT_EQ(applied["ok"], true);
    auto names = packageFileNames(package);
    writeText(root + names.at(0), "changed\n");
    document("imaApply", {"ima", "apply", package, "--root", root, "--ca", pki->ca().certPath, "--xattr-user",
                          "--dry-run"}, 1);
    document("imaApply", {"ima", "apply", unsignedPackage, "--root", root, "--ca", pki->ca().certPath}, 1);

    // A device's database through its life.
    DeviceRoot device(pki->ca().certPath);
    auto db = [&](std::string const& name, std::vector<std::string> args, int exitCode = 0) {
        args.insert(args.begin(), "db");
        args.push_back("--conf");
        args.push_back(device.conf());
        return document(name, args, exitCode);
    };
    db("dbInstall", {"install", package});
    db("dbInstall", {"install", "missing.rpm"}, 1);
    db("dbStatus", {"status"});
    db("dbCheck", {"check", package});
    std::string stranger = freshPackage("stranger.rpm");
    Identity other = pki->issue("schema-other", "developer");
    ASSERT_EQ(signAs(other, stranger).exitCode, 0);
    json mismatch = db("dbCheck", {"check", stranger}, 1);
    EXPECT_EQ(mismatch["reason"], "developer_mismatch");
    db("dbInstall", {"install", stranger}, 1);
    db("dbCheck", {"check", unsignedPackage}, 1);
    db("dbList", {"list"});
    db("dbCertificates", {"certificates"});
    db("dbCertificates", {"certificates", "--active"});
    std::string keyId = json::parse(run({"inspect", package, "--json"}).output)["blocks"][0]["signer"]["keyId"];
    db("dbRevoke", {"revoke", keyId, "--superseded"});
    db("dbRevoked", {"revoked"});
    db("dbRevoke", {"unrevoke", keyId, "--superseded"});
    db("dbSync", {"sync"});
    db("dbDeveloperMode", {"developer-mode"});
    db("dbRemove", {"remove", "cli-demo"});
    db("dbRemove", {"remove", "cli-demo"});

    for (auto const& [name, path] : documents) {
        json parsed = json::parse(readText(path), nullptr, false);
        EXPECT_EQ(parsed["schemaVersion"], 1) << name << " " << path;
    }
    auto validation = validate();
    EXPECT_EQ(validation.exitCode, 0) << validation.output << validation.errors;
    EXPECT_EQ(validation.output, "");
}

// The check is no formality: a document with a key in another spelling, a
// refusal without its reason, or a decision in another case is refused.
TEST_F(CliJsonSchema, DocumentsOfAnotherSpellingDoNotValidate)
{
    std::vector<std::pair<std::string, json>> wrong = {
        {"dbRevoked", {{"schemaVersion", 1}, {"revoked", {{{"keyid", "00"}, {"type", "blacklisted"}}}}}},
        {"verify", {{"schemaVersion", 1}, {"packages", {{{"path", "a.rpm"}, {"ok", false}, {"blocks", json::array()}}}}}},
        {"dbCheck", {{"schemaVersion", 1}, {"path", "a.rpm"}, {"ok", true}, {"package", "a"}, {"decision", "Accepted"},
                     {"code", 0}, {"installedKeyId", nullptr}}},
        {"strip", {{"path", "a.rpm"}, {"ok", true}, {"removed", 1}, {"signatures", 0}}},
    };
    for (auto const& [name, body] : wrong) {
        documents.clear();
        std::string path = work.file("wrong.json");
        writeText(path, body.dump());
        documents.emplace_back(name, path);
        auto validation = validate();
        EXPECT_EQ(validation.exitCode, 1) << name << ": " << validation.output << validation.errors;
        EXPECT_NE(validation.output, "") << name;
    }
}

}  // namespace
}  // namespace sealkeep::test
