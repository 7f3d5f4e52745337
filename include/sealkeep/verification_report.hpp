// PackageSignatures::VerificationReport: why a signed file was accepted or
// refused, and who signed each block. FileWithCmses::verificationReport fills
// it on the same walk that verifyCmses answers from, from the one read of each
// block that is verified: blocks are checked newest first and the walk stops
// at the first refused block, so the report lists the blocks checked, newest
// first, the last of them the one refused.
//
// A report is a value: it holds neither the file nor OpenSSL objects. Both
// classes are opaque (one pointer to a private record) and answer through
// accessors, so that a later version adds a fact by adding an accessor,
// never by changing the layout a client was compiled against (see README,
// "Compatibility").
#ifndef SEALKEEP_VERIFICATION_REPORT_HPP
#define SEALKEEP_VERIFICATION_REPORT_HPP

#include <cstddef>
#include <cstdint>
#include <memory>
#include <string>
#include <vector>

#include <sealkeep/export.hpp>
#include <sealkeep/groups.hpp>

namespace PackageSignatures {

// The check that refused a file or one of its blocks. The values are stable.
// Each has a stable name for machine-readable output (reasonName), a sentence
// for people (reasonText) and an exit status for commands (reasonExitStatus),
// all kept in one table in the library; verificationReasons lists them.
enum class VerificationReason : std::uint32_t {
    Ok = 0,
    UnreadableCa = 1,
    NoSignatures = 2,
    TooManySignatures = 3,
    GroupNotAllowed = 4,
    ContentDigestMismatch = 5,
    CertificateChainNotTrusted = 6,
    RotationChainInvalid = 7,
    RotationChainNotAtSigner = 8,
    CmsMalformed = 9,
    SignatureInvalid = 10,
    CertificateExpired = 11,
    CertificateNotYetValid = 12,
    // The two below are never given by verificationReport: they are a
    // caller's policy over a stack that verified (a pinned signer, a required
    // stack of groups), named here so that every tool spells them alike.
    SignerNotPinned = 13,
    StackIncomplete = 14,
};

// "ok", "unreadable_ca", ... (snake_case); "unknown" for any other value.
SEALKEEP_EXPORT char const* reasonName(VerificationReason reason);
// One English sentence without a final stop, e.g. "the covered bytes do not
// match the signature (content digest)"; "unknown reason" for any other value.
SEALKEEP_EXPORT char const* reasonText(VerificationReason reason);
// 0 for Ok, 1 for every refusal, as a command should exit.
SEALKEEP_EXPORT int reasonExitStatus(VerificationReason reason);
// Every reason of the table, Ok first.
SEALKEEP_EXPORT std::vector<VerificationReason> verificationReasons();

// One block as the walk saw it, with its signer as the block's CMS names it.
// The signer's facts are filled whenever the CMS decoded and carried the
// certificate of its signer, also for a block that was refused (a tampered
// block still names who it claims signed it); they are a claim until the
// block verified. Empty texts stand for facts that are absent.
class SEALKEEP_EXPORT BlockVerification {
public:
    BlockVerification();
    BlockVerification(BlockVerification const& other);
    BlockVerification(BlockVerification&& other) noexcept;
    BlockVerification& operator=(BlockVerification const& other);
    BlockVerification& operator=(BlockVerification&& other) noexcept;
    ~BlockVerification();

    std::size_t index() const;  // 0-based position in the stack, oldest first
    // The signed bytes [coveredBegin, coveredEnd) of the file.
    std::int64_t coveredBegin() const;
    std::int64_t coveredEnd() const;
    VerificationReason reason() const;
    bool verified() const;  // reason() is Ok

    // Whether the CMS decoded and its signer's certificate was found in it.
    bool signerKnown() const;
    Group group() const;  // None when the certificate names no group
    Subgroup subgroup() const;
    std::string subject() const;  // full distinguished name, RFC 2253
    std::string issuer() const;   // likewise
    std::string serial() const;   // lower-case hexadecimal, "-" in front if negative
    std::string keyId() const;    // as everywhere in the library
    // SHA-256 of the certificate's DER, lower-case hexadecimal, no separators.
    std::string sha256Fingerprint() const;
    // "YYYY-MM-DDTHH:MM:SSZ" (UTC).
    std::string notBefore() const;
    std::string notAfter() const;
    std::string signingTime() const;  // the signed signingTime attribute
    // The key ids the signer's key was rotated from, oldest first, as the
    // block's rotation chain claims them; empty without a chain.
    std::vector<std::string> previousKeyIds() const;

private:
    struct Record;
    friend struct ReportAccess;
    std::unique_ptr<Record> record_;
};

class SEALKEEP_EXPORT VerificationReport {
public:
    VerificationReport();
    VerificationReport(VerificationReport const& other);
    VerificationReport(VerificationReport&& other) noexcept;
    VerificationReport& operator=(VerificationReport const& other);
    VerificationReport& operator=(VerificationReport&& other) noexcept;
    ~VerificationReport();

    bool verified() const;              // what verifyCmses answers
    VerificationReason reason() const;  // Ok, or why the file was refused
    std::size_t signatures() const;     // blocks found by the scan
    // The checked blocks, newest first.
    std::vector<BlockVerification> const& blocks() const;

private:
    struct Record;
    friend struct ReportAccess;
    std::unique_ptr<Record> record_;
};

}  // namespace PackageSignatures

#endif
