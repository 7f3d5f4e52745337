// Fuzzes the DER of one signature through every flat reader and cms_verify.
#include <sealkeep/sealkeep.h>

#include <cstdlib>

#include "fuzz_input.hpp"

static void readFileSignatures(CMS_ContentInfo* cms, int which)
{
    FileSignatures* table = cms_get_file_signatures(cms, which);
    if (!table)
        return;
    for (int i = 0; i < FileSignatures_count(table); ++i) {
        FileSignature* entry = FileSignatures_get0_at(table, i);
        int length = 0;
        FileSignature_index(entry);
        FileSignature_value(entry, &length);
    }
    FileSignatures_free(table);
}

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size)
{
    sealkeep::fuzz::ClearErrorsOnExit clearErrors;
    CMS_ContentInfo* cms = cms_from_der(data, static_cast<long>(size));
    if (!cms)
        return 0;
    if (X509* signer = cms_get_certificate(cms))
        free(certificate_get_keyid(signer)), free(certificate_get_group(signer)), free(certificate_get_subject(signer));
    free(cms_get_signature(cms));
    readFileSignatures(cms, 0);
    readFileSignatures(cms, 1);
    ProofOfRotationChain_free(cms_get_rotation_chain(cms));

    X509_STORE* store = certificate_store_read(sealkeep::fuzz::caPath().c_str());
    if (store) {
        // The input itself stands in for the covered bytes.
        cms_verify(data, static_cast<long>(size), cms, store);
        X509_STORE_free(store);
    }
    CMS_ContentInfo_free(cms);
    return 0;
}
