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

namespace {

CommandResult runIn(std::string const& dir, std::string const& prefix, std::vector<std::string> const& args)
{
    return runShell("cd " + shellQuoted(dir) + " && " + prefix + sealkeepCommandLine(args));
}

}  // namespace

std::string sealkeepCommandLine(std::vector<std::string> const& args)
{
    std::string line = shellQuoted(SEALKEEP_CLI);
    for (auto const& arg : args)
        line += " " + shellQuoted(arg);
    return line;
}

CommandResult runSealkeep(std::string const& dir, std::vector<std::string> const& args)
{
    return runIn(dir, "exec ", args);
}

CommandResult runSealkeepWithin(int seconds, std::string const& dir, std::vector<std::string> const& args)
{
    return runIn(dir, "exec timeout -s KILL " + std::to_string(seconds) + " ", args);
}

CommandResult runSealkeepWithFileSizeLimit(long bytes, std::string const& dir, std::vector<std::string> const& args)
{
    // An ignored signal stays ignored across exec.
    return runIn(dir, "trap '' XFSZ && exec prlimit --fsize=" + std::to_string(bytes) + " ", args);
}

CommandResult runSealkeepDetached(std::string const& dir, std::vector<std::string> const& environment,
                                  std::vector<std::string> const& args, std::string const& redirections)
{
    std::string prefix = "exec env";
    for (auto const& entry : environment)
        prefix += " " + shellQuoted(entry);
    std::string line = "cd " + shellQuoted(dir) + " && " + prefix + " setsid -w " + shellQuoted(SEALKEEP_CLI);
    for (auto const& arg : args)
        line += " " + shellQuoted(arg);
    return runShell(line + " " + redirections);
}

}  // namespace sealkeep::test
