// Running the sealkeep command as a person would: the installed executable
// (the test fixture installs the build tree first), from a shell in a working
// directory, with plain arguments and no library path in the environment.
#ifndef SEALKEEP_TESTS_SUPPORT_SEALKEEP_COMMAND_HPP
#define SEALKEEP_TESTS_SUPPORT_SEALKEEP_COMMAND_HPP

#include <string>
#include <vector>

#include "support/process.hpp"

namespace sealkeep::test {

// Runs `sealkeep args...` in dir.
CommandResult runSealkeep(std::string const& dir, std::vector<std::string> const& args);
// The same, killed after seconds (exit code 137 then), for inputs that must
// not make the command run on.
CommandResult runSealkeepWithin(int seconds, std::string const& dir, std::vector<std::string> const& args);
// The same, allowed to write files up to bytes long only (SIGXFSZ ignored, so
// a write beyond fails with EFBIG, as on a full disk).
CommandResult runSealkeepWithFileSizeLimit(long bytes, std::string const& dir, std::vector<std::string> const& args);
// The shell command line that runs `sealkeep args...`, for scripts that run
// several at once.
std::string sealkeepCommandLine(std::vector<std::string> const& args);
// The same without a controlling terminal (in a new session), with extra
// environment entries ("NAME=value") and shell redirections appended to the
// command line ("< pass.txt", "3< pin.txt"): what a release pipeline runs.
CommandResult runSealkeepDetached(std::string const& dir, std::vector<std::string> const& environment,
                                  std::vector<std::string> const& args, std::string const& redirections = {});
// The text as one shell word.
std::string shellQuoted(std::string const& text);

}  // namespace sealkeep::test

#endif
