// The command's own tree of subcommands and options, walked for what needs
// to know it whole: help on a subcommand named in words, the names offered
// when a word is not a subcommand, and the shell completion scripts.
#ifndef SEALKEEP_TOOLS_COMMAND_TREE_HPP
#define SEALKEEP_TOOLS_COMMAND_TREE_HPP

#include <optional>
#include <string>
#include <vector>

namespace CLI {
class App;
}

namespace sealkeep::cli {

// The named subcommands of app (not its option groups), in their order.
std::vector<CLI::App*> subcommandsOf(CLI::App const& app);
// "sign, verify, inspect, ...": the names of app's subcommands.
std::string subcommandList(CLI::App const& app);
// Every option name of app ("--json", "-j"), those of its option groups
// included, without the help flags.
std::vector<std::string> optionNamesOf(CLI::App const& app);

// The first word of words[from..] that app (or the subcommand the words
// before it select) takes for a subcommand but does not know, with the
// app that does not know it; nothing when there is none. The walk stops at
// the first option, and at a subcommand that needs none below it.
struct UnknownSubcommand {
    std::string word;
    CLI::App const* within;
};
std::optional<UnknownSubcommand> unknownSubcommand(CLI::App const& app, std::vector<std::string> const& words);

// Completion scripts for bash and for zsh, generated from the tree.
std::string bashCompletion(CLI::App const& app);
std::string zshCompletion(CLI::App const& app);

}  // namespace sealkeep::cli

#endif
