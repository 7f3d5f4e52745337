// sealkeep verify: the verdict of the library on each package's signature
// stack against a CA file.
#include <memory>
#include <string>
#include <vector>

#include <CLI/CLI.hpp>
#include <nlohmann/json.hpp>

#include <sealkeep/sealkeep.hpp>

#include "cli.hpp"
#include "input_file.hpp"
#include "json_output.hpp"
#include "verification_text.hpp"

namespace sealkeep::cli {
namespace {

struct VerifyOptions {
    std::vector<std::string> packages;
    std::string ca;
    bool json = false;
};

using PackageSignatures::BlockVerification;
using PackageSignatures::VerificationReason;
using PackageSignatures::VerificationReport;

// Blocks are numbered from 1, oldest first, as inspect numbers them.
nlohmann::json blockJson(BlockVerification const& block)
{
    std::string group = PackageSignatures::groupToString(block.group);
    return {{"index", block.index + 1},
            {"group", group.empty() ? nlohmann::json() : nlohmann::json(group)},
            {"covered", {{"begin", block.coveredBegin}, {"end", block.coveredEnd}}},
            {"reason", PackageSignatures::reasonName(block.reason)}};
}

// The verdict on one package, with the blocks checked, newest first.
nlohmann::json verifyPackage(std::string const& path, std::string const& ca)
{
    std::string refusal;
    auto file = openPackageForReading(path, refusal);
    if (!file) {
        nlohmann::json result = fileResult(path, false, "unreadable_file", refusal);
        result["blocks"] = nlohmann::json::array();
        return result;
    }
    VerificationReport report = file->verificationReport(ca.c_str());
    nlohmann::json result = {{"path", path}, {"ok", report.verified}, {"blocks", nlohmann::json::array()}};
    result["signatures"] = report.signatures;
    result["reason"] = PackageSignatures::reasonName(report.reason);
    for (BlockVerification const& block : report.blocks)
        result["blocks"].push_back(blockJson(block));
    if (!report.verified)
        result["error"] = verificationRefusal(report, ca);
    return result;
}

// A CA file that cannot be read is the library's to report, package by
// package (unreadable_ca), so that --json always answers for every package.
int runVerify(VerifyOptions const& options)
{
    nlohmann::json packages = nlohmann::json::array();
    bool allVerified = true;
    for (auto const& path : options.packages) {
        nlohmann::json result = verifyPackage(path, options.ca);
        if (result["ok"]) {
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
        printJson({{"packages", packages}});
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
