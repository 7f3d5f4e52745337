// Reading the signer's credentials for the sign subcommand.
#include "credentials.hpp"

#include <CLI/CLI.hpp>
#include <openssl/err.h>

#include "cli.hpp"

namespace sealkeep::cli {

CLI::Option* addCredentialOptions(CLI::App& sign, CredentialOptions& options)
{
    sign.add_option("--cert", options.certificate, "Signer certificate (PEM)")->required();
    addKeyOption(sign, options.key, "--key", "--pass", "Signer private key")->required();
    sign.add_option("--pass-file", options.passFile, "File whose first line is the key's pass phrase (--pass file:)")
        ->excludes("--pass");
    CLI::Option* taKey = addKeyOption(sign, options.taKey, "--ta-key", "--ta-pass",
                                      "RSA key (2048 bits or more) that signs the package's trusted applications");
    sign.add_option("--rotation-chain", options.rotationChain, "Proof-of-rotation chain ending at the signer's key");
    addEngineOptions(sign, options.engine);
    return taKey;
}

std::optional<CredentialSource> CredentialSource::open(CredentialOptions const& options, int& status)
{
    CredentialSource source;
    source.options_ = options;
    if (!options.passFile.empty())
        source.options_.key.pass = "file:" + options.passFile;
    auto engine = startEngine(options.engine, status);
    if (!engine)
        return std::nullopt;
    source.engine_ = *engine;
    source.key_ = KeySource::of(source.options_.key, source.engine_, status);
    if (!source.key_)
        return std::nullopt;
    if (!options.taKey.reference.empty()) {
        source.taKey_ = KeySource::of(source.options_.taKey, source.engine_, status);
        if (!source.taKey_)
            return std::nullopt;
    }
    return source;
}

std::optional<Credentials> CredentialSource::load()
{
    Credentials credentials;
    credentials.certificate.reset(certificate_read(options_.certificate.c_str()));
    if (!credentials.certificate) {
        reportFailure("--cert " + options_.certificate, "cannot read the signer certificate");
        return std::nullopt;
    }
    credentials.key = key_->load();
    if (!credentials.key)
        return std::nullopt;
    if (taKey_) {
        credentials.taKey = taKey_->load();
        if (!credentials.taKey)
            return std::nullopt;
    }
    if (!options_.rotationChain.empty()) {
        credentials.rotationChain.reset(ProofOfRotationChain_read(options_.rotationChain.c_str()));
        if (!credentials.rotationChain) {
            reportFailure("--rotation-chain " + options_.rotationChain, "cannot read the rotation chain");
            return std::nullopt;
        }
    }
    return credentials;
}

}  // namespace sealkeep::cli
