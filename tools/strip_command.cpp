// sealkeep strip: removes every signature of a package, or only the newest.
#include <memory>
#include <string>

#include <CLI/CLI.hpp>

#include <sealkeep/sealkeep.hpp>

#include "cli.hpp"

namespace sealkeep::cli {
namespace {

struct StripOptions {
    std::string package;
    bool last = false;
};

int runStrip(StripOptions const& options)
{
    auto file = PackageSignatures::FileWithCmses::fromPath(options.package.c_str(), "r+");
    if (!file) {
        reportFailure(options.package, "cannot open for writing: " + systemReason());
        return statusFailed;
    }
    std::size_t before = file->cmses().size();
    if (before == 0) {
        printLine(options.package + ": no signatures to remove");
        return statusOk;
    }
    if (!file->deleteCmses(options.last)) {
        reportFailure(options.package, "cannot truncate: " + systemReason());
        return statusFailed;
    }
    std::size_t after = file->cmses().size();
    printLine(options.package + ": removed " + std::to_string(before - after) + " of " +
              countOf(before, "signature"));
    return statusOk;
}

}  // namespace

void addStripCommand(CLI::App& app, int& status)
{
    auto options = std::make_shared<StripOptions>();
    CLI::App* strip = app.add_subcommand("strip", "Remove the signatures of a package");
    strip->add_option("package", options->package, "Package to strip")->required();
    strip->add_flag("--last", options->last, "Remove only the newest signature");
    strip->callback([options, &status] { status = runStrip(*options); });
}

}  // namespace sealkeep::cli
