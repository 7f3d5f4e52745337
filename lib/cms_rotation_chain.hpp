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

}  // namespace sealkeep

#endif
