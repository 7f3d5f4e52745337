// Reading pass phrases from the sources OpenSSL's own tools accept.
#include "pass_source.hpp"

#include <fcntl.h>
#include <termios.h>
#include <unistd.h>

#include <cerrno>
#include <cstdlib>
#include <cstring>

#include <openssl/crypto.h>

#include "owned.hpp"

namespace sealkeep::cli {
namespace {

// A pass phrase is a line; anything longer is not one, and a hostile source
// must not make the command read on.
constexpr std::size_t maxPhraseLength = 4096;

// One line from fd without its line end, read a byte at a time so that the
// next key reading the same descriptor (stdin for two keys) gets the next
// line. An empty source or a read error gives nothing.
std::optional<std::string> readLine(int fd, std::string const& source, std::string& why)
{
    std::string line;
    for (;;) {
        char c = 0;
        ssize_t got = read(fd, &c, 1);
        if (got < 0 && errno == EINTR)
            continue;
        if (got < 0) {
            why = "cannot read the pass phrase from " + source + ": " + strerror(errno);
            return std::nullopt;
        }
        if (got == 0 || c == '\n')
            break;
        if (line.size() == maxPhraseLength) {
            OPENSSL_cleanse(line.data(), line.size());
            why = "the pass phrase from " + source + " is longer than " + std::to_string(maxPhraseLength) + " bytes";
            return std::nullopt;
        }
        line += c;
    }
    if (!line.empty() && line.back() == '\r')
        line.pop_back();
    return line;
}

std::optional<int> descriptorNumber(std::string const& text)
{
    if (text.empty() || text.size() > 9 || text.find_first_not_of("0123456789") != std::string::npos)
        return std::nullopt;
    return std::atoi(text.c_str());
}

// Echo off while the phrase is typed; restored whatever happens.
class EchoOff {
public:
    explicit EchoOff(int fd) : fd_(fd)
    {
        if (tcgetattr(fd_, &saved_) != 0)
            return;
        termios quiet = saved_;
        quiet.c_lflag &= ~static_cast<tcflag_t>(ECHO);
        active_ = tcsetattr(fd_, TCSANOW, &quiet) == 0;
    }
    ~EchoOff()
    {
        if (active_)
            tcsetattr(fd_, TCSANOW, &saved_);
    }
    EchoOff(EchoOff const&) = delete;
    EchoOff& operator=(EchoOff const&) = delete;

private:
    int fd_;
    termios saved_{};
    bool active_ = false;
};

std::optional<std::string> prompt(std::string const& keyName, std::string& why)
{
    UniqueFd terminal(open("/dev/tty", O_RDWR | O_NOCTTY | O_CLOEXEC));
    if (!terminal) {
        why = "it is protected by a pass phrase, none was given and there is no terminal to ask on";
        return std::nullopt;
    }
    std::string question = "Pass phrase for " + keyName + ": ";
    if (write(terminal.get(), question.data(), question.size()) < 0) {
        why = "cannot ask for its pass phrase: " + std::string(strerror(errno));
        return std::nullopt;
    }
    std::optional<std::string> line;
    {
        EchoOff quiet(terminal.get());
        line = readLine(terminal.get(), "the terminal", why);
    }
    (void)!write(terminal.get(), "\n", 1);
    return line;
}

}  // namespace

Secret::~Secret()
{
    OPENSSL_cleanse(text_.data(), text_.size());
}

std::optional<PassSource> PassSource::parse(std::string const& spec, std::string& why)
{
    auto after = [&spec](std::string const& prefix) -> std::optional<std::string> {
        if (spec.compare(0, prefix.size(), prefix) != 0)
            return std::nullopt;
        return spec.substr(prefix.size());
    };
    if (spec.empty())
        return PassSource(Kind::Prompt, {});
    if (spec == "stdin")
        return PassSource(Kind::Stdin, {});
    if (auto text = after("pass:"))
        return PassSource(Kind::Text, *text);
    if (auto variable = after("env:"))
        return PassSource(Kind::Environment, *variable);
    if (auto path = after("file:"))
        return PassSource(Kind::File, *path);
    if (auto number = after("fd:")) {
        if (descriptorNumber(*number))
            return PassSource(Kind::Descriptor, *number);
        why = "\"" + spec + "\" names no file descriptor";
        return std::nullopt;
    }
    why = "unknown pass-phrase source \"" + spec + "\" (expected pass:TEXT, env:VAR, file:PATH, fd:N or stdin)";
    return std::nullopt;
}

std::optional<std::string> PassSource::read(std::string const& keyName, std::string& why) const
{
    switch (kind_) {
    case Kind::Prompt:
        return prompt(keyName, why);
    case Kind::Text:
        return argument_;
    case Kind::Environment:
        if (char const* value = getenv(argument_.c_str()))
            return std::string(value);
        why = "the environment variable " + argument_ + " is not set";
        return std::nullopt;
    case Kind::File: {
        UniqueFd file(open(argument_.c_str(), O_RDONLY | O_CLOEXEC));
        if (!file) {
            why = "cannot read the pass phrase from " + argument_ + ": " + strerror(errno);
            return std::nullopt;
        }
        return readLine(file.get(), argument_, why);
    }
    case Kind::Descriptor:
        return readLine(std::atoi(argument_.c_str()), "descriptor " + argument_, why);
    case Kind::Stdin:
        return readLine(STDIN_FILENO, "standard input", why);
    }
    return std::nullopt;
}

Secret const* PassSource::phrase(std::string const& keyName, std::string& why)
{
    std::lock_guard<std::mutex> hold(*lock_);
    if (!phrase_ && failure_.empty()) {
        if (auto text = read(keyName, failure_)) {
            phrase_ = std::make_shared<Secret>(std::move(*text));
        }
    }
    if (!phrase_)
        why = failure_;
    return phrase_.get();
}

}  // namespace sealkeep::cli
