// Fuzzes certificate requests through make_certificate: the request is read,
// checked and, when it passes, signed by the CA of make_fuzz_seeds (ca.key
// beside $SEALKEEP_FUZZ_CA) into a certificate that is then discarded.
#include <cstdio>
#include <string>

#include <sealkeep/sealkeep.h>

#include "fuzz_input.hpp"

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size)
{
    sealkeep::fuzz::ClearErrorsOnExit clearErrors;
    static const std::string caKey = sealkeep::fuzz::besideCa("ca.key");
    static const std::string out = "/tmp/sealkeep-fuzz-certificate-" + std::to_string(getpid()) + ".pem";
    sealkeep::fuzz::InputFile input(data, size);
    if (!input.valid() || caKey.empty())
        return 0;
    make_certificate(out.c_str(), input.path(), caKey.c_str(), sealkeep::fuzz::caPath().c_str(), "developer:regular");
    remove(out.c_str());
    return 0;
}
