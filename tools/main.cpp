// The sealkeep command: signs, verifies and inspects packages, runs a small
// certificate authority and builds key-rotation chains, all through the
// library's public interfaces.
#include <exception>
#include <cstring>
#include <iostream>
#include <string>
#include <vector>

#include <CLI/CLI.hpp>

#include "cli.hpp"
#include "command_tree.hpp"
#include "gost_engine.hpp"
#include "interruptions.hpp"

using namespace sealkeep::cli;

namespace {

// Help is text only and needs no engine; every other use of the command,
// --version included, needs it.
bool asksForHelp(int argc, char** argv)
{
    if (argc > 1 && strcmp(argv[1], "help") == 0)
        return true;
    for (int i = 1; i < argc; ++i) {
        if (strcmp(argv[i], "--help") == 0 || strcmp(argv[i], "-h") == 0 || strcmp(argv[i], "--help-all") == 0)
            return true;
    }
    return false;
}

// The help of the subcommand words name ("db install"), or of the command.
int printHelp(CLI::App const& app, std::vector<std::string> const& words)
{
    if (auto unknown = unknownSubcommand(app, words)) {
        reportProblem("no subcommand \"" + unknown->word + "\"; the subcommands are: " +
                      subcommandList(*unknown->within));
        return statusUsage;
    }
    CLI::App const* at = &app;
    std::string above;  // the words before at's own name, as its usage line shows them
    for (auto const& word : words) {
        if (word.empty() || word[0] == '-' || subcommandsOf(*at).empty())
            break;
        above += (above.empty() ? "" : " ") + at->get_name();
        at = at->get_subcommand(word);
    }
    // Not at->help(): that shows the help of the subcommand parsed, help itself.
    std::string text = at->get_formatter()->make_help(
        at, above.empty() ? at->get_name() : above + " " + at->get_name(), CLI::AppFormatMode::Normal);
    while (!text.empty() && text.back() == '\n')
        text.pop_back();
    printText(text);
    return statusOk;
}

// `sealkeep --completion-script bash|zsh`, run at build time: the scripts
// come from the same tree the command parses. Not an option of the tree
// itself, so that neither help nor completion offers it.
bool printsCompletion(int argc, char** argv, CLI::App const& app)
{
    if (argc != 3 || strcmp(argv[1], "--completion-script") != 0)
        return false;
    printText(strcmp(argv[2], "zsh") == 0 ? zshCompletion(app) : bashCompletion(app));
    return true;
}

}  // namespace

int main(int argc, char** argv)
{
    handleInterruptions();
    CLI::App app{"Sign, verify and inspect packages with stacked GOST CMS signatures.", "sealkeep"};
    app.set_version_flag("--version", [] { return versionText(SEALKEEP_VERSION); });
    app.require_subcommand(1);
    app.footer("Exit status: 0 success, 1 refused, invalid or failed, 2 bad usage.\n"
               "`sealkeep help SUBCOMMAND...` prints the help of a subcommand.");

    int status = statusOk;
    addSignCommand(app, status);
    addDetachedSigningCommands(app, status);
    addVerifyCommand(app, status);
    addInspectCommand(app, status);
    addStripCommand(app, status);
    addCaCommands(app, status);
    addRotationCommands(app, status);
    addDbCommands(app, status);
    addImaCommands(app, status);
    std::vector<std::string> helpWords;
    CLI::App* help = app.add_subcommand("help", "Print the help of the command or of a subcommand");
    help->add_option("subcommand", helpWords, "Subcommand words, e.g. db install");
    help->callback([&] { status = printHelp(app, helpWords); });

    if (printsCompletion(argc, argv, app))
        return statusOk;
    if (auto unknown = unknownSubcommand(app, std::vector<std::string>(argv + 1, argv + argc))) {
        reportProblem("unknown subcommand \"" + unknown->word + "\"; the subcommands are: " +
                      subcommandList(*unknown->within) + " (see --help)");
        return statusUsage;
    }
    if (!asksForHelp(argc, argv)) {
        if (auto problem = gostEngineProblem()) {
            reportProblem(*problem);
            return statusFailed;
        }
    }
    try {
        app.parse(argc, argv);
    } catch (CLI::CallForHelp const& e) {
        return app.exit(e);
    } catch (CLI::CallForAllHelp const& e) {
        return app.exit(e);
    } catch (CLI::CallForVersion const& e) {
        return app.exit(e);
    } catch (CLI::ParseError const& e) {
        reportProblem(std::string(e.what()) + " (see --help)");
        return statusUsage;
    } catch (std::exception const& e) {
        // Whatever a subcommand did not expect ends the command with one
        // line, never with an abort.
        reportProblem(e.what());
        return statusFailed;
    }
    return status;
}
