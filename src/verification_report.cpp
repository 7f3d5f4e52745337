// The accessors of the opaque report types: each answers from the record the
// verification walk filled.
#include <sealkeep/verification_report.hpp>

#include "verification_report_record.hpp"

namespace PackageSignatures {

BlockVerification::BlockVerification() : record_(std::make_unique<Record>()) {}
BlockVerification::BlockVerification(BlockVerification const& other)
    : record_(std::make_unique<Record>(*other.record_))
{
}
// A moved-from block keeps a record of its own, so every accessor stays safe.
BlockVerification::BlockVerification(BlockVerification&& other) noexcept
    : record_(std::make_unique<Record>())
{
    std::swap(record_, other.record_);
}
BlockVerification& BlockVerification::operator=(BlockVerification const& other)
{
    if (this != &other)
        *record_ = *other.record_;
    return *this;
}
BlockVerification& BlockVerification::operator=(BlockVerification&& other) noexcept
{
    std::swap(record_, other.record_);
    return *this;
}
BlockVerification::~BlockVerification() = default;

std::size_t BlockVerification::index() const { return record_->index; }
std::int64_t BlockVerification::coveredBegin() const { return record_->coveredBegin; }
std::int64_t BlockVerification::coveredEnd() const { return record_->coveredEnd; }
VerificationReason BlockVerification::reason() const { return record_->reason; }
bool BlockVerification::verified() const { return record_->reason == VerificationReason::Ok; }
bool BlockVerification::signerKnown() const { return record_->signer.known; }
Group BlockVerification::group() const { return record_->signer.group; }
Subgroup BlockVerification::subgroup() const { return record_->signer.subgroup; }
std::string BlockVerification::subject() const { return record_->signer.subject; }
std::string BlockVerification::issuer() const { return record_->signer.issuer; }
std::string BlockVerification::serial() const { return record_->signer.serial; }
std::string BlockVerification::keyId() const { return record_->signer.keyId; }
std::string BlockVerification::sha256Fingerprint() const { return record_->signer.sha256Fingerprint; }
std::string BlockVerification::notBefore() const { return record_->signer.notBefore; }
std::string BlockVerification::notAfter() const { return record_->signer.notAfter; }
std::string BlockVerification::signingTime() const { return record_->signer.signingTime; }
std::vector<std::string> BlockVerification::previousKeyIds() const { return record_->signer.previousKeyIds; }

VerificationReport::VerificationReport() : record_(std::make_unique<Record>()) {}
VerificationReport::VerificationReport(VerificationReport const& other)
    : record_(std::make_unique<Record>(*other.record_))
{
}
VerificationReport::VerificationReport(VerificationReport&& other) noexcept
    : record_(std::make_unique<Record>())
{
    std::swap(record_, other.record_);
}
VerificationReport& VerificationReport::operator=(VerificationReport const& other)
{
    if (this != &other)
        *record_ = *other.record_;
    return *this;
}
VerificationReport& VerificationReport::operator=(VerificationReport&& other) noexcept
{
    std::swap(record_, other.record_);
    return *this;
}
VerificationReport::~VerificationReport() = default;

bool VerificationReport::verified() const { return record_->verified; }
VerificationReason VerificationReport::reason() const { return record_->reason; }
std::size_t VerificationReport::signatures() const { return record_->signatures; }
std::vector<BlockVerification> const& VerificationReport::blocks() const { return record_->blocks; }

}  // namespace PackageSignatures
