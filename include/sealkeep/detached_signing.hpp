// Signing a package without the key beside it, in three steps that add up to
// FileWithCmses::sign:
//
//  1. FileWithCmses::planSignature, where the package is: places the signer in
//     the stack exactly as sign() would (position, replacement cut, covered
//     range) and reads every byte that signing needs, giving a SignaturePlan:
//     digests of the covered range and of the bytes around it, and for the
//     first signature of an RPM package the digest of every payload file and
//     the hash of every trusted application's header. Nothing in it is secret.
//  2. signSignaturePlan, where the key is: reads no package; makes every
//     per-file IMA signature and trusted-application header from the plan's
//     digests and the detached CMS over the covered range's digest, with the
//     signed attributes sign() gives (cms_sign_digest in sealkeep.h).
//  3. FileWithCmses::attach, where the package is: checks that the package is
//     still what the plan describes and that the CMS signs its covered range,
//     and appends the block with the same crash-safe write as sign().
//
// The plan's digests use the signer key's default digest (GOST R 34.11-2012
// of the key's size for a GOST R 34.10-2012 key), as sign() does.
#ifndef SEALKEEP_DETACHED_SIGNING_HPP
#define SEALKEEP_DETACHED_SIGNING_HPP

#include <array>
#include <cstdint>
#include <vector>

#include <sealkeep/export.hpp>

struct x509_st;
struct evp_pkey_st;
struct stack_st_ProofOfRotation;

namespace PackageSignatures {

// One content of the payload: the digest of its bytes and the file indexes
// (positions in the package header's file list) whose IMA record it gives,
// the file that carries the content first, then the further names of its
// hard-link set.
struct SEALKEEP_EXPORT PayloadFileDigest {
    std::vector<std::int32_t> indexes;
    std::vector<unsigned char> digest;
};

// One trusted application: what its OP-TEE signed header carries apart from
// the signature. The hash (SHA-256) covers the header fields, among them the
// TA signing algorithm and signature size of the plan, so the TA key that
// signs it must make signatures of that size.
struct SEALKEEP_EXPORT TrustedApplicationDigest {
    std::int32_t index = 0;
    std::array<unsigned char, 16> uuid{};
    std::uint32_t imageSize = 0;
    std::array<unsigned char, 32> hash{};
};

// What a TA signing key contributes to the hashes before any signing: its
// OP-TEE algorithm identifier and its signature size in bytes. A
// signatureSize of 0 says that no TA key is known; a package with a trusted
// application cannot then be planned for file signatures (as sign() without
// a TA key).
struct SEALKEEP_EXPORT TrustedApplicationKeyShape {
    unsigned int algorithm = 0;
    std::uint32_t signatureSize = 0;
};

// One signature as planned on a package. Byte offsets are of the package as
// it was planned, fileSize bytes long.
struct SEALKEEP_EXPORT SignaturePlan {
    std::uint32_t position = 0;      // 0-based position the signature takes in the stack
    bool replace = false;            // planned with a replacement cut
    std::int64_t fileSize = 0;       // the package's size when planned
    std::int64_t coveredBegin = 0;   // the covered range [coveredBegin, coveredEnd)
    std::int64_t coveredEnd = 0;     // also where the block goes: fileSize unless a cut
    int digestNid = 0;               // the signer key's default digest
    std::vector<unsigned char> precedingDigest;  // of [0, coveredBegin): what the range follows
    std::vector<unsigned char> coveredDigest;    // of the covered range: the CMS message digest
    std::vector<unsigned char> cutDigest;        // of [coveredEnd, fileSize): what the cut removes
    bool fileSignatures = false;     // the CMS carries the per-file tables below
    std::vector<PayloadFileDigest> files;                  // archive order
    TrustedApplicationKeyShape trustedApplicationKey;      // what the hashes were made for
    std::vector<TrustedApplicationDigest> trustedApplications;  // archive order
};

// Why attach() did not attach.
enum class AttachResult {
    Attached,
    NotASignature,    // no single-signer CMS whose signature over its attributes verifies
    NotForThisPlan,   // its message digest or digest algorithm is not the plan's
    PositionTaken,    // its signer cannot take the next position of the stack now
    StackChanged,     // it can, but not the position (or range) the plan was made for
    PackageChanged,   // the bytes around the covered range are not those planned (size, before, cut)
    RangeChanged,     // the covered range no longer has the digest the CMS signs
    WriteFailed,      // the new version could not be written (after a line on std::cerr)
};

// The detached CMS (DER) for plan, signed with key and certificate (taKey for
// trusted applications, may be null when the plan has none; rotationChain may
// be null). Everything is borrowed. Empty after the messages saying why: the
// key's default digest is not the plan's, a TA key of another signature size
// than planned, a signature too large for one block, or any failure of
// cms_sign_digest.
SEALKEEP_EXPORT std::vector<unsigned char> signSignaturePlan(SignaturePlan const& plan, x509_st* certificate,
                                                             evp_pkey_st* key, evp_pkey_st* taKey,
                                                             stack_st_ProofOfRotation* rotationChain);

// The name of an AttachResult in snake_case ("range_changed").
SEALKEEP_EXPORT char const* attachResultName(AttachResult result);

}  // namespace PackageSignatures

#endif
