// sealkeep verify: the verdict of the library on each package's signature
// stack against a CA file.
#include <memory>
#include <string>
#include <vector>

#include <CLI/CLI.hpp>
#include <nlohmann/json.hpp>

#include <sealkeep/sealkeep.hpp>

#include "cli.hpp"
#include "json_output.hpp"

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

// What a person reads for each reason; the JSON carries the reason's name.
std::string explain(VerificationReason reason, std::string const& ca)
{
    switch (reason) {
    case VerificationReason::Ok:
        return "verified";
    case VerificationReason::UnreadableCa:
        return "no CA certificates could be read from " + ca;
    case VerificationReason::NoSignatures:
        return "no signatures";
    case VerificationReason::TooManySignatures:
        return "too many signatures (at most 3)";
    case VerificationReason::GroupNotAllowed:
        return "the signer's group may not sign at this position";
    case VerificationReason::ContentDigestMismatch:
        return "the covered bytes do not match the signature (content digest)";
    case VerificationReason::CertificateChainNotTrusted:
        return "the signer's certificate does not chain to the CA";
    case VerificationReason::RotationChainInvalid:
        return "the rotation chain does not verify";
    case VerificationReason::RotationChainNotAtSigner:
        return "the rotation chain does not end at the signer's key";
    case VerificationReason::CmsMalformed:
        return "the CMS is malformed (undecodable, not exactly one signer, or unknown block version)";
    case VerificationReason::SignatureInvalid:
        return "the signature value does not verify with the signer's key";
    case VerificationReason::CertificateExpired:
        return "the signer's certificate (or a CA certificate of its chain) has expired";
    case VerificationReason::CertificateNotYetValid:
        return "the signer's certificate (or a CA certificate of its chain) is not valid yet";
    }
    return PackageSignatures::reasonName(reason);
}

// Blocks are numbered from 1, oldest first, as inspect numbers them.
nlohmann::json blockJson(BlockVerification const& block)
{
    std::string group = PackageSignatures::groupToString(block.group);
    return {{"index", block.index + 1},
            {"group", group.empty() ? nlohmann::json() : nlohmann::json(group)},
            {"covered", {{"begin", block.coveredBegin}, {"end", block.coveredEnd}}},
            {"reason", PackageSignatures::reasonName(block.reason)}};
}

// "block 1 of 3 (developer, covers bytes [0, 4096)): the rotation chain ..."
std::string refusal(VerificationReport const& report, std::string const& ca)
{
    if (report.blocks.empty())
        return explain(report.reason, ca);
    BlockVerification const& block = report.blocks.back();
    std::string group = PackageSignatures::groupToString(block.group);
    return "block " + std::to_string(block.index + 1) + " of " + std::to_string(report.signatures) + " (" +
           (group.empty() ? "" : group + ", ") + "covers bytes [" + std::to_string(block.coveredBegin) + ", " +
           std::to_string(block.coveredEnd) + ")): " + explain(block.reason, ca);
}

// The verdict on one package, with the blocks checked, newest first.
nlohmann::json verifyPackage(std::string const& path, std::string const& ca)
{
    nlohmann::json result = {{"path", path}, {"verified", false}, {"blocks", nlohmann::json::array()}};
    auto file = PackageSignatures::FileWithCmses::fromPath(path.c_str(), "r");
    if (!file) {
        result["error"] = "cannot open: " + systemReason();
        return result;
    }
    VerificationReport report = file->verificationReport(ca.c_str());
    result["verified"] = report.verified;
    result["signatures"] = report.signatures;
    result["reason"] = PackageSignatures::reasonName(report.reason);
    for (BlockVerification const& block : report.blocks)
        result["blocks"].push_back(blockJson(block));
    if (!report.verified)
        result["error"] = refusal(report, ca);
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
