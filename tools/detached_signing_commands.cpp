// sealkeep prepare, sign-request and attach: signing in three steps, so that
// the key host never sees a package. prepare reads the package where it is
// built and writes a signing request (digests, nothing secret); sign-request
// signs requests with the key and writes signature files; attach appends a
// signature file's CMS to the package it was prepared for, with the write of
// sign, after checking that the package is still as prepared.
#include <algorithm>
#include <cerrno>
#include <cstring>
#include <map>
#include <memory>
#include <set>
#include <string>
#include <vector>

#include <sys/stat.h>
#include <unistd.h>

#include <CLI/CLI.hpp>
#include <nlohmann/json.hpp>
#include <openssl/pem.h>
#include <openssl/x509.h>

#include <sealkeep/sealkeep.hpp>

#include "cli.hpp"
#include "credentials.hpp"
#include "interruptions.hpp"
#include "json_output.hpp"
#include "key_checks.hpp"
#include "owned.hpp"
#include "package_writing.hpp"
#include "pending_output.hpp"
#include "sign_preflight.hpp"
#include "signing_request.hpp"
#include "signing_workers.hpp"

namespace sealkeep::cli {
namespace {

using PackageSignatures::AttachResult;
using PackageSignatures::SignaturePlan;

// OP-TEE's identifiers of the two RSA signature schemes for TA headers.
constexpr unsigned taAlgorithmPss = 0x70414930u;
constexpr unsigned taAlgorithmPkcs1 = 0x70004830u;

unsigned taAlgorithmOf(std::string const& name)
{
    return name == "pkcs1" ? taAlgorithmPkcs1 : taAlgorithmPss;
}

std::string groupName(PackageSignatures::Group group)
{
    std::string text = PackageSignatures::groupToString(group);
    return text.empty() ? "group-less" : text;
}

// Writes bytes to destination through a temporary file renamed over it, so
// that a reader (or a crash) never sees half a file. False after one line.
bool writeOutput(std::string const& destination, Bytes const& bytes)
{
    std::string why;
    auto pending = PendingOutput::create(destination, why);
    if (!pending) {
        reportFailure(destination, "cannot write: " + why);
        return false;
    }
    FILE* file = fopen(pending->path().c_str(), "wbe");
    bool written = file && fwrite(bytes.data(), 1, bytes.size(), file) == bytes.size();
    written = file && fflush(file) == 0 && fsync(fileno(file)) == 0 && written;
    if (file && fclose(file) != 0)
        written = false;
    if (!written || !pending->commit()) {
        reportFailure(destination, "cannot write: " + systemReason());
        return false;
    }
    return true;
}

// ---- prepare ---------------------------------------------------------------

struct PrepareOptions {
    std::string package;
    std::string certificate;
    std::string output;
    std::string taPublicKey;
    std::string taAlgorithm;
    bool replace = false;
    int format = 3;
    bool noFileSignatures = false;
    double waitSeconds = defaultLockWaitSeconds;
    bool json = false;
};

// What the TA key contributes to the hashes, read from its public half.
std::optional<PackageSignatures::TrustedApplicationKeyShape> taKeyShape(PrepareOptions const& options)
{
    PackageSignatures::TrustedApplicationKeyShape shape;
    if (options.taPublicKey.empty())
        return shape;
    FILE* file = fopen(options.taPublicKey.c_str(), "re");
    PkeyPtr key(file ? PEM_read_PUBKEY(file, nullptr, nullptr, nullptr) : nullptr);
    if (file)
        fclose(file);
    if (!key || EVP_PKEY_base_id(key.get()) != EVP_PKEY_RSA) {
        reportFailure("--ta-public-key " + options.taPublicKey, "not a PEM RSA public key");
        return std::nullopt;
    }
    shape.algorithm = taAlgorithmOf(options.taAlgorithm);
    shape.signatureSize = static_cast<std::uint32_t>(EVP_PKEY_size(key.get()));
    return shape;
}

int runPrepare(PrepareOptions const& options, nlohmann::json& result)
{
    X509Ptr certificate(certificate_read(options.certificate.c_str()));
    if (!certificate) {
        reportFailure("--cert " + options.certificate, "cannot read the signer certificate");
        return statusFailed;
    }
    Bytes certificateDer;
    {
        unsigned char* der = nullptr;
        int length = i2d_X509(certificate.get(), &der);
        if (length <= 0) {
            reportFailure("--cert " + options.certificate, "cannot encode the signer certificate");
            return statusFailed;
        }
        certificateDer.assign(der, der + length);
        OPENSSL_free(der);
    }
    std::unique_ptr<char, FreeWith<free>> groupText(certificate_get_group(certificate.get()));
    const auto group = PackageSignatures::groupFromString(groupText.get());
    auto shape = taKeyShape(options);
    if (!shape)
        return statusFailed;

    auto file = openPackageForWriting(options.package, "not prepared", options.waitSeconds);
    if (!file)
        return statusFailed;
    if (!file->maySign(group, options.replace)) {
        reportFailure(options.package, "not prepared: a " + groupName(group) +
                                           " signature cannot take the next position of the stack as it stands" +
                                           (options.replace ? ", even with --replace" : "") + " (signatures: " +
                                           countOf(file->blockLocations().size(), "signature") + ")");
        return statusFailed;
    }
    auto plan = file->planSignature(certificate.get(), options.replace, !options.noFileSignatures, *shape);
    if (!plan) {
        reportFailure(options.package, "not prepared: the package cannot be read for signing");
        return statusFailed;
    }
    file->unlock();
    SigningRequest request{certificateDer, options.format, std::move(*plan)};
    Bytes der = encodeRequest(request);
    if (!writeOutput(options.output, der))
        return statusFailed;
    result = fileResult(options.package, true);
    result.update({{"request", options.output},
                   {"group", groupName(group)},
                   {"position", request.plan.position + 1},
                   {"fileDigests", request.plan.files.size()},
                   {"trustedApplications", request.plan.trustedApplications.size()},
                   {"bytes", der.size()}});
    if (!options.json)
        printLine(options.output + ": signing request for " + options.package + " as " + groupName(group) +
              " at position " + std::to_string(request.plan.position + 1) + " (" +
              countOf(request.plan.files.size(), "payload file digest") + ", " +
              countOf(request.plan.trustedApplications.size(), "trusted application") + ", " +
              std::to_string(der.size()) + " bytes)");
    return statusOk;
}

// ---- sign-request ------------------------------------------------------------

struct SignRequestOptions {
    std::vector<std::string> requests;
    CredentialOptions credentials;
    std::string taAlgorithm;
    bool allowUnverifiableKey = false;
    std::string output;
    unsigned jobs = 1;
    bool json = false;
};

// Where the signature for request goes: output itself for a single request,
// else output as a directory holding the request's base name with a final
// ".request" replaced by ".signature" (or ".signature" appended).
std::string signatureName(std::string const& request, SignRequestOptions const& options)
{
    if (options.requests.size() == 1)
        return options.output;
    std::string base = request.substr(request.find_last_of('/') + 1);
    const std::string suffix = ".request";
    if (base.size() > suffix.size() && base.compare(base.size() - suffix.size(), suffix.size(), suffix) == 0)
        base.resize(base.size() - suffix.size());
    return options.output + "/" + base + ".signature";
}

// Why the request cannot be signed with these credentials; empty when it can.
std::string requestRefusal(SigningRequest const& request, Credentials const& credentials, bool taKeyGiven)
{
    const unsigned char* in = request.certificate.data();
    X509Ptr certificate(d2i_X509(nullptr, &in, static_cast<long>(request.certificate.size())));
    if (!certificate || in != request.certificate.data() + request.certificate.size())
        return "its signer certificate does not decode";
    if (X509_cmp(certificate.get(), credentials.certificate.get()) != 0)
        return "it was prepared for another certificate (key id " + keyIdOf(certificate.get()) +
               ") than --cert (key id " + keyIdOf(credentials.certificate.get()) + ")";
    SignaturePlan const& plan = request.plan;
    if (!plan.trustedApplications.empty()) {
        if (!taKeyGiven)
            return "it has trusted applications, and no --ta-key is given";
        const auto size = static_cast<std::uint32_t>(EVP_PKEY_size(credentials.taKey.get()));
        if (size != plan.trustedApplicationKey.signatureSize)
            return "its trusted applications were hashed for a TA key of " +
                   std::to_string(plan.trustedApplicationKey.signatureSize) + "-byte signatures, --ta-key makes " +
                   std::to_string(size) + "-byte ones";
    }
    return {};
}

bool signOneRequest(std::string const& path, Credentials const& credentials, SignRequestOptions const& options,
                    bool taKeyGiven, nlohmann::json& result)
{
    std::string refusal;
    std::optional<Bytes> der = readBoundedFile(path, maxRequestSize, refusal);
    std::optional<SigningRequest> request = der ? decodeRequest(*der, refusal) : std::nullopt;
    if (request)
        refusal = requestRefusal(*request, credentials, taKeyGiven);
    if (!refusal.empty()) {
        reportFailure(path, "not signed: " + refusal);
        return false;
    }
    if (taKeyGiven && !request->plan.trustedApplications.empty() &&
        request->plan.trustedApplicationKey.algorithm != taAlgorithmOf(options.taAlgorithm)) {
        reportFailure(path, "not signed: its trusted applications were hashed for the other --ta-algorithm");
        return false;
    }
    Bytes cms = PackageSignatures::signSignaturePlan(request->plan, credentials.certificate.get(),
                                                     credentials.key.get(), credentials.taKey.get(),
                                                     credentials.rotationChain.get());
    if (cms.empty()) {
        reportFailure(path, "not signed: signing failed");
        return false;
    }
    SignatureFile signature{request->format, std::move(request->plan), std::move(cms)};
    signature.plan.files.clear();
    signature.plan.trustedApplications.clear();
    const std::string output = signatureName(path, options);
    if (!writeOutput(output, encodeSignatureFile(signature)))
        return false;
    result = fileResult(path, true);
    result["signature"] = output;
    if (!options.json)
        printLine(output + ": signature for " + path);
    return true;
}

// Two requests whose signatures would go to one file.
bool namesAnOutputTwice(SignRequestOptions const& options)
{
    std::map<std::string, std::string> seen;
    for (auto const& request : options.requests) {
        auto [first, fresh] = seen.emplace(signatureName(request, options), request);
        if (!fresh) {
            reportFailure(request, "its signature would overwrite that of " + first->second + " in " +
                                       first->first + "; give requests distinct names");
            return true;
        }
    }
    return false;
}

int runSignRequest(SignRequestOptions& options)
{
    if (options.requests.size() > 1) {
        struct stat status {};
        if (stat(options.output.c_str(), &status) != 0 || !S_ISDIR(status.st_mode)) {
            reportFailure(options.output, "not a directory; with several requests, -o names the directory "
                                          "for their signatures");
            return statusUsage;
        }
    }
    if (namesAnOutputTwice(options))
        return statusUsage;
    int status = statusOk;
    auto source = CredentialSource::open(options.credentials, status);
    if (!source)
        return status;
    unsigned threads = static_cast<unsigned>(std::min<std::size_t>(options.jobs, options.requests.size()));
    auto credentials = credentialsPerThread(*source, threads);
    if (!credentials)
        return statusFailed;
    // The pre-flight of sign: the same checks, once, before any request.
    SignPlan plan;
    plan.allowUnverifiableKey = options.allowUnverifiableKey;
    PackageSignatures::Group group = PackageSignatures::Group::None;
    if (int refused = checkSigner(*source, (*credentials)[0], plan, group); refused != statusOk)
        return refused;
    const bool taKeyGiven = source->taKey() != nullptr;

    bool anyFailed = false;
    auto results = signOnWorkers(options.requests, *credentials, "not_signed",
                                 [&](std::string const& path, Credentials const& own, nlohmann::json& result) {
                                     return signOneRequest(path, own, options, taKeyGiven, result);
                                 },
                                 anyFailed);
    if (options.json)
        printJson({{"requests", resultArray(std::move(results))}});
    return anyFailed ? statusFailed : statusOk;
}

// ---- attach -------------------------------------------------------------------

struct AttachOptions {
    std::string package;
    std::string signature;
    double waitSeconds = defaultLockWaitSeconds;
    bool json = false;
};

std::string attachRefusal(AttachResult result, SignatureFile const& signature,
                          PackageSignatures::FileWithCmses& file)
{
    SignaturePlan const& plan = signature.plan;
    switch (result) {
    case AttachResult::Attached:
    case AttachResult::WriteFailed:
        return {};
    case AttachResult::NotASignature:
        return "the signature file holds no CMS signature that verifies";
    case AttachResult::NotForThisPlan:
        return "the CMS in the signature file does not sign the digest its request gave";
    case AttachResult::PositionTaken:
    case AttachResult::StackChanged:
        return "the signature was made for position " + std::to_string(plan.position + 1) +
               " of the signature stack, which the package no longer offers it (signatures now: " +
               std::to_string(file.blockLocations().size()) + ")";
    case AttachResult::PackageChanged:
        return "the signature was prepared for another package, or for this one before it changed (" +
               std::to_string(plan.fileSize) + " bytes then, " + std::to_string(lseek(file.fd(), 0, SEEK_END)) +
               " now)";
    case AttachResult::RangeChanged:
        return "the covered bytes [" + std::to_string(plan.coveredBegin) + ", " + std::to_string(plan.coveredEnd) +
               ") are not those the signature signs";
    }
    return "refused";
}

int runAttach(AttachOptions const& options, nlohmann::json& result)
{
    std::string refusal;
    std::optional<Bytes> der = readBoundedFile(options.signature, maxSignatureFileSize, refusal);
    std::optional<SignatureFile> signature = der ? decodeSignatureFile(*der, refusal) : std::nullopt;
    if (!signature) {
        reportFailure(options.signature, refusal);
        return statusFailed;
    }
    auto file = openPackageForWriting(options.package, "not attached", options.waitSeconds);
    if (!file)
        return statusFailed;
    WriteInProgress writing;
    if (interruptionPending())
        return statusFailed;
    refusal = fileSizeLimitRefusal(*file, signature->plan.replace);
    if (!refusal.empty()) {
        reportFailure(options.package, "not attached: " + refusal);
        return statusFailed;
    }
    const AttachResult attached = file->attach(signature->cms, signature->plan, signature->format == 3);
    if (attached == AttachResult::Attached) {
        result = fileResult(options.package, true);
        result["signatures"] = file->blockLocations().size();
        if (!options.json)
            printLine(options.package + ": signature attached (" +
                      countOf(file->blockLocations().size(), "signature") + ")");
        return statusOk;
    }
    refusal = attachRefusal(attached, *signature, *file);
    reportFailure(options.package, "not attached: " + (refusal.empty() ? std::string("writing failed; the package "
                                                                                      "is left as it was")
                                                                        : refusal));
    return statusFailed;
}

}  // namespace

void addDetachedSigningCommands(CLI::App& app, int& status)
{
    auto prepare = std::make_shared<PrepareOptions>();
    CLI::App* prepareCommand =
        app.add_subcommand("prepare", "Write a signing request for a package: its digests, for signing elsewhere");
    prepareCommand->add_option("package", prepare->package, "Package to be signed")->required();
    prepareCommand->add_option("--cert", prepare->certificate, "Certificate of the signer who will sign it (PEM)")
        ->required();
    prepareCommand->add_option("-o,--output", prepare->output, "Signing request to write")->required();
    prepareCommand->add_flag("--replace", prepare->replace,
                             "Plan to replace the newest signature of the same group (every signature for a "
                             "developer)");
    prepareCommand->add_option("--format", prepare->format, "Block format: 3 (a skippable frame) or 2")
        ->capture_default_str()
        ->check(CLI::IsMember({3, 2}));
    prepareCommand->add_flag("--no-file-signatures", prepare->noFileSignatures,
                             "Do not plan signatures of the payload's files and trusted applications");
    auto taPublicKey = prepareCommand->add_option(
        "--ta-public-key", prepare->taPublicKey,
        "Public half (PEM) of the key that will sign the trusted applications");
    auto taAlgorithm = prepareCommand
                           ->add_option("--ta-algorithm", prepare->taAlgorithm,
                                        "Signature scheme of the trusted-application headers")
                           ->check(CLI::IsMember({"pss", "pkcs1"}));
    taPublicKey->needs(taAlgorithm);
    taAlgorithm->needs(taPublicKey);
    prepareCommand->add_option("--wait", prepare->waitSeconds,
                               "Seconds to wait for another process writing the same package")
        ->capture_default_str()
        ->check(CLI::Range(0.0, 86400.0));
    prepareCommand->add_flag("--json", prepare->json, "Print the result as JSON");
    prepareCommand->callback([prepare, &status] {
        status = runWithResult(prepare->json, prepare->package, "not_prepared",
                               [&](nlohmann::json& result) { return runPrepare(*prepare, result); });
    });

    auto signRequest = std::make_shared<SignRequestOptions>();
    CLI::App* signCommand = app.add_subcommand(
        "sign-request", "Sign signing requests without the packages: write a signature file for each");
    signCommand->add_option("requests", signRequest->requests, "Signing requests")->required();
    auto taKey = addCredentialOptions(*signCommand, signRequest->credentials);
    auto signTaAlgorithm = signCommand
                               ->add_option("--ta-algorithm", signRequest->taAlgorithm,
                                            "Signature scheme of the trusted-application headers")
                               ->check(CLI::IsMember({"pss", "pkcs1"}));
    taKey->needs(signTaAlgorithm);
    signTaAlgorithm->needs(taKey);
    signCommand->add_option("-o,--output", signRequest->output,
                            "Signature file to write; with several requests, the directory for them")
        ->required();
    signCommand->add_flag("--allow-unverifiable-file-signatures", signRequest->allowUnverifiableKey,
                          "Sign the payload's files with a GOST key the Linux kernel's IMA cannot verify");
    signCommand->add_option("--jobs,-j", signRequest->jobs, "Requests signed at once")
        ->capture_default_str()
        ->check(CLI::PositiveNumber);
    signCommand->add_flag("--json", signRequest->json, "Print the results as JSON");
    signCommand->callback([signRequest, &status] { status = runSignRequest(*signRequest); });

    auto attach = std::make_shared<AttachOptions>();
    CLI::App* attachCommand =
        app.add_subcommand("attach", "Append a signature made by sign-request to the package it was prepared for");
    attachCommand->add_option("package", attach->package, "Package")->required();
    attachCommand->add_option("signature", attach->signature, "Signature file")->required();
    attachCommand->add_option("--wait", attach->waitSeconds,
                              "Seconds to wait for another process writing the same package")
        ->capture_default_str()
        ->check(CLI::Range(0.0, 86400.0));
    attachCommand->add_flag("--json", attach->json, "Print the result as JSON");
    attachCommand->callback([attach, &status] {
        status = runWithResult(attach->json, attach->package, "not_attached",
                               [&](nlohmann::json& result) { return runAttach(*attach, result); });
    });
}

}  // namespace sealkeep::cli
