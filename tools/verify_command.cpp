// sealkeep verify: the verdict of the library on each package's signature
// stack against a CA file.
#include <fstream>
#include <memory>
#include <string>
#include <vector>

#include <CLI/CLI.hpp>
#include <nlohmann/json.hpp>

#include <sealkeep/sealkeep.hpp>

#include "cli.hpp"

namespace sealkeep::cli {
namespace {

struct VerifyOptions {
    std::vector<std::string> packages;
    std::string ca;
    bool json = false;
};

// The verdict on one package. "blocks" stays empty until the library reports
// per block why a stack was refused.
nlohmann::json verifyPackage(std::string const& path, std::string const& ca)
{
    nlohmann::json result = {{"path", path}, {"verified", false}, {"blocks", nlohmann::json::array()}};
    auto file = PackageSignatures::FileWithCmses::fromPath(path.c_str(), "r");
    if (!file) {
        result["error"] = "cannot open: " + systemReason();
        return result;
    }
    std::size_t count = file->cmses().size();
    result["signatures"] = count;
    result["verified"] = file->verifyCmses(ca.c_str());
    if (!result["verified"])
        result["error"] = count == 0 ? "no signatures" : "the signatures do not verify against " + ca;
    return result;
}

int runVerify(VerifyOptions const& options)
{
    if (!std::ifstream(options.ca)) {
        reportFailure(options.ca, "cannot read the CA certificates: " + systemReason());
        return statusFailed;
    }
    nlohmann::json packages = nlohmann::json::array();
    bool allVerified = true;
    for (auto const& path : options.packages) {
        nlohmann::json result = verifyPackage(path, options.ca);
        if (result["verified"]) {
            if (!options.json)
                printLine(path + ": verified (" + countOf(result["signatures"].get<std::size_t>(), "signature") + ")");
        } else {
            allVerified = false;
            reportFailure(path, result["error"].get<std::string>());
            if (!options.json)
                printLine(path + ": refused");
        }
        packages.push_back(std::move(result));
    }
    if (options.json)
        printLine(nlohmann::json{{"packages", packages}}.dump(2));
    return allVerified ? statusOk : statusFailed;
}

}  // namespace

void addVerifyCommand(CLI::App& app, int& status)
{
    auto options = std::make_shared<VerifyOptions>();
    CLI::App* verify = app.add_subcommand("verify", "Verify the signature stack of each package");
    verify->add_option("packages", options->packages, "Packages to verify")->required();
    verify->add_option("--ca", options->ca, "CA certificates (PEM)")->required();
    verify->add_flag("--json", options->json, "Print the verdicts as JSON");
    verify->callback([options, &status] { status = runVerify(*options); });
}

}  // namespace sealkeep::cli
