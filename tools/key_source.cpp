// Loading private keys from PEM files and from OpenSSL engines, each
// unlocked through its own pass-phrase source.
#include "key_source.hpp"

#include <cerrno>
#include <cstring>

#include <CLI/CLI.hpp>
#include <openssl/err.h>
#include <openssl/pem.h>
#include <openssl/ui.h>

#include "cli.hpp"

namespace sealkeep::cli {

class Engine {
public:
    explicit Engine(ENGINE* engine, std::string id) : engine_(engine), id_(std::move(id)) {}
    ~Engine()
    {
        ENGINE_finish(engine_);
        ENGINE_free(engine_);
    }
    Engine(Engine const&) = delete;
    Engine& operator=(Engine const&) = delete;

    ENGINE* get() const { return engine_; }
    std::string const& id() const { return id_; }

private:
    ENGINE* engine_;
    std::string id_;
};

namespace {

using UiMethodPtr = std::unique_ptr<UI_METHOD, FreeWith<UI_destroy_method>>;
using EnginePtr = std::unique_ptr<ENGINE, FreeWith<ENGINE_free>>;

// RFC 7512 URIs go to the engine as they are; any other engine reference
// (a vendor's slot and id syntax) is written engine:REFERENCE.
constexpr char const* pkcs11Prefix = "pkcs11:";
constexpr char const* enginePrefix = "engine:";

bool startsWith(std::string const& text, char const* prefix)
{
    return text.compare(0, strlen(prefix), prefix) == 0;
}

// OpenSSL's reason for the latest failure, or nothing; the queue is emptied.
std::string opensslReason()
{
    unsigned long error = ERR_peek_last_error();
    char const* reason = error ? ERR_reason_error_string(error) : nullptr;
    ERR_clear_error();
    return reason ? std::string(": ") + reason : std::string();
}

// What the pass-phrase callback hands OpenSSL (and an engine's UI) for one key.
struct Unlocking {
    PassSource* source;
    std::string keyName;
    std::string why;        // why no phrase could be had
    bool asked = false;     // the key wanted a phrase
    bool supplied = false;  // a phrase was handed over
};

int passPhraseCallback(char* buffer, int size, int /*rwflag*/, void* data)
{
    auto* unlocking = static_cast<Unlocking*>(data);
    if (!unlocking || size <= 0)
        return -1;
    unlocking->asked = true;
    Secret const* phrase = unlocking->source->phrase(unlocking->keyName, unlocking->why);
    if (!phrase)
        return -1;
    std::string const& text = phrase->text();
    if (text.size() > static_cast<std::size_t>(size)) {
        unlocking->why = "its pass phrase is longer than " + std::to_string(size) + " bytes";
        return -1;
    }
    memcpy(buffer, text.data(), text.size());
    unlocking->supplied = true;
    return static_cast<int>(text.size());
}

// Why a key that asked for a phrase still did not load.
std::string lockedReason(Unlocking const& unlocking, std::string const& notUnlocked)
{
    if (!unlocking.why.empty())
        return unlocking.why;
    return notUnlocked;
}

bool applyControl(ENGINE* engine, std::string const& control, std::string& why)
{
    auto colon = control.find(':');
    std::string name = control.substr(0, colon);
    std::string value = colon == std::string::npos ? std::string() : control.substr(colon + 1);
    if (ENGINE_ctrl_cmd_string(engine, name.c_str(), colon == std::string::npos ? nullptr : value.c_str(), 0) == 1)
        return true;
    why = "the engine refuses the control " + name + opensslReason();
    return false;
}

}  // namespace

void addEngineOptions(CLI::App& command, EngineOptions& options)
{
    command.add_option("--engine", options.id,
                       "OpenSSL engine that holds the keys written pkcs11:... or engine:... (e.g. pkcs11)");
    command.add_option("--engine-ctrl", options.controls,
                       "NAME:VALUE control for the engine before it starts, e.g. MODULE_PATH:/usr/lib/softhsm/"
                       "libsofthsm2.so (repeatable)")
        ->take_all();
}

CLI::Option* addKeyOption(CLI::App& command, KeyOption& key, std::string const& option,
                          std::string const& passOption, std::string const& description)
{
    key.option = option;
    key.passOption = passOption;
    CLI::Option* added = command.add_option(option, key.reference,
                                            description + ": a PEM file, or a key held by the --engine "
                                                          "(pkcs11:... URI, engine:REFERENCE)");
    command.add_option(passOption, key.pass,
                       "Pass phrase or PIN of " + option + ": pass:TEXT, env:VAR, file:PATH, fd:N or stdin");
    return added;
}

std::optional<std::shared_ptr<Engine>> startEngine(EngineOptions const& options, int& status)
{
    if (options.id.empty()) {
        if (!options.controls.empty()) {
            reportFailure("--engine-ctrl", "needs --engine");
            status = statusUsage;
            return std::nullopt;
        }
        return std::shared_ptr<Engine>();
    }
    EnginePtr engine(ENGINE_by_id(options.id.c_str()));
    if (!engine) {
        reportFailure("--engine " + options.id, "no such OpenSSL engine can be loaded" + opensslReason());
        status = statusFailed;
        return std::nullopt;
    }
    std::string why;
    for (auto const& control : options.controls) {
        if (!applyControl(engine.get(), control, why)) {
            reportFailure("--engine-ctrl " + control, why);
            status = statusFailed;
            return std::nullopt;
        }
    }
    if (ENGINE_init(engine.get()) != 1) {
        reportFailure("--engine " + options.id, "the engine does not start" + opensslReason());
        status = statusFailed;
        return std::nullopt;
    }
    return std::make_shared<Engine>(engine.release(), options.id);
}

KeySource::KeySource(KeyOption const& option, std::shared_ptr<Engine> engine, std::string reference,
                     PassSource pass)
    : engine_(std::move(engine)),
      inEngine_(static_cast<bool>(engine_)),
      reference_(std::move(reference)),
      label_(option.option + " " + option.reference),
      pass_(std::make_shared<PassSource>(std::move(pass)))
{
}

std::optional<KeySource> KeySource::of(KeyOption const& option, std::shared_ptr<Engine> engine, int& status)
{
    std::string label = option.option + " " + option.reference;
    std::string why;
    auto pass = PassSource::parse(option.pass, why);
    if (!pass) {
        reportFailure(option.passOption, why);
        status = statusUsage;
        return std::nullopt;
    }
    bool engineKey = startsWith(option.reference, pkcs11Prefix) || startsWith(option.reference, enginePrefix);
    if (engineKey && !engine) {
        reportFailure(label, "a key held by an engine needs --engine (pkcs11 for a PKCS#11 token)");
        status = statusUsage;
        return std::nullopt;
    }
    // A source given on the command line is read now, before anything else
    // happens, whether or not the key turns out to need it.
    if (pass->given() && !pass->phrase(option.reference, why)) {
        reportFailure(option.passOption + " " + option.pass, why);
        status = statusFailed;
        return std::nullopt;
    }
    std::string reference = startsWith(option.reference, enginePrefix)
                                ? option.reference.substr(strlen(enginePrefix))
                                : option.reference;
    return KeySource(option, engineKey ? std::move(engine) : nullptr, std::move(reference), std::move(*pass));
}

PkeyPtr KeySource::load()
{
    PkeyPtr key = inEngine_ ? loadFromEngine() : loadFromFile();
    ERR_clear_error();
    return key;
}

PkeyPtr KeySource::loadFromFile()
{
    BioPtr file(BIO_new_file(reference_.c_str(), "r"));
    if (!file) {
        int error = errno;
        ERR_clear_error();
        reportFailure(label_, std::string("cannot read the private key: ") + strerror(error));
        return nullptr;
    }
    Unlocking unlocking{pass_.get(), reference_, {}};
    PkeyPtr key(PEM_read_bio_PrivateKey(file.get(), nullptr, passPhraseCallback, &unlocking));
    if (key)
        return key;
    if (unlocking.supplied)
        reportFailure(label_, "the pass phrase does not unlock the private key");
    else if (unlocking.asked)
        reportFailure(label_, "cannot unlock the private key: " + lockedReason(unlocking, "no pass phrase"));
    else
        reportFailure(label_, "holds no PEM private key this command can read");
    return nullptr;
}

PkeyPtr KeySource::loadFromEngine()
{
    UiMethodPtr ui(UI_UTIL_wrap_read_pem_callback(passPhraseCallback, 0));
    if (!ui) {
        reportFailure(label_, "cannot ask for the PIN" + opensslReason());
        return nullptr;
    }
    Unlocking unlocking{pass_.get(), reference_, {}};
    PkeyPtr key(ENGINE_load_private_key(engine_->get(), reference_.c_str(), ui.get(), &unlocking));
    if (key)
        return key;
    if (!unlocking.why.empty())
        reportFailure(label_, "cannot unlock the key: " + unlocking.why);
    else
        reportFailure(label_, "the engine " + engine_->id() + " cannot load the key" +
                                  (unlocking.supplied ? " with the PIN given" : "") + opensslReason());
    return nullptr;
}

}  // namespace sealkeep::cli
