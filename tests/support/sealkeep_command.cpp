#include "support/sealkeep_command.hpp"

// Without the command's test installation, the one on PATH.
#ifndef SEALKEEP_CLI
#define SEALKEEP_CLI "sealkeep"
#endif

namespace sealkeep::test {

std::string shellQuoted(std::string const& text)
{
    std::string quoted = "'";
    for (char c : text)
        quoted += c == '\'' ? std::string("'\\''") : std::string(1, c);
    return quoted + "'";
}

CommandResult runSealkeep(std::string const& dir, std::vector<std::string> const& args)
{
    std::string line = "cd " + shellQuoted(dir) + " && exec " + shellQuoted(SEALKEEP_CLI);
    for (auto const& arg : args)
        line += " " + shellQuoted(arg);
    return runShell(line);
}

}  // namespace sealkeep::test
