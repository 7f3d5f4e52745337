// Fuzzes the DER of a rotation chain: decoding, the chain check and the
// object form with its previous key ids.
#include <sealkeep/sealkeep.hpp>

#include "fuzz_input.hpp"

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size)
{
    sealkeep::fuzz::ClearErrorsOnExit clearErrors;
    const unsigned char* cursor = data;
    ProofOfRotationChain* chain = d2i_ProofOfRotationChain(nullptr, &cursor, static_cast<long>(size));
    if (!chain)
        return 0;
    ProofOfRotationChain_verify(chain);
    for (int i = 0; i < ProofOfRotationChain_count(chain); ++i)
        ProofOfRotation_verify(ProofOfRotationChain_get0_at(chain, static_cast<unsigned>(i)));
    PackageSignatures::RotationChain object(chain);
    ProofOfRotationChain_free(chain);
    for (auto const& rotation : object.rotations())
        rotation->newCertificate()->keyId();
    object.previousKeyids();
    return 0;
}
