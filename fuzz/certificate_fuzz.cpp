// Fuzzes the DER of a certificate through Certificate::fromDer and every
// answer of the object, including its check against the CA file.
#include <sealkeep/sealkeep.hpp>

#include "fuzz_input.hpp"

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size)
{
    sealkeep::fuzz::ClearErrorsOnExit clearErrors;
    auto certificate = PackageSignatures::Certificate::fromDer(data, size);
    certificate.subject();
    certificate.keyId();
    certificate.group();
    certificate.subgroup();
    certificate.toDer();
    certificate.verify(sealkeep::fuzz::caPath().c_str());
    return 0;
}
