// Internal: the records behind BlockVerification and VerificationReport,
// which the verification walk fills and the accessors read.
#ifndef SEALKEEP_SRC_VERIFICATION_REPORT_RECORD_HPP
#define SEALKEEP_SRC_VERIFICATION_REPORT_RECORD_HPP

#include <sealkeep/verification_report.hpp>

namespace PackageSignatures {

// What a block's CMS says about its signer's certificate.
struct SignerFacts {
    bool known = false;
    Group group = Group::None;
    Subgroup subgroup = Subgroup::None;
    std::string subject;
    std::string issuer;
    std::string serial;
    std::string keyId;
    std::string sha256Fingerprint;
    std::string notBefore;
    std::string notAfter;
    std::string signingTime;
    std::vector<std::string> previousKeyIds;
};

struct BlockVerification::Record {
    std::size_t index = 0;
    std::int64_t coveredBegin = 0;
    std::int64_t coveredEnd = 0;
    VerificationReason reason = VerificationReason::Ok;
    SignerFacts signer;
};

struct VerificationReport::Record {
    bool verified = false;
    VerificationReason reason = VerificationReason::Ok;
    std::size_t signatures = 0;
    std::vector<BlockVerification> blocks;
};

// The library's way into the records of the opaque report types.
struct ReportAccess {
    using BlockRecord = BlockVerification::Record;
    using ReportRecord = VerificationReport::Record;
    static BlockVerification::Record& of(BlockVerification& block) { return *block.record_; }
    static VerificationReport::Record& of(VerificationReport& report) { return *report.record_; }
};

}  // namespace PackageSignatures

#endif
