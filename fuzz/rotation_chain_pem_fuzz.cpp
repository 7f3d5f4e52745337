// Fuzzes rotation chain files: the PEM reader of the flat interface and
// RotationChain::fromFile with the key ids it lists.
#include <sealkeep/sealkeep.hpp>

#include "fuzz_input.hpp"

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size)
{
    sealkeep::fuzz::ClearErrorsOnExit clearErrors;
    sealkeep::fuzz::InputFile input(data, size);
    if (!input.valid())
        return 0;
    if (ProofOfRotationChain* chain = ProofOfRotationChain_read(input.path())) {
        ProofOfRotationChain_verify(chain);
        ProofOfRotationChain_free(chain);
    }
    auto chain = PackageSignatures::RotationChain::fromFile(input.path());
    for (auto const& rotation : chain.rotations())
        rotation->oldCertificate()->keyId();
    chain.previousKeyids();
    return 0;
}
