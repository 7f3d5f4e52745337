// What every subcommand of the sealkeep command shares: exit statuses, the
// one-line failure report and the functions that register each subcommand.
#ifndef SEALKEEP_TOOLS_CLI_HPP
#define SEALKEEP_TOOLS_CLI_HPP

#include <cstddef>
#include <string>

namespace CLI {
class App;
}

namespace sealkeep::cli {

// Exit statuses of the command.
constexpr int statusOk = 0;
constexpr int statusFailed = 1;  // refused, invalid or failed
constexpr int statusUsage = 2;   // bad usage

// "sealkeep: FILE: REASON" on standard error. Lines from several threads do
// not interleave.
void reportFailure(std::string const& file, std::string const& reason);
// One line on standard output, whole even when several threads print.
void printLine(std::string const& line);
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
