// Walks the command's CLI11 tree: subcommands, option groups and options.
// CLI11 generates no completion, so the scripts are written from this walk
// at build time, and stay in step with the options the command parses.
#include "command_tree.hpp"

#include <algorithm>
#include <map>

#include <CLI/CLI.hpp>

namespace sealkeep::cli {
namespace {

// app and its option groups: the apps whose options app parses.
std::vector<CLI::App const*> optionHolders(CLI::App const& app)
{
    std::vector<CLI::App const*> holders = {&app};
    for (CLI::App const* group : app.get_subcommands([](CLI::App const* sub) { return sub->get_name().empty(); }))
        holders.push_back(group);
    return holders;
}

bool isHelp(CLI::App const& holder, CLI::Option const* option)
{
    return option == holder.get_help_ptr() || option == holder.get_help_all_ptr();
}

std::vector<std::string> namesOf(CLI::Option const* option)
{
    std::vector<std::string> names;
    for (auto const& name : option->get_lnames())
        names.push_back("--" + name);
    for (auto const& name : option->get_snames())
        names.push_back("-" + name);
    return names;
}

// The options of app that take a value (after which a file name is offered);
// a flag expects none.
std::vector<std::string> valuedOptionNamesOf(CLI::App const& app)
{
    std::vector<std::string> names;
    for (CLI::App const* holder : optionHolders(app))
        for (CLI::Option const* option : holder->get_options())
            if (option->nonpositional() && option->get_expected_max() > 0)
                for (auto const& name : namesOf(option))
                    names.push_back(name);
    return names;
}

std::string joined(std::vector<std::string> const& words)
{
    std::string text;
    for (auto const& word : words)
        text += (text.empty() ? "" : " ") + word;
    return text;
}

std::vector<std::string> subcommandNames(CLI::App const& app)
{
    std::vector<std::string> names;
    for (CLI::App const* sub : subcommandsOf(app))
        names.push_back(sub->get_name());
    return names;
}

// What each completion needs of every app in the tree, keyed by its words
// ("sealkeep", "sealkeep db", ...).
struct Tables {
    std::map<std::string, std::string> subcommands, options, valued;
};

void collect(CLI::App const& app, std::string const& key, Tables& tables)
{
    tables.subcommands[key] = joined(subcommandNames(app));
    tables.options[key] = joined(optionNamesOf(app));
    tables.valued[key] = joined(valuedOptionNamesOf(app));
    for (CLI::App const* sub : subcommandsOf(app))
        collect(*sub, key + " " + sub->get_name(), tables);
}

Tables tablesOf(CLI::App const& app)
{
    Tables tables;
    collect(app, "sealkeep", tables);
    return tables;
}

// bash assigns element by element; zsh takes the quotes of a subscript as
// part of the key, so it gets the whole array as key-value pairs.
enum class Shell { Bash, Zsh };

std::string assignments(Shell shell, std::string const& array, std::map<std::string, std::string> const& table)
{
    std::string text = shell == Shell::Zsh ? array + "=(\n" : "";
    for (auto const& [key, words] : table)
        text += shell == Shell::Zsh ? "    '" + key + "' '" + words + "'\n"
                                    : "    " + array + "[\"" + key + "\"]=\"" + words + "\"\n";
    return shell == Shell::Zsh ? text + ")\n" : text;
}

std::string declarations(Shell shell, Tables const& tables)
{
    return assignments(shell, "subcommands", tables.subcommands) + assignments(shell, "options", tables.options) +
           assignments(shell, "valued", tables.valued);
}

}  // namespace

std::vector<CLI::App*> subcommandsOf(CLI::App const& app)
{
    std::vector<CLI::App*> named;
    for (CLI::App const* sub : app.get_subcommands([](CLI::App const* s) { return !s->get_name().empty(); }))
        named.push_back(const_cast<CLI::App*>(sub));
    return named;
}

std::string subcommandList(CLI::App const& app)
{
    std::string text;
    for (auto const& name : subcommandNames(app))
        text += (text.empty() ? "" : ", ") + name;
    return text;
}

std::vector<std::string> optionNamesOf(CLI::App const& app)
{
    std::vector<std::string> names;
    for (CLI::App const* holder : optionHolders(app))
        for (CLI::Option const* option : holder->get_options())
            if (option->nonpositional() && !isHelp(*holder, option))
                for (auto const& name : namesOf(option))
                    names.push_back(name);
    return names;
}

std::optional<UnknownSubcommand> unknownSubcommand(CLI::App const& app, std::vector<std::string> const& words)
{
    CLI::App const* at = &app;
    for (auto const& word : words) {
        if (word.empty() || word[0] == '-')
            return std::nullopt;
        auto subs = subcommandsOf(*at);
        auto found = std::find_if(subs.begin(), subs.end(), [&](CLI::App* sub) { return sub->check_name(word); });
        if (found != subs.end()) {
            at = *found;
            continue;
        }
        if (subs.empty())
            return std::nullopt;
        return UnknownSubcommand{word, at};
    }
    return std::nullopt;
}

// The words before the cursor select the deepest subcommand they name; the
// word after an option that takes a value is a file, an option is offered
// for a word that starts with '-', a subcommand where one is expected, and
// a file otherwise.
std::string bashCompletion(CLI::App const& app)
{
    return "# bash completion for sealkeep, generated from the command's own options.\n"
           "_sealkeep()\n"
           "{\n"
           "    local -A subcommands options valued\n" +
           declarations(Shell::Bash, tablesOf(app)) +
           "    local cur=\"${COMP_WORDS[COMP_CWORD]}\" prev=\"${COMP_WORDS[COMP_CWORD-1]}\"\n"
           "    local key=sealkeep word i\n"
           "    for ((i = 1; i < COMP_CWORD; i++)); do\n"
           "        word=\"${COMP_WORDS[i]}\"\n"
           "        [[ $word == -* ]] && break\n"
           "        [[ \" ${subcommands[$key]} \" == *\" $word \"* ]] || break\n"
           "        key=\"$key $word\"\n"
           "    done\n"
           "    if [[ \" ${valued[$key]} \" == *\" $prev \"* ]]; then\n"
           "        COMPREPLY=($(compgen -f -- \"$cur\"))\n"
           "    elif [[ $cur == -* ]]; then\n"
           "        COMPREPLY=($(compgen -W \"${options[$key]}\" -- \"$cur\"))\n"
           "    elif [[ -n ${subcommands[$key]} ]]; then\n"
           "        COMPREPLY=($(compgen -W \"${subcommands[$key]}\" -- \"$cur\"))\n"
           "    else\n"
           "        COMPREPLY=($(compgen -f -- \"$cur\"))\n"
           "    fi\n"
           "    return 0\n"
           "}\n"
           "complete -o filenames -F _sealkeep sealkeep\n";
}

std::string zshCompletion(CLI::App const& app)
{
    return "#compdef sealkeep\n"
           "# zsh completion for sealkeep, generated from the command's own options.\n"
           "local -A subcommands options valued\n" +
           declarations(Shell::Zsh, tablesOf(app)) +
           "local key=sealkeep word i\n"
           "for ((i = 2; i < CURRENT; i++)); do\n"
           "    word=${words[i]}\n"
           "    [[ $word == -* ]] && break\n"
           "    (( ${${(z)subcommands[$key]}[(Ie)$word]} )) || break\n"
           "    key=\"$key $word\"\n"
           "done\n"
           "if (( ${${(z)valued[$key]}[(Ie)${words[CURRENT-1]}]} )); then\n"
           "    _files\n"
           "elif [[ ${words[CURRENT]} == -* ]]; then\n"
           "    compadd -- ${(z)options[$key]}\n"
           "elif [[ -n ${subcommands[$key]} ]]; then\n"
           "    compadd -- ${(z)subcommands[$key]}\n"
           "else\n"
           "    _files\n"
           "fi\n";
}

}  // namespace sealkeep::cli
