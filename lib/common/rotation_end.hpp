// Internal: whether a proof-of-rotation chain ends at a signer's key. Signing
// refuses to embed a chain that does not, and verification refuses a CMS
// whose chain does not; each says so in its own words.
#ifndef SEALKEEP_COMMON_ROTATION_END_HPP
#define SEALKEEP_COMMON_ROTATION_END_HPP

#include <openssl/x509.h>

#include <sealkeep/sealkeep.h>

namespace sealkeep {

enum class RotationEnd {
    NoRotations,  // the chain holds no proof at all
    AtSigner,     // the newest certificate has the signer's key id
    Elsewhere,    // it has another key id
};

// Compares key ids, so that a renewed certificate of the same key still
// matches; two certificates without a key id count as the same. Borrows both.
RotationEnd rotationChainEnd(ProofOfRotationChain* chain, X509* signer);

}  // namespace sealkeep

#endif
