// sealkeep verify: the verdict of the library on each package's signature
// stack against a CA file, who signed each block (with -v, and always in
// --json), and the pins a gate may add: a given signer at a position, the
// exact stack of groups, a least number of signatures.
#include <algorithm>
#include <memory>
#include <string>
#include <vector>

#include <CLI/CLI.hpp>
#include <nlohmann/json.hpp>

#include <sealkeep/sealkeep.hpp>

#include "cli.hpp"
#include "input_file.hpp"
#include "json_output.hpp"
#include "signer_pins.hpp"
#include "terminal_text.hpp"
#include "verification_text.hpp"

namespace sealkeep::cli {
namespace {

using nlohmann::json;
using PackageSignatures::BlockVerification;
using PackageSignatures::VerificationReason;
using PackageSignatures::VerificationReport;

struct VerifyOptions {
    std::vector<std::string> packages;
    std::string ca;
    bool json = false;
    bool verbose = false;
    std::vector<std::string> signers;
    std::string require;
    std::size_t minSignatures = 0;
};

// The verdict on one package: the library's report, then the gate's pins.
struct PackageVerdict {
    std::string path;
    bool opened = false;
    std::string openRefusal;
    VerificationReport report;
    PinVerdict pins;  // Ok unless the stack verified and a pin broke

