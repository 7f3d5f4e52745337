// sealkeep ca init / ca issue: a small certificate authority for package
// signers, over the library's make_ca_certificate and make_certificate. The
// certificate is written beside its destination and moved into place only
// when complete, so a failure leaves an existing file as it was; an existing
// file is replaced only with --force. The CA key may be a PEM file or a key
// held by an engine.
#include <sys/stat.h>

#include <memory>
#include <optional>
#include <string>

#include <CLI/CLI.hpp>
#include <nlohmann/json.hpp>
#include <openssl/crypto.h>
#include <openssl/err.h>
#include <openssl/pem.h>

#include <sealkeep/sealkeep.hpp>

#include "cli.hpp"
#include "json_output.hpp"
#include "key_checks.hpp"
#include "key_source.hpp"
#include "owned.hpp"
#include "pending_output.hpp"
#include "terminal_text.hpp"

namespace sealkeep::cli {
namespace {

namespace ps = PackageSignatures;

struct InitOptions {
    std::string out;
    EngineOptions engine;
    KeyOption key;
    std::string commonName;
    bool force = false;
    bool json = false;
};

struct IssueOptions {
    std::string out;
    std::string request;
    EngineOptions engine;
    KeyOption caKey;
    std::string caCert;
    std::string group;
    bool force = false;
    bool json = false;
};

// An existing certificate is replaced only when asked: a CA certificate
// overwritten by mistake orphans every certificate it issued.
bool mayWrite(std::string const& out, bool force)
{
    struct stat status {};
    if (force || lstat(out.c_str(), &status) != 0)
        return true;
    reportFailure(out, "already exists (use --force to replace it)");
    return false;
}

// A key with the engine that holds it (if any), which stays started for as
// long as the key is used.
struct LoadedKey {
    std::shared_ptr<Engine> engine;
    PkeyPtr key;  // released before the engine
    bool inEngine = false;
};

// The key an option names, loaded once; reports and sets status on failure.
std::optional<LoadedKey> loadKey(EngineOptions const& engineOptions, KeyOption const& option, int& status)
{
    auto engine = startEngine(engineOptions, status);
    if (!engine)
        return std::nullopt;
    auto source = KeySource::of(option, *engine, status);
    if (!source)
        return std::nullopt;
    LoadedKey loaded{*engine, source->load(), source->inEngine()};
    if (!loaded.key) {
        status = statusFailed;
        return std::nullopt;
    }
    return loaded;
}

// The CA key must be the CA certificate's, or the certificates issued would
// not verify against it.
bool caKeyMatches(EVP_PKEY* key, bool inEngine, IssueOptions const& options)
{
    X509Ptr caCert(certificate_read(options.caCert.c_str()));
    if (!caCert) {
        reportFailure("--ca-cert " + options.caCert, "cannot read the CA certificate");
        return false;
    }
    if (keyBelongsTo(key, inEngine, caCert.get()))
        return true;
    reportFailure(options.caKey.option + " " + options.caKey.reference,
                  "not the key of the CA certificate given with --ca-cert " + options.caCert);
    return false;
}

// Whether path holds a PEM certificate, read without a word on failure: what
// the library wrote is checked before it replaces anything (a write cut
// short at close is not reported by the library).
bool holdsCertificate(std::string const& path)
{
    BioPtr bio(BIO_new_file(path.c_str(), "r"));
    X509Ptr certificate(bio ? PEM_read_bio_X509(bio.get(), nullptr, nullptr, nullptr) : nullptr);
    ERR_clear_error();
    return certificate != nullptr;
}

// Moves a complete certificate into place; reports and returns false when
// the certificate is not complete or cannot be moved, leaving out as it was.
bool commitCertificate(PendingOutput& output, std::string const& out, std::string const& what)
{
    if (!holdsCertificate(output.path())) {
        reportFailure(out, what + " not issued: what was written does not read back as a certificate");
        return false;
    }
    if (!output.commit()) {
        reportFailure(out, what + " not written: " + systemReason());
        return false;
    }
    return true;
}

// Why text is no group text a verifier reads back as written: a known group,
// optionally followed by ':' and a known subgroup. Read back through the
// library's own parsers, so that both sides agree.
std::optional<std::string> groupTextProblem(std::string const& text)
{
    ps::Group group = ps::groupFromString(text.c_str());
    if (group == ps::Group::None)
        return "unknown group in \"" + text + "\" (expected developer, seclab or client)";
    std::string expected = ps::groupToString(group);
    if (text.find(':') != std::string::npos) {
        ps::Subgroup subgroup = ps::subgroupFromString(text.c_str());
        if (subgroup == ps::Subgroup::None)
            return "unknown subgroup in \"" + text + "\" (leave it out for a regular signer)";
        expected += ":" + ps::subgroupToString(subgroup);
    }
    if (text != expected)
        return "group text \"" + text + "\" would be read back as \"" + expected + "\"";
    return std::nullopt;
}

// The first value of the request's subject a terminal would act on (a
// control character, or bytes that are not UTF-8), escaped; nothing when
// every value prints as it is or the request cannot be read (the library
// then says so). A subject is printed by every command that shows the
// certificate, and must never move the cursor or forge a line there.
std::optional<std::string> controlInSubject(std::string const& requestPath)
{
    BioPtr bio(BIO_new_file(requestPath.c_str(), "r"));
    X509ReqPtr request(bio ? PEM_read_bio_X509_REQ(bio.get(), nullptr, nullptr, nullptr) : nullptr);
    ERR_clear_error();
    X509_NAME* subject = request ? X509_REQ_get_subject_name(request.get()) : nullptr;
    for (int i = 0; subject && i < X509_NAME_entry_count(subject); ++i) {
        unsigned char* text = nullptr;
        int length = ASN1_STRING_to_UTF8(&text, X509_NAME_ENTRY_get_data(X509_NAME_get_entry(subject, i)));
        std::string value = length < 0 ? std::string("\xff") : std::string(reinterpret_cast<char*>(text), length);
        OPENSSL_free(text);
        if (length < 0 || !printable(value))
            return length < 0 ? std::string("(not readable as text)") : visible(value);
    }
    return std::nullopt;
}

// What is printed and put in JSON for a certificate written to out.
nlohmann::json issuedJson(std::string const& out)
{
    ps::Certificate issued = ps::Certificate::readCertificateFromFile(out.c_str());
    nlohmann::json result = fileResult(out, true);
    result.update({{"subject", issued.subject()}, {"keyId", issued.keyId()}});
    return result;
}

int runInit(InitOptions const& options, nlohmann::json& result)
{
    if (!printable(options.commonName)) {
        reportFailure(options.out, "CA certificate not issued: the common name holds control characters: \"" +
                                       visible(options.commonName) + "\"");
        return statusFailed;
    }
    if (!mayWrite(options.out, options.force))
        return statusFailed;
    int status = statusOk;
    auto key = loadKey(options.engine, options.key, status);
    if (!key)
        return status;
    std::string why;
    auto output = PendingOutput::create(options.out, why);
    if (!output) {
        reportFailure(options.out, why);
        return statusFailed;
    }
    if (make_ca_certificate_with_key(output->path().c_str(), key->key.get(), options.commonName.c_str()) != 0) {
        reportFailure(options.out, "CA certificate not issued");
        return statusFailed;
    }
    if (!commitCertificate(*output, options.out, "CA certificate"))
        return statusFailed;
    result = issuedJson(options.out);
    if (!options.json)
        printLine(options.out + ": CA certificate for \"" + visible(options.commonName) + "\"");
    return statusOk;
}

int runIssue(IssueOptions const& options, nlohmann::json& result)
{
    if (auto problem = groupTextProblem(options.group)) {
        reportFailure(options.out, *problem);
        return statusFailed;
    }
    if (auto control = controlInSubject(options.request)) {
        reportFailure(options.out, "certificate not issued: the request's subject holds control characters: \"" +
                                       *control + "\"");
        return statusFailed;
    }
    if (!mayWrite(options.out, options.force))
        return statusFailed;
    int status = statusOk;
    auto caKey = loadKey(options.engine, options.caKey, status);
    if (!caKey)
        return status;
    if (!caKeyMatches(caKey->key.get(), caKey->inEngine, options))
        return statusFailed;
    std::string why;
    auto output = PendingOutput::create(options.out, why);
    if (!output) {
        reportFailure(options.out, why);
        return statusFailed;
    }
    if (make_certificate_with_key(output->path().c_str(), options.request.c_str(), caKey->key.get(),
                                  options.caCert.c_str(), options.group.c_str()) != 0) {
        reportFailure(options.out, "certificate not issued");
        return statusFailed;
    }
    if (!commitCertificate(*output, options.out, "certificate"))
        return statusFailed;
    result = issuedJson(options.out);
    result["group"] = options.group;
    if (!options.json)
        printLine(options.out + ": " + options.group + " certificate for \"" +
                  visible(result["subject"].get<std::string>()) + "\", key id " + result["keyId"].get<std::string>());
    return statusOk;
}

}  // namespace

void addCaCommands(CLI::App& app, int& status)
{
    CLI::App* ca = app.add_subcommand("ca", "Run a certificate authority for package signers");
    ca->require_subcommand(1);

    auto init = std::make_shared<InitOptions>();
    CLI::App* initCommand = ca->add_subcommand("init", "Issue a self-signed CA certificate for a key");
    initCommand->add_option("certificate", init->out, "CA certificate to write (PEM)")->required();
    addKeyOption(*initCommand, init->key, "--key", "--pass", "CA private key")->required();
    initCommand->add_option("--cn", init->commonName, "Common name of the CA")->required();
    initCommand->add_flag("--force", init->force, "Replace an existing certificate");
    initCommand->add_flag("--json", init->json, "Print the result as JSON");
    addEngineOptions(*initCommand, init->engine);
    initCommand->callback([init, &status] { status = runWithResult(init->json, init->out, "not_issued",
                                        [&](nlohmann::json& result) { return runInit(*init, result); }); });

    auto issue = std::make_shared<IssueOptions>();
    CLI::App* issueCommand = ca->add_subcommand("issue", "Issue a signer certificate from a request");
    issueCommand->add_option("certificate", issue->out, "Certificate to write (PEM)")->required();
    issueCommand->add_option("--csr", issue->request, "Certificate request (PEM)")->required();
    addKeyOption(*issueCommand, issue->caKey, "--ca-key", "--ca-pass", "CA private key")->required();
    issueCommand->add_option("--ca-cert", issue->caCert, "CA certificate (PEM)")->required();
    issueCommand
        ->add_option("--group", issue->group, "Signer group, optionally with a subgroup: developer, seclab:mdm, ...")
        ->required();
    issueCommand->add_flag("--force", issue->force, "Replace an existing certificate");
    issueCommand->add_flag("--json", issue->json, "Print the result as JSON");
    addEngineOptions(*issueCommand, issue->engine);
    issueCommand->callback([issue, &status] { status = runWithResult(issue->json, issue->out, "not_issued",
                                        [&](nlohmann::json& result) { return runIssue(*issue, result); }); });
}

}  // namespace sealkeep::cli
