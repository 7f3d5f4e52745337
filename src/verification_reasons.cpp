// The table of verification reasons: for each, its name in machine-readable
// output, the sentence a person reads and the exit status of a command that
// stops for it. The library's names and every tool's words come from here.
//
// The table is a switch over the enumeration that the compiler checks for
// completeness: a reason added to the enumeration without its row here does
// not build.
#include <sealkeep/verification_report.hpp>

#include <cstring>

#pragma GCC diagnostic error "-Wswitch"

namespace PackageSignatures {
namespace {

struct ReasonRow {
    char const* name;
    char const* text;
    int exitStatus;
};

constexpr int refused = 1;

constexpr ReasonRow unknownReason = {"unknown", "unknown reason", refused};

constexpr ReasonRow rowOf(VerificationReason reason)
{
    using R = VerificationReason;
    switch (reason) {
    case R::Ok:
        return {"ok", "verified", 0};
    case R::UnreadableCa:
        return {"unreadable_ca", "no CA certificates could be read from the CA file", refused};
    case R::NoSignatures:
        return {"no_signatures", "no signatures", refused};
    case R::TooManySignatures:
        return {"too_many_signatures", "too many signatures (at most 3)", refused};
    case R::GroupNotAllowed:
        return {"group_not_allowed", "the signer's group may not sign at this position", refused};
    case R::ContentDigestMismatch:
        return {"content_digest_mismatch", "the covered bytes do not match the signature (content digest)",
                refused};
    case R::CertificateChainNotTrusted:
        return {"certificate_chain_not_trusted", "the signer's certificate does not chain to the CA", refused};
    case R::RotationChainInvalid:
        return {"rotation_chain_invalid", "the rotation chain does not verify", refused};
    case R::RotationChainNotAtSigner:
        return {"rotation_chain_not_at_signer", "the rotation chain does not end at the signer's key", refused};
    case R::CmsMalformed:
        return {"cms_malformed",
                "the CMS is malformed (undecodable, not exactly one signer, or unknown block version)", refused};
    case R::SignatureInvalid:
        return {"signature_invalid", "the signature value does not verify with the signer's key", refused};
    case R::CertificateExpired:
        return {"certificate_expired", "the signer's certificate (or a CA certificate of its chain) has expired",
                refused};
    case R::CertificateNotYetValid:
        return {"certificate_not_yet_valid",
                "the signer's certificate (or a CA certificate of its chain) is not valid yet", refused};
    case R::SignerNotPinned:
        return {"signer_not_pinned", "the signer is not the one pinned for this position", refused};
    case R::StackIncomplete:
        return {"stack_incomplete", "the stack of signatures is not the one required", refused};
    }
    return unknownReason;
}

bool known(ReasonRow const& row)
{
    return std::strcmp(row.name, unknownReason.name) != 0;
}

}  // namespace

char const* reasonName(VerificationReason reason)
{
    return rowOf(reason).name;
}

char const* reasonText(VerificationReason reason)
{
    return rowOf(reason).text;
}

int reasonExitStatus(VerificationReason reason)
{
    return rowOf(reason).exitStatus;
}

// The values are dense from Ok on, so the first value without a row ends
// the table.
std::vector<VerificationReason> verificationReasons()
{
    std::vector<VerificationReason> reasons;
    for (std::uint32_t value = 0; known(rowOf(static_cast<VerificationReason>(value))); ++value)
        reasons.push_back(static_cast<VerificationReason>(value));
    return reasons;
}

}  // namespace PackageSignatures