    VerificationReason reason() const
    {
        return report.verified() ? pins.reason : report.reason();
    }
    bool ok() const { return opened && reason() == VerificationReason::Ok; }
    // The reason a block stands refused for, pins included.
    VerificationReason reasonOf(BlockVerification const& block) const
    {
        return pins.block == block.index() ? pins.reason : block.reason();
    }
};

json textOrNull(std::string const& text)
{
    return text.empty() ? json() : json(text);
}

// Blocks are numbered from 1, oldest first, as inspect numbers them. The
// signer's facts are null where the CMS named no signer.
json blockJson(PackageVerdict const& verdict, BlockVerification const& block)
{
    VerificationReason reason = verdict.reasonOf(block);
    json result = {{"index", block.index() + 1},
                   {"verified", reason == VerificationReason::Ok},
                   {"reason", PackageSignatures::reasonName(reason)},
                   {"coveredBegin", block.coveredBegin()},
                   {"coveredEnd", block.coveredEnd()},
                   {"signerKnown", block.signerKnown()}};
    bool known = block.signerKnown();
    std::string group = PackageSignatures::groupToString(block.group());
    result["group"] = textOrNull(group);
    result["subgroup"] = group.empty() ? json() : json(PackageSignatures::subgroupToString(block.subgroup()));
    for (auto const& [key, value] :
         {std::pair<char const*, std::string>{"subject", block.subject()},
          {"issuer", block.issuer()},
          {"serial", block.serial()},
          {"keyId", block.keyId()},
          {"sha256Fingerprint", block.sha256Fingerprint()},
          {"notBefore", block.notBefore()},
          {"notAfter", block.notAfter()},
          {"signingTime", block.signingTime()}})
        result[key] = known ? textOrNull(value) : json();
    result["previousKeyIds"] = block.previousKeyIds();
    return result;
}

std::vector<BlockVerification const*> oldestFirst(VerificationReport const& report)
{
    std::vector<BlockVerification const*> blocks;
    for (auto const& block : report.blocks())
        blocks.push_back(&block);
    std::sort(blocks.begin(), blocks.end(), [](auto* a, auto* b) { return a->index() < b->index(); });
    return blocks;
}

// What a person reads on standard error for a refused package.
std::string refusalText(PackageVerdict const& verdict, std::string const& ca)
{
    if (!verdict.opened)
        return verdict.openRefusal;
    if (!verdict.report.verified())
        return verificationRefusal(verdict.report, ca);
    std::string why = PackageSignatures::reasonText(verdict.pins.reason);
    for (auto const& block : verdict.report.blocks()) {
        if (verdict.pins.block == block.index())
            return blockText(block, verdict.report.signatures()) + "): " + why + " (" + verdict.pins.detail + ")";
    }
    return why + " (" + verdict.pins.detail + ")";
}

json packageJson(PackageVerdict const& verdict, std::string const& ca)
{
    if (!verdict.opened) {
        json result = fileResult(verdict.path, false, "unreadable_file", verdict.openRefusal);
        result["blocks"] = json::array();
        return result;
    }
    json result = {{"path", verdict.path}, {"ok", verdict.ok()}, {"blocks", json::array()}};
    result["signatures"] = verdict.report.signatures();
    result["reason"] = PackageSignatures::reasonName(verdict.reason());
    for (BlockVerification const& block : verdict.report.blocks())
        result["blocks"].push_back(blockJson(verdict, block));
    if (!verdict.ok())
        result["error"] = refusalText(verdict, ca);
    return result;
}

void printSigner(BlockVerification const& block)
{
    if (!block.signerKnown()) {
        printLine("    signer: unknown (no CMS that names its signer's certificate)");
        return;
    }
    std::string group = PackageSignatures::groupToString(block.group());
    printLine("    group: " + (group.empty() ? std::string("none")
                                              : group + ":" + PackageSignatures::subgroupToString(block.subgroup())));
    printLine("    subject: " + visible(block.subject()));
    printLine("    issuer: " + visible(block.issuer()));
    printLine("    serial: " + visible(block.serial()));
    printLine("    key id: " + visible(block.keyId()));
    printLine("    sha256 fingerprint: " + block.sha256Fingerprint());
    printLine("    valid: " + block.notBefore() + " to " + block.notAfter());
    printLine("    signed at: " + (block.signingTime().empty() ? std::string("(no signing time)") : block.signingTime()));
    std::string rotated;
    for (auto const& keyId : block.previousKeyIds())
        rotated += (rotated.empty() ? "" : ", ") + visible(keyId);
    printLine("    rotated from: " + (rotated.empty() ? std::string("none") : rotated));
}

// -v: every block checked, oldest first, with its signer and verdict.
void printBlocks(PackageVerdict const& verdict, std::string const& ca)
{
    VerificationReport const& report = verdict.report;
    auto blocks = oldestFirst(report);
    if (!blocks.empty() && blocks.front()->index() > 0)
        printLine("  blocks 1 to " + std::to_string(blocks.front()->index()) + " of " +
                  std::to_string(report.signatures()) + ": not checked (the newer block was refused)");
    for (BlockVerification const* block : blocks) {
        VerificationReason reason = verdict.reasonOf(*block);
        printLine("  block " + std::to_string(block->index() + 1) + " of " + std::to_string(report.signatures()) +
                  ": " + (reason == VerificationReason::Ok ? std::string("verified")
                                                           : "refused: " + explainReason(reason, ca)));
        printSigner(*block);
        printLine("    covers bytes: [" + std::to_string(block->coveredBegin()) + ", " +
                  std::to_string(block->coveredEnd()) + ")");
    }
}

PackageVerdict verifyPackage(std::string const& path, std::string const& ca, Pins const& pins)
{
    PackageVerdict verdict;
    verdict.path = path;
    auto file = openPackageForReading(path, verdict.openRefusal);
    if (!file)
        return verdict;
    verdict.opened = true;
    verdict.report = file->verificationReport(ca.c_str());
    if (verdict.report.verified())
        verdict.pins = checkPins(verdict.report, pins);
    return verdict;
}

// Options that did not parse were refused by their checks; these parse.
Pins pinsOf(VerifyOptions const& options)
{
    Pins pins;
    std::string why;
    for (auto const& text : options.signers)
        pins.signers.push_back(*parseSignerPin(text, why));
    if (!options.require.empty())
        pins.stack = parseRequiredStack(options.require, why);
    pins.minSignatures = options.minSignatures;
    return pins;
}

// A CA file that cannot be read is the library's to report, package by
// package (unreadable_ca), so that --json always answers for every package.
int runVerify(VerifyOptions const& options)
{
    Pins pins = pinsOf(options);
    json packages = json::array();
    int status = statusOk;
    for (auto const& path : options.packages) {
        PackageVerdict verdict = verifyPackage(path, options.ca, pins);
        if (verdict.ok()) {
            if (!options.json)
                printLine(path + ": verified (" + countOf(verdict.report.signatures(), "signature") + ")");
        } else {
            status = std::max(status, verdict.opened ? PackageSignatures::reasonExitStatus(verdict.reason())
                                                     : statusFailed);
            reportFailure(path, refusalText(verdict, options.ca));
            if (!options.json)
                printLine(path + ": refused");
        }
        if (options.verbose && !options.json && verdict.opened)
            printBlocks(verdict, options.ca);
        packages.push_back(packageJson(verdict, options.ca));
    }
    if (options.json)
        printJson({{"schemaVersion", jsonSchemaVersion}, {"packages", packages}});
    return status;
}

// CLI11 validators: an empty text accepts the value.
std::string signerPinProblem(std::string const& text)
{
    std::string why;
    return parseSignerPin(text, why) ? std::string() : why;
}

std::string requiredStackProblem(std::string const& text)
{
    std::string why;
    return parseRequiredStack(text, why) ? std::string() : why;
}

}  // namespace

void addVerifyCommand(CLI::App& app, int& status)
{
    auto options = std::make_shared<VerifyOptions>();
    CLI::App* verify = app.add_subcommand("verify", "Verify the signature stack of each package");
    verify->add_option("packages", options->packages, "Packages to verify")->required();
    verify->add_option("--ca", options->ca, "CA certificates (PEM)")->required();
    verify->add_flag("--json", options->json, "Print the verdicts as JSON, with every block's signer");
    verify->add_flag("-v,--verbose,--print-certs", options->verbose,
                     "Print every checked block's signer (subject, issuer, serial, key id, SHA-256 fingerprint, "
                     "validity, signing time, rotations) and verdict");
    verify
        ->add_option("--signer", options->signers,
                     "Refuse unless the signer at POSITION has this key id or certificate fingerprint "
                     "(signer_not_pinned). POSITION is a block number as verify prints it (1 = oldest, the "
                     "developer's) or a group name (developer, seclab, client: every block of that group, at "
                     "least one). Repeatable")
        ->type_name("POSITION=KEYID|POSITION=sha256:FINGERPRINT")
        ->check(CLI::Validator(signerPinProblem, "POSITION=KEYID|POSITION=sha256:FINGERPRINT"));
    verify
        ->add_option("--require", options->require,
                     "Refuse unless the stack's groups, oldest first, are exactly these (stack_incomplete)")
        ->type_name("GROUP,GROUP,...")
        ->check(CLI::Validator(requiredStackProblem, "GROUP,GROUP,..."));
    verify
        ->add_option("--min-signatures", options->minSignatures,
                     "Refuse a package with fewer signatures (stack_incomplete)")
        ->type_name("N")
        ->check(CLI::Range(std::size_t{1}, PackageSignatures::maxStackSignatures));
    verify->callback([options, &status] { status = runVerify(*options); });
}

}  // namespace sealkeep::cli
