// sealkeep sign: appends one signature to each package named, on up to
// --jobs threads. Packages are independent: a package that cannot be signed
// is reported and left as it was, and the others go on.
#include <sys/stat.h>

#include <algorithm>
#include <map>
#include <memory>
#include <string>
#include <utility>
#include <vector>

#include <CLI/CLI.hpp>
#include <nlohmann/json.hpp>

#include <sealkeep/sealkeep.hpp>

#include "cli.hpp"
#include "credentials.hpp"
#include "interruptions.hpp"
#include "json_output.hpp"
#include "package_writing.hpp"
#include "sign_preflight.hpp"
#include "signing_workers.hpp"

namespace sealkeep::cli {
namespace {

// OP-TEE's identifiers of the two RSA signature schemes for TA headers.
constexpr unsigned taAlgorithmPss = 0x70414930u;
constexpr unsigned taAlgorithmPkcs1 = 0x70004830u;

struct SignOptions {
    std::vector<std::string> packages;
    CredentialOptions credentials;
    bool allowUnverifiableKey = false;
    std::string taAlgorithm;
    bool replace = false;
    int format = 3;
    bool noFileSignatures = false;
    unsigned jobs = 1;
    double waitSeconds = defaultLockWaitSeconds;
    bool json = false;
};

std::string groupName(PackageSignatures::Group group)
{
    std::string text = PackageSignatures::groupToString(group);
    return text.empty() ? "group-less" : text;
}

// "developer, seclab, client"; "none" for an unsigned package. Reading the
// signers makes the library report each block it cannot decode, so this is
// asked only to explain a refusal.
std::string groupsPresent(PackageSignatures::FileWithCmses const& file)
{
    std::string text;
    for (auto const& cms : file.cmses()) {
        auto certificate = cms.certificate();
        std::string group = !certificate || !certificate->get()
                                ? std::string("unreadable")
                                : PackageSignatures::groupToString(certificate->group());
        text += (text.empty() ? "" : ", ") + (group.empty() ? std::string("no group") : group);
    }
    return text.empty() ? "none" : text;
}

// Why a signer of group may not sign the file as it is now; empty when it
// may. Asked under the package's lock, before anything is written.
std::string refusalOf(PackageSignatures::FileWithCmses& file, PackageSignatures::Group group, bool replace)
{
    if (file.maySign(group, replace))
        return {};
    return "a " + groupName(group) + " signature cannot take the next position of the stack as it stands" +
           (replace ? ", even with --replace" : "") + " (signatures: " + groupsPresent(file) + ")";
}

// Signs one package; on any refusal or failure the package is left byte for
// byte as it was (the library writes a new version and puts it in place only
// once it is complete), and one line says why. result is set once signed.
bool signPackage(std::string const& path, PackageSignatures::Group group, Credentials const& credentials,
                 SignOptions const& options, nlohmann::json& result)
{
    auto file = openPackageForWriting(path, "not signed", options.waitSeconds);
    if (!file)
        return false;
    // An interruption while waiting for the lock ends the command at once;
    // from here on it waits for this package.
    WriteInProgress writing;
    if (interruptionPending())
        return false;  // honoured as writing ends, before anything is written
    std::string refusal = refusalOf(*file, group, options.replace);
    if (refusal.empty())
        refusal = fileSizeLimitRefusal(*file, options.replace);
    if (!refusal.empty()) {
        reportFailure(path, "not signed: " + refusal);
        return false;
    }
    unsigned taAlgorithm = options.taAlgorithm == "pkcs1" ? taAlgorithmPkcs1 : taAlgorithmPss;
    if (!file->sign(credentials.certificate.get(), credentials.key.get(), credentials.taKey.get(), taAlgorithm,
                    credentials.rotationChain.get(), options.replace, options.format == 3,
                    !options.noFileSignatures)) {
        reportFailure(path, "not signed: signing as " + groupName(group) + " failed; the package is left as it was");
        return false;
    }
    result = fileResult(path, true);
    result.update({{"group", PackageSignatures::groupToString(group)}, {"signatures", file->cmses().size()}});
    if (!options.json)
        printLine(path + ": signed as " + groupName(group) + " (" + countOf(file->cmses().size(), "signature") + ")");
    return true;
}

SignPlan signPlan(SignOptions const& options)
{
    SignPlan plan;
    plan.fileSignatures = !options.noFileSignatures;
    plan.allowUnverifiableKey = options.allowUnverifiableKey;
    return plan;
}

// Two threads appending to one file would interleave their blocks, so each
// file may be named once, whatever path names it.
bool namesAFileTwice(std::vector<std::string> const& packages)
{
    std::map<std::pair<dev_t, ino_t>, std::string> seen;
    for (auto const& path : packages) {
        struct stat status {};
        if (stat(path.c_str(), &status) != 0)
            continue;  // reported when it is opened for signing
        auto [first, fresh] = seen.emplace(std::make_pair(status.st_dev, status.st_ino), path);
        if (!fresh) {
            reportFailure(path, "the same file as " + first->second + ", named twice; name each package once");
            return true;
        }
    }
    return false;
}

int runSign(SignOptions& options)
{
    if (namesAFileTwice(options.packages))
        return statusUsage;
    int status = statusOk;
    auto source = CredentialSource::open(options.credentials, status);
    if (!source)
        return status;
    unsigned threads = std::min<std::size_t>(options.jobs, options.packages.size());
    auto credentials = credentialsPerThread(*source, threads);
    if (!credentials)
        return statusFailed;
    PackageSignatures::Group group = PackageSignatures::Group::None;
    if (int refused = checkSigner(*source, (*credentials)[0], signPlan(options), group); refused != statusOk)
        return refused;

    bool anyFailed = false;
    auto results = signOnWorkers(options.packages, *credentials, "not_signed",
                                 [&](std::string const& path, Credentials const& own, nlohmann::json& result) {
                                     return signPackage(path, group, own, options, result);
                                 },
                                 anyFailed);
    // A package an interruption left untouched has no result.
    if (options.json)
        printJson({{"packages", resultArray(std::move(results))}});
    return anyFailed ? statusFailed : statusOk;
}

}  // namespace

void addSignCommand(CLI::App& app, int& status)
{
    auto options = std::make_shared<SignOptions>();
    CLI::App* sign = app.add_subcommand("sign", "Append a signature to each package");
    sign->add_option("packages", options->packages, "Packages to sign")->required();
    auto taKey = addCredentialOptions(*sign, options->credentials);
    auto taAlgorithm = sign->add_option("--ta-algorithm", options->taAlgorithm,
                                        "Signature scheme of the trusted-application headers")
                           ->check(CLI::IsMember({"pss", "pkcs1"}));
    taKey->needs(taAlgorithm);
    taAlgorithm->needs(taKey);
    sign->add_flag("--replace", options->replace,
                   "Replace the newest signature of the same group (every signature for a developer)");
    sign->add_option("--format", options->format, "Block format: 3 (a skippable frame) or 2")
        ->capture_default_str()
        ->check(CLI::IsMember({3, 2}));
    sign->add_flag("--no-file-signatures", options->noFileSignatures,
                   "Do not sign the payload's files and trusted applications");
    sign->add_option("--wait", options->waitSeconds,
                     "Seconds to wait for another process writing the same package")
        ->capture_default_str()
        ->check(CLI::Range(0.0, 86400.0));
    sign->add_flag("--allow-unverifiable-file-signatures", options->allowUnverifiableKey,
                   "Sign the payload's files with a GOST key the Linux kernel's IMA cannot verify");
    sign->add_option("--jobs,-j", options->jobs, "Packages signed at once")
        ->capture_default_str()
        ->check(CLI::Validator(
            [](std::string& text) {
                bool whole = !text.empty() && text.find_first_not_of("0123456789") == std::string::npos;
                return whole && text.find_first_not_of('0') != std::string::npos
                           ? std::string()
                           : "must be a whole number of 1 or more, not " + text;
            },
            "N>=1", "jobs"));
    sign->add_flag("--json", options->json, "Print the results as JSON");
    sign->callback([options, &status] { status = runSign(*options); });
}

}  // namespace sealkeep::cli
