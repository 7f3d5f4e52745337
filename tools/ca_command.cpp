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
#include <openssl/err.h>
#include <openssl/pem.h>

#include <sealkeep/sealkeep.hpp>

#include "cli.hpp"
#include "key_checks.hpp"
#include "key_source.hpp"
#include "owned.hpp"
#include "pending_output.hpp"

namespace sealkeep::cli {
namespace {

namespace ps = PackageSignatures;

struct InitOptions {
    std::string out;
    EngineOptions engine;
    KeyOption key;
    std::string commonName;
    bool force = false;
};

struct IssueOptions {
    std::string out;
    std::string request;
    EngineOptions engine;
    KeyOption caKey;
    std::string caCert;
    std::string group;
    bool force = false;
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

int runInit(InitOptions const& options)
{
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
    printLine(options.out + ": CA certificate for \"" + options.commonName + "\"");
    return statusOk;
}

int runIssue(IssueOptions const& options)
{
    if (auto problem = groupTextProblem(options.group)) {
        reportFailure(options.out, *problem);
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
    ps::Certificate issued = ps::Certificate::readCertificateFromFile(options.out.c_str());
    printLine(options.out + ": " + options.group + " certificate for \"" + issued.subject() + "\", key id " +
              issued.keyId());
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
    addEngineOptions(*initCommand, init->engine);
    initCommand->callback([init, &status] { status = runInit(*init); });

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
    addEngineOptions(*issueCommand, issue->engine);
    issueCommand->callback([issue, &status] { status = runIssue(*issue); });
}

}  // namespace sealkeep::cli
