// Fuzzes cms_verify over the bytes a signature really covers, so that
// mutations get past the signature to the digest comparisons, the attached
// content and its length, and the rotation chain's key ids.
//
// Input: a 4-byte big-endian length n, n bytes of CMS DER, then the covered
// bytes. The seeds are real signatures followed by what they sign.
#include <sealkeep/sealkeep.h>

#include "fuzz_input.hpp"

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size)
{
    sealkeep::fuzz::ClearErrorsOnExit clearErrors;
    if (size < 4)
        return 0;
    size_t length = (size_t{data[0]} << 24) | (size_t{data[1]} << 16) | (size_t{data[2]} << 8) | data[3];
    if (length > size - 4)
        return 0;
    const uint8_t* der = data + 4;
    const uint8_t* covered = der + length;
    CMS_ContentInfo* cms = cms_from_der(der, static_cast<long>(length));
    static X509_STORE* store = certificate_store_read(sealkeep::fuzz::caPath().c_str());
    if (cms && store)
        cms_verify(covered, static_cast<long>(size - 4 - length), cms, store);
    CMS_ContentInfo_free(cms);
    return 0;
}
