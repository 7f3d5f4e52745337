// sealkeep strip: removes every signature of a package, or only the newest.
#include <memory>
#include <string>

#include <CLI/CLI.hpp>
#include <nlohmann/json.hpp>

#include <sealkeep/sealkeep.hpp>

#include "cli.hpp"
#include "interruptions.hpp"
#include "json_output.hpp"
#include "package_writing.hpp"

namespace sealkeep::cli {
namespace {

struct StripOptions {
    std::string package;
    bool last = false;
    double waitSeconds = defaultLockWaitSeconds;
    bool json = false;
};

nlohmann::json strippedJson(std::string const& path, std::size_t removed, std::size_t remaining)
{
    nlohmann::json result = fileResult(path, true);
    result.update({{"removed", removed}, {"signatures", remaining}});
    return result;
}

int runStrip(StripOptions const& options, nlohmann::json& result)
{
    auto file = openPackageForWriting(options.package, "not stripped", options.waitSeconds);
    if (!file)
        return statusFailed;
    WriteInProgress writing;
    if (interruptionPending())
        return statusFailed;  // honoured as writing ends, before anything is written
    std::size_t before = file->cmses().size();
    if (before == 0) {
        result = strippedJson(options.package, 0, 0);
        if (!options.json)
            printLine(options.package + ": no signatures to remove");
        return statusOk;
    }
    if (!file->deleteCmses(options.last)) {
        reportFailure(options.package, "not stripped: cannot truncate: " + systemReason());
        return statusFailed;
    }
    std::size_t after = file->cmses().size();
    result = strippedJson(options.package, before - after, after);
    if (!options.json)
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
    strip->add_option("--wait", options->waitSeconds,
                      "Seconds to wait for another process writing the same package")
        ->capture_default_str()
        ->check(CLI::Range(0.0, 86400.0));
    strip->add_flag("--json", options->json, "Print the result as JSON");
    strip->callback([options, &status] {
        status = runWithResult(options->json, options->package, "not_stripped",
                               [&](nlohmann::json& result) { return runStrip(*options, result); });
    });
}

}  // namespace sealkeep::cli
