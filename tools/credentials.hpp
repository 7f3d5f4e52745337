// The signer's certificate, keys and rotation chain as the sign subcommand
// takes them from its options. Each signing thread holds its own copy, so
// that no OpenSSL object is shared between threads; the pass phrases behind
// the copies are read once.
#ifndef SEALKEEP_TOOLS_CREDENTIALS_HPP
#define SEALKEEP_TOOLS_CREDENTIALS_HPP

#include <memory>
#include <optional>
#include <string>

#include "key_source.hpp"
#include "owned.hpp"

namespace CLI {
class App;
class Option;
}  // namespace CLI

namespace sealkeep::cli {

struct CredentialOptions {
    EngineOptions engine;
    std::string certificate;
    KeyOption key;
    std::string passFile;  // older spelling of --pass file:PATH
    KeyOption taKey;       // reference empty: none
    std::string rotationChain;  // empty: none
};

// --cert, --key, --pass, --pass-file, --ta-key, --ta-pass, --rotation-chain
// and the engine options on sign; returns --ta-key, which needs a scheme.
CLI::Option* addCredentialOptions(CLI::App& sign, CredentialOptions& options);

struct Credentials {
    X509Ptr certificate;
    PkeyPtr key;
    PkeyPtr taKey;      // may be null
    ChainPtr rotationChain;  // may be null
};

// The sources behind the options, resolved once per command.
class CredentialSource {
public:
    // Starts the engine and resolves each key option; on failure reports one
    // line and returns nothing, status saying whether usage was wrong.
    static std::optional<CredentialSource> open(CredentialOptions const& options, int& status);

    // A fresh copy of every credential; on failure reports the option and
    // the reason and returns nothing.
    std::optional<Credentials> load();

    KeySource const& key() const { return *key_; }
    KeySource const* taKey() const { return taKey_ ? &*taKey_ : nullptr; }
    CredentialOptions const& options() const { return options_; }

private:
    CredentialOptions options_;
    std::shared_ptr<Engine> engine_;
    std::optional<KeySource> key_;
    std::optional<KeySource> taKey_;
};

}  // namespace sealkeep::cli

#endif
