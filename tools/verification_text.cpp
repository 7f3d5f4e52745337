// The words for the library's verification verdicts, shared by verify and
// by the commands that verify a package before using it.
#include "verification_text.hpp"

#include <sealkeep/sealkeep.hpp>

#include "input_file.hpp"

namespace sealkeep::cli {

using PackageSignatures::BlockVerification;
using PackageSignatures::VerificationReason;
using PackageSignatures::VerificationReport;

// What a person reads for each reason; the JSON carries the reason's name.
std::string explainReason(VerificationReason reason, std::string const& ca)
{
    switch (reason) {
    case VerificationReason::Ok:
        return "verified";
    case VerificationReason::UnreadableCa:
        // The library reads no FIFO or device in place of the CA file.
        if (inputRefusal(ca) == notRegularFile)
            return "no CA certificates could be read from " + ca + ": " + notRegularFile;
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

// "block 1 of 3 (developer, covers bytes [0, 4096)): the rotation chain ..."
std::string verificationRefusal(VerificationReport const& report, std::string const& ca)
{
    if (report.blocks.empty())
        return explainReason(report.reason, ca);
    BlockVerification const& block = report.blocks.back();
    std::string group = PackageSignatures::groupToString(block.group);
    return "block " + std::to_string(block.index + 1) + " of " + std::to_string(report.signatures) + " (" +
           (group.empty() ? "" : group + ", ") + "covers bytes [" + std::to_string(block.coveredBegin) + ", " +
           std::to_string(block.coveredEnd) + ")): " + explainReason(block.reason, ca);
}

}  // namespace sealkeep::cli
