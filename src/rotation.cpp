// Rotation and RotationChain: the object form of proofs of key rotation.
// Every certificate is held through a Certificate of its own, so the objects
// outlive the ASN.1 chain they were made from.
#include <sealkeep/rotation.hpp>

#include <sealkeep/sealkeep.h>

#include "common/ossl_ptr.hpp"

namespace PackageSignatures {

struct Rotation::Record {
    std::shared_ptr<Certificate> oldCertificate;
    std::shared_ptr<Certificate> newCertificate;
};

Rotation::Rotation(const ProofOfRotation_st* proof) : record_(std::make_unique<Record>())
{
    if (!proof)
        return;
    record_->oldCertificate = std::make_shared<Certificate>(ProofOfRotation_get0_old_cert(proof));
    record_->newCertificate = std::make_shared<Certificate>(ProofOfRotation_get0_new_cert(proof));
}

Rotation::~Rotation() = default;

std::shared_ptr<Certificate> Rotation::oldCertificate() const
{
    return record_->oldCertificate;
}

std::shared_ptr<Certificate> Rotation::newCertificate() const
{
    return record_->newCertificate;
}

struct RotationChain::Record {
    std::vector<std::shared_ptr<Rotation>> rotations;
    // Filled by the first previousKeyids() call; a chain with rotations never
    // yields an empty list, so empty means "not computed yet".
    std::vector<std::string> previousKeyids;
};

RotationChain::RotationChain(stack_st_ProofOfRotation* chain) : record_(std::make_unique<Record>())
{
    int count = ProofOfRotationChain_count(chain);
    for (int i = 0; i < count; ++i)
        record_->rotations.push_back(
            std::make_shared<Rotation>(ProofOfRotationChain_get0_at(chain, static_cast<unsigned>(i))));
}

RotationChain::RotationChain(const RotationChain& other)
    : record_(std::make_unique<Record>(*other.record_))
{
}

RotationChain::~RotationChain() = default;

std::vector<std::shared_ptr<Rotation>> RotationChain::rotations() const
{
    return record_->rotations;
}

std::vector<std::string> RotationChain::previousKeyids() const
{
    if (record_->previousKeyids.empty()) {
        for (auto const& rotation : record_->rotations) {
            auto oldCertificate = rotation->oldCertificate();
            record_->previousKeyids.push_back(oldCertificate ? oldCertificate->keyId() : std::string());
        }
    }
    return record_->previousKeyids;
}

RotationChain RotationChain::fromFile(const char* path)
{
    sealkeep::ChainPtr chain(ProofOfRotationChain_read(path));
    return RotationChain(chain.get());
}

}  // namespace PackageSignatures
