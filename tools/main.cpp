// The sealkeep command: signs, verifies and inspects packages, runs a small
// certificate authority and builds key-rotation chains, all through the
// library's public interfaces.
#include <exception>
#include <iostream>

#include <CLI/CLI.hpp>

#include "cli.hpp"
#include "interruptions.hpp"

using namespace sealkeep::cli;

int main(int argc, char** argv)
{
    handleInterruptions();
    CLI::App app{"Sign, verify and inspect packages with stacked GOST CMS signatures.", "sealkeep"};
    app.set_version_flag("--version", "sealkeep " SEALKEEP_VERSION);
    app.require_subcommand(1);
    app.footer("Exit status: 0 success, 1 refused, invalid or failed, 2 bad usage.");

    int status = statusOk;
    addSignCommand(app, status);
    addVerifyCommand(app, status);
    addInspectCommand(app, status);
    addStripCommand(app, status);
    addCaCommands(app, status);
    addRotationCommands(app, status);
    addDbCommands(app, status);
    addImaCommands(app, status);

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
