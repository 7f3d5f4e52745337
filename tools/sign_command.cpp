// sealkeep sign: appends one signature to each package named, on up to
// --jobs threads. Packages are independent: a package that cannot be signed
// is reported and left as it was, and the others go on.
#include <algorithm>
#include <atomic>
#include <memory>
#include <string>
#include <thread>
#include <vector>

#include <CLI/CLI.hpp>

#include <sealkeep/sealkeep.hpp>

#include "cli.hpp"
#include "credentials.hpp"

namespace sealkeep::cli {
namespace {

// OP-TEE's identifiers of the two RSA signature schemes for TA headers.
constexpr unsigned taAlgorithmPss = 0x70414930u;
constexpr unsigned taAlgorithmPkcs1 = 0x70004830u;

struct SignOptions {
    std::vector<std::string> packages;
    CredentialFiles files;
    std::string passFile;
    std::string taAlgorithm;
    bool replace = false;
    int format = 3;
    bool noFileSignatures = false;
    unsigned jobs = 1;
};

std::string joinGroups(std::vector<PackageSignatures::Cms> const& cmses)
{
    if (cmses.empty())
        return "none";
    std::string text;
    for (auto const& cms : cmses) {
        auto certificate = cms.certificate();
        std::string group = certificate ? PackageSignatures::groupToString(certificate->group()) : "";
        text += (text.empty() ? "" : ", ") + (group.empty() ? std::string("unknown") : group);
    }
    return text;
}

bool signPackage(std::string const& path, Credentials const& credentials, SignOptions const& options)
{
    auto file = PackageSignatures::FileWithCmses::fromPath(path.c_str(), "r+");
    if (!file) {
        reportFailure(path, "cannot open for signing: " + systemReason());
        return false;
    }
    std::string before = joinGroups(file->cmses());
    std::string group = PackageSignatures::groupToString(
        PackageSignatures::Certificate(credentials.certificate.get()).group());
    unsigned taAlgorithm = options.taAlgorithm == "pkcs1" ? taAlgorithmPkcs1 : taAlgorithmPss;
    bool signedOk = file->sign(credentials.certificate.get(), credentials.key.get(), credentials.taKey.get(),
                               taAlgorithm, credentials.rotationChain.get(), options.replace,
                               options.format == 3, !options.noFileSignatures);
    if (!signedOk) {
        reportFailure(path, "not signed: a " + (group.empty() ? std::string("group-less") : group) +
                                " signature was refused or failed (signatures before: " + before + ")");
        return false;
    }
    printLine(path + ": signed as " + group + " (" + countOf(file->cmses().size(), "signature") + ")");
    return true;
}

int runSign(SignOptions& options)
{
    if (!options.passFile.empty()) {
        options.files.passPhrase = readPassPhrase(options.passFile);
        if (!options.files.passPhrase)
            return statusFailed;
    }
    unsigned threads = std::min<std::size_t>(options.jobs, options.packages.size());
    // One set of keys per thread, all read before any package is touched.
    std::vector<Credentials> credentials;
    for (unsigned i = 0; i < threads; ++i) {
        auto loaded = loadCredentials(options.files);
        if (!loaded)
            return statusFailed;
        credentials.push_back(std::move(*loaded));
    }

    std::atomic<std::size_t> next{0};
    std::atomic<bool> anyFailed{false};
    auto work = [&](Credentials const& own) {
        for (std::size_t i; (i = next++) < options.packages.size();) {
            if (!signPackage(options.packages[i], own, options))
                anyFailed = true;
        }
    };
    std::vector<std::thread> workers;
    for (unsigned i = 1; i < threads; ++i)
        workers.emplace_back(work, std::cref(credentials[i]));
    work(credentials[0]);
    for (auto& worker : workers)
        worker.join();
    return anyFailed ? statusFailed : statusOk;
}

}  // namespace

void addSignCommand(CLI::App& app, int& status)
{
    auto options = std::make_shared<SignOptions>();
    CLI::App* sign = app.add_subcommand("sign", "Append a signature to each package");
    sign->add_option("packages", options->packages, "Packages to sign")->required();
    sign->add_option("--cert", options->files.certificate, "Signer certificate (PEM)")->required();
    sign->add_option("--key", options->files.key, "Signer private key (PEM)")->required();
    sign->add_option("--pass-file", options->passFile, "File whose first line is the key's pass phrase");
    auto taKey = sign->add_option("--ta-key", options->files.taKey,
                                  "RSA key that signs the package's trusted applications");
    auto taAlgorithm = sign->add_option("--ta-algorithm", options->taAlgorithm,
                                        "Signature scheme of the trusted-application headers")
                           ->check(CLI::IsMember({"pss", "pkcs1"}));
    taKey->needs(taAlgorithm);
    taAlgorithm->needs(taKey);
    sign->add_option("--rotation-chain", options->files.rotationChain,
                     "Proof-of-rotation chain ending at the signer's key");
    sign->add_flag("--replace", options->replace,
                   "Replace the newest signature of the same group (every signature for a developer)");
    sign->add_option("--format", options->format, "Block format: 3 (a skippable frame) or 2")
        ->capture_default_str()
        ->check(CLI::IsMember({3, 2}));
    sign->add_flag("--no-file-signatures", options->noFileSignatures,
                   "Do not sign the payload's files and trusted applications");
    sign->add_option("--jobs,-j", options->jobs, "Packages signed at once")
        ->capture_default_str()
        ->check(CLI::PositiveNumber);
    sign->callback([options, &status] { status = runSign(*options); });
}

}  // namespace sealkeep::cli
