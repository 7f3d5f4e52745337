// Where a proof-of-rotation chain ends, compared with a signer.
#include "rotation_end.hpp"

#include <glib.h>

#include "ossl_ptr.hpp"

namespace sealkeep {

namespace {

char* keyidOf(X509* certificate)
{
    return certificate ? certificate_get_keyid(certificate) : nullptr;
}

}  // namespace

RotationEnd rotationChainEnd(ProofOfRotationChain* chain, X509* signer)
{
    int count = ProofOfRotationChain_count(chain);
    if (count < 1)
        return RotationEnd::NoRotations;
    ProofOfRotation* newest = ProofOfRotationChain_get0_at(chain, static_cast<unsigned>(count - 1));
    MallocPtr newestKeyid(keyidOf(ProofOfRotation_get0_new_cert(newest)));
    MallocPtr signerKeyid(keyidOf(signer));
    return g_strcmp0(newestKeyid.get(), signerKeyid.get()) == 0 ? RotationEnd::AtSigner : RotationEnd::Elsewhere;
}

}  // namespace sealkeep
