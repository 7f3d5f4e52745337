// Pieces of cms_sign that internal tests reach directly.
#ifndef SEALKEEP_TK26SIG_CMS_SIGN_HPP
#define SEALKEEP_TK26SIG_CMS_SIGN_HPP

#include <openssl/x509.h>

#include <sealkeep/sealkeep.h>

namespace sealkeep {

// True when the newest certificate of a non-empty chain has the same key id
// as cert (two certificates without a key id count as the same). Prints why
// when it is false.
bool rotationChainEndsAt(ProofOfRotationChain* chain, X509* cert);

}  // namespace sealkeep

#endif
