// What every subcommand of the sealkeep command shares: exit statuses, the
// one-line failure report and the functions that register each subcommand.
#ifndef SEALKEEP_TOOLS_CLI_HPP
#define SEALKEEP_TOOLS_CLI_HPP

#include <cstddef>
#include <string>
#include <vector>

namespace CLI {
class App;
}

namespace sealkeep::cli {

// Exit statuses of the command.
constexpr int statusOk = 0;
constexpr int statusFailed = 1;  // refused, invalid or failed
constexpr int statusUsage = 2;   // bad usage

// "sealkeep: FILE: REASON" on standard error. Lines from several threads do
// not interleave. Parts that came from a file are escaped by the caller
// (visible); a line that still holds a control character is escaped whole.
void reportFailure(std::string const& file, std::string const& reason);
// "sealkeep: TEXT" on standard error, escaped as reportFailure's lines.
void reportProblem(std::string const& text);
// One line on standard output, whole even when several threads print, and
// escaped as reportFailure's lines.
void printLine(std::string const& line);
// Text of the command's own making (JSON, help) on standard output as it is.
void printText(std::string const& text);

// The reasons reportFailure gave on this thread while it lives, for a
// result that carries them (the "error" of a JSON document) as well.
class FailureNotes {
public:
    FailureNotes();
    ~FailureNotes();
    FailureNotes(FailureNotes const&) = delete;
    FailureNotes& operator=(FailureNotes const&) = delete;
    bool empty() const { return reasons_.empty(); }
    // The reasons in order, joined by "; ".
    std::string text() const;

private:
    std::vector<std::string> reasons_;
    std::vector<std::string>* outer_;
};
// "1 signature", "3 signatures".
std::string countOf(std::size_t count, std::string const& noun);
// strerror(errno), read at the call.
std::string systemReason();

// Each registers its subcommand(s) on app; the subcommand's callback stores
// its exit status in status.
void addSignCommand(CLI::App& app, int& status);
// prepare, sign-request, attach.
void addDetachedSigningCommands(CLI::App& app, int& status);
void addVerifyCommand(CLI::App& app, int& status);
void addInspectCommand(CLI::App& app, int& status);
void addStripCommand(CLI::App& app, int& status);
void addCaCommands(CLI::App& app, int& status);
void addRotationCommands(CLI::App& app, int& status);
void addDbCommands(CLI::App& app, int& status);
void addImaCommands(CLI::App& app, int& status);

}  // namespace sealkeep::cli

#endif
