// Where each private key of a subcommand comes from: a PEM file, or a key
// held by an OpenSSL engine (a PKCS#11 token through libp11's "pkcs11"
// engine, a vendor's engine for GOST tokens) named by a reference such as an
// RFC 7512 pkcs11: URI. An engine key never leaves its engine: the command
// holds only a handle through which the engine signs.
//
// Every key option has a pass-phrase option beside it (see pass_source.hpp);
// for an engine key that is the token's PIN.
#ifndef SEALKEEP_TOOLS_KEY_SOURCE_HPP
#define SEALKEEP_TOOLS_KEY_SOURCE_HPP

#include <memory>
#include <optional>
#include <string>
#include <vector>

#include <openssl/engine.h>

#include "owned.hpp"
#include "pass_source.hpp"

namespace CLI {
class App;
class Option;
}  // namespace CLI

namespace sealkeep::cli {

struct EngineOptions {
    std::string id;                     // empty: no engine
    std::vector<std::string> controls;  // "NAME:VALUE", given to the engine before it starts
};

// --engine and --engine-ctrl on command.
void addEngineOptions(CLI::App& command, EngineOptions& options);

struct KeyOption {
    std::string option;      // "--key"
    std::string passOption;  // "--pass"
    std::string reference;   // a PEM file, or pkcs11:... / engine:... for an engine key
    std::string pass;        // pass-phrase source; empty: ask on the terminal
};

// Registers the key option and its pass-phrase option on command.
CLI::Option* addKeyOption(CLI::App& command, KeyOption& key, std::string const& option,
                          std::string const& passOption, std::string const& description);

// A started engine, shared by the keys of one command.
class Engine;

// Loads and starts the engine options name; nullptr with nothing said when
// none is named. On failure reports one line and sets status.
std::optional<std::shared_ptr<Engine>> startEngine(EngineOptions const& options, int& status);

class KeySource {
public:
    // The source a key option names. Reports and returns nothing on bad
    // usage (status statusUsage): an engine key without --engine, an
    // unknown pass-phrase source.
    static std::optional<KeySource> of(KeyOption const& option, std::shared_ptr<Engine> engine, int& status);

    // A new handle on the key, unlocked with the pass phrase read on the
    // first call. Reports one line naming the option and returns null when
    // the key cannot be had.
    PkeyPtr load();

    bool inEngine() const { return inEngine_; }
    // "--key developer.key": how refusals name the key.
    std::string const& label() const { return label_; }

private:
    KeySource(KeyOption const& option, std::shared_ptr<Engine> engine, std::string reference, PassSource pass);
    PkeyPtr loadFromFile();
    PkeyPtr loadFromEngine();

    std::shared_ptr<Engine> engine_;
    bool inEngine_;
    std::string reference_;
    std::string label_;
    std::shared_ptr<PassSource> pass_;
};

}  // namespace sealkeep::cli

#endif
