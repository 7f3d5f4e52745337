// Internal: reading the rotation chain of a CMS so that a chain refused for
// its length can be told from an absent one.
#ifndef SEALKEEP_CMS_ROTATION_CHAIN_HPP
#define SEALKEEP_CMS_ROTATION_CHAIN_HPP

#include <sealkeep/sealkeep.h>

namespace sealkeep {

// cms_get_rotation_chain, which is this with the flag ignored. *tooLong is set
// when the chain holds more proofs than the limit (see
// common/rotation_limit.hpp); it is then not decoded and null is returned.
ProofOfRotationChain* readRotationChain(CMS_ContentInfo* cms, bool* tooLong);

// The same without a word on standard error, for describing a signer whose
// block may have been refused: null for a CMS without exactly one signer,
// without a chain, with one that does not decode or is too long.
ProofOfRotationChain* readRotationChainQuietly(CMS_ContentInfo* cms);

}  // namespace sealkeep

#endif
