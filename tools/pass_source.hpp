// Where a key's pass phrase (or a token's PIN) comes from, in OpenSSL's own
// spelling: pass:TEXT, env:VAR, file:PATH, fd:N, stdin; with none given, a
// prompt on the controlling terminal that names the key. Each source is read
// at most once, the first time a key asks, and the text is kept for the rest
// of the command, so a key is unlocked once however many threads load it.
#ifndef SEALKEEP_TOOLS_PASS_SOURCE_HPP
#define SEALKEEP_TOOLS_PASS_SOURCE_HPP

#include <memory>
#include <mutex>
#include <optional>
#include <string>

namespace sealkeep::cli {

// A text wiped from memory when it goes.
class Secret {
public:
    explicit Secret(std::string text) : text_(std::move(text)) {}
    ~Secret();
    Secret(Secret const&) = delete;
    Secret& operator=(Secret const&) = delete;

    std::string const& text() const { return text_; }

private:
    std::string text_;
};

class PassSource {
public:
    // The source spelled by spec (empty: ask on the terminal); nothing when
    // the spelling is unknown (why says so).
    static std::optional<PassSource> parse(std::string const& spec, std::string& why);

    // The pass phrase for the key called keyName (named in a prompt). Read
    // on the first call and kept; null when it cannot be had, with why.
    Secret const* phrase(std::string const& keyName, std::string& why);

    // Whether the source is one given on the command line (not the prompt),
    // which is read up front like OpenSSL's -passin.
    bool given() const { return kind_ != Kind::Prompt; }

private:
    enum class Kind { Prompt, Text, Environment, File, Descriptor, Stdin };
    PassSource(Kind kind, std::string argument) : kind_(kind), argument_(std::move(argument)) {}
    std::optional<std::string> read(std::string const& keyName, std::string& why) const;

    Kind kind_;
    std::string argument_;
    std::shared_ptr<Secret> phrase_;
    std::string failure_;  // why the first read failed: never asked twice
    std::shared_ptr<std::mutex> lock_ = std::make_shared<std::mutex>();
};

}  // namespace sealkeep::cli

#endif
