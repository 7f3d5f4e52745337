// PackageSignatures::Rotation and RotationChain: the object form of a proof
// of key rotation and of a chain of them, oldest first.
//
// These objects do not check signatures (ProofOfRotationChain_verify does).
// They keep their own references to every certificate, so they stay valid
// after the ASN.1 chain they were made from is freed; the ASN.1 chain given
// to a constructor stays the caller's.
#ifndef SEALKEEP_ROTATION_HPP
#define SEALKEEP_ROTATION_HPP

#include <memory>
#include <string>
#include <vector>

#include <sealkeep/certificate.hpp>
#include <sealkeep/export.hpp>

struct ProofOfRotation_st;
struct stack_st_ProofOfRotation;

namespace PackageSignatures {

class SEALKEEP_EXPORT Rotation {
public:
    // A null proof gives a rotation whose two certificates are empty pointers.
    explicit Rotation(const ProofOfRotation_st* proof);
    ~Rotation();

    std::shared_ptr<Certificate> oldCertificate() const;
    std::shared_ptr<Certificate> newCertificate() const;

private:
    struct Record;
    std::unique_ptr<Record> record_;
};

class SEALKEEP_EXPORT RotationChain {
public:
    // A null chain gives an empty object.
    explicit RotationChain(stack_st_ProofOfRotation* chain = nullptr);
    // Shares the source's Rotation objects.
    RotationChain(const RotationChain& other);
    ~RotationChain();

    std::vector<std::shared_ptr<Rotation>> rotations() const;
    // The key id of the old certificate of every rotation, oldest first; the
    // newest key is not listed. Computed once and cached.
    std::vector<std::string> previousKeyids() const;

    // Reads a PEM chain file; an unreadable file gives an empty chain.
    static RotationChain fromFile(const char* path);

private:
    struct Record;
    std::unique_ptr<Record> record_;
};

}  // namespace PackageSignatures

#endif
