// Fuzzes the readers of signing requests and signature files: any bytes are
// refused with a reason or decode into values that encode again.
#include <cstdint>
#include <cstdlib>
#include <string>

#include "fuzz_input.hpp"
#include "signing_request.hpp"

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size)
{
    sealkeep::fuzz::ClearErrorsOnExit clearErrors;
    const sealkeep::cli::Bytes bytes(data, data + size);
    std::string refusal;
    if (auto request = sealkeep::cli::decodeRequest(bytes, refusal)) {
        if (sealkeep::cli::encodeRequest(*request).empty())
            abort();
    } else if (refusal.empty()) {
        abort();
    }
    refusal.clear();
    if (auto signature = sealkeep::cli::decodeSignatureFile(bytes, refusal)) {
        if (sealkeep::cli::encodeSignatureFile(*signature).empty())
            abort();
    } else if (refusal.empty()) {
        abort();
    }
    return 0;
}
