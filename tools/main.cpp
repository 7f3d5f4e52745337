// The sealkeep command: signs, verifies and inspects packages, runs a small
// certificate authority and builds key-rotation chains, all through the
// library's public interfaces.
#include <exception>
#include <cstring>
#include <iostream>

#include <CLI/CLI.hpp>

#include "cli.hpp"
#include "gost_engine.hpp"
#include "interruptions.hpp"

using namespace sealkeep::cli;

namespace {

// Help is text only and needs no engine; every other use of the command,
// --version included, needs it.
bool asksForHelp(int argc, char** argv)
{
    for (int i = 1; i < argc; ++i) {
        if (strcmp(argv[i], "--help") == 0 || strcmp(argv[i], "-h") == 0 || strcmp(argv[i], "--help-all") == 0)
            return true;
    }
    return false;
}

}  // namespace

int main(int argc, char** argv)
{
    handleInterruptions();
    CLI::App app{"Sign, verify and inspect packages with stacked GOST CMS signatures.", "sealkeep"};
    app.set_version_flag("--version", [] { return versionText(SEALKEEP_VERSION); });
    app.require_subcommand(1);
    app.footer("Exit status: 0 success, 1 refused, invalid or failed, 2 bad usage.");

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

    if (!asksForHelp(argc, argv)) {
        if (auto problem = gostEngineProblem()) {
            std::cerr << "sealkeep: " << *problem << std::endl;
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
        std::cerr << "sealkeep: " << e.what() << " (see --help)" << std::endl;
        return statusUsage;
    } catch (std::exception const& e) {
        // Whatever a subcommand did not expect ends the command with one
        // line, never with an abort.
        std::cerr << "sealkeep: " << e.what() << std::endl;
        return statusFailed;
    }
    return status;
}
