// The words for the library's verification verdicts, shared by verify and
// by the commands that verify a package before using it. The sentences are
// the library's table of reasons; only the CA file's name is added here.
#include "verification_text.hpp"

#include <sealkeep/sealkeep.hpp>

#include "input_file.hpp"

namespace sealkeep::cli {

using PackageSignatures::BlockVerification;
using PackageSignatures::VerificationReason;
using PackageSignatures::VerificationReport;

std::string explainReason(VerificationReason reason, std::string const& ca)
{
    if (reason != VerificationReason::UnreadableCa)
        return PackageSignatures::reasonText(reason);
    // The library reads no FIFO or device in place of the CA file.
    if (inputRefusal(ca) == notRegularFile)
        return "no CA certificates could be read from " + ca + ": " + notRegularFile;
    return "no CA certificates could be read from " + ca;
}

std::string blockText(BlockVerification const& block, std::size_t signatures)
{
    std::string group = PackageSignatures::groupToString(block.group());
    return "block " + std::to_string(block.index() + 1) + " of " + std::to_string(signatures) + " (" +
           (group.empty() ? "" : group + ", ") + "covers bytes [" + std::to_string(block.coveredBegin()) + ", " +
           std::to_string(block.coveredEnd()) + ")";
}

// "block 1 of 3 (developer, covers bytes [0, 4096)): the rotation chain ..."
std::string verificationRefusal(VerificationReport const& report, std::string const& ca)
{
    if (report.blocks().empty())
        return explainReason(report.reason(), ca);
    BlockVerification const& block = report.blocks().back();
    return blockText(block, report.signatures()) + "): " + explainReason(block.reason(), ca);
}

}  // namespace sealkeep::cli
