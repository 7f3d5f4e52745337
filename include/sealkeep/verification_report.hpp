// PackageSignatures::VerificationReport: why a signed file was accepted or
// refused. FileWithCmses::verificationReport fills it on the same walk that
// verifyCmses answers from: blocks are checked newest first and the walk
// stops at the first refused block, so the report lists the blocks checked,
// newest first, the last of them the one refused.
//
// A report is a plain value: it holds neither the file nor OpenSSL objects.
#ifndef SEALKEEP_VERIFICATION_REPORT_HPP
#define SEALKEEP_VERIFICATION_REPORT_HPP

#include <cstddef>
#include <cstdint>
#include <vector>

#include <sealkeep/export.hpp>
#include <sealkeep/groups.hpp>

namespace PackageSignatures {

// The check that refused a file or one of its blocks. The values are stable;
// reasonName gives each a stable name for machine-readable output.
enum class VerificationReason : std::uint32_t {
    Ok = 0,                          // "ok"
    UnreadableCa = 1,                // "unreadable_ca": the CA file gave no store
    NoSignatures = 2,                // "no_signatures"
    TooManySignatures = 3,           // "too_many_signatures": more than three blocks
    GroupNotAllowed = 4,             // "group_not_allowed": signer's group at this position
    ContentDigestMismatch = 5,       // "content_digest_mismatch": covered bytes changed
    CertificateChainNotTrusted = 6,  // "certificate_chain_not_trusted"
    RotationChainInvalid = 7,        // "rotation_chain_invalid": too long or does not verify
    RotationChainNotAtSigner = 8,    // "rotation_chain_not_at_signer"
    CmsMalformed = 9,                // "cms_malformed": undecodable, not exactly one signer,
                                     // or a later block of unknown version
    SignatureInvalid = 10,           // "signature_invalid": the signature value itself does
                                     // not verify with the signer's key
    CertificateExpired = 11,         // "certificate_expired": the signer's certificate chains
                                     // to the CA but it (or a CA of its chain) has expired
    CertificateNotYetValid = 12,     // "certificate_not_yet_valid": likewise, not yet valid
};

// "ok", "unreadable_ca", ... as listed above; "unknown" for any other value.
SEALKEEP_EXPORT char const* reasonName(VerificationReason reason);

// One block as the walk saw it.
struct SEALKEEP_EXPORT BlockVerification {
    std::size_t index = 0;             // 0-based position in the stack, oldest first
    // The signer's group once the CMS has verified; None for a block refused
    // before that, whose signer is not established.
    Group group = Group::None;
    std::int64_t coveredBegin = 0;     // the signed bytes [coveredBegin, coveredEnd) of the file
    std::int64_t coveredEnd = 0;
    VerificationReason reason = VerificationReason::Ok;
};

struct SEALKEEP_EXPORT VerificationReport {
    bool verified = false;                                // what verifyCmses answers
    VerificationReason reason = VerificationReason::Ok;  // Ok, or why the file was refused
    std::size_t signatures = 0;                           // blocks found by the scan
    std::vector<BlockVerification> blocks;                // checked blocks, newest first
};

}  // namespace PackageSignatures

#endif
