// Fuzzes the PEM file readers: one certificate, a CA store, a private key (with
// a pass phrase given, so that an encrypted key never asks on the terminal),
// and the certificates of a signed file.
#include <sealkeep/sealkeep.hpp>

#include "fuzz_input.hpp"

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size)
{
    sealkeep::fuzz::ClearErrorsOnExit clearErrors;
    sealkeep::fuzz::InputFile input(data, size);
    if (!input.valid())
        return 0;
    if (X509* certificate = certificate_read(input.path())) {
        free(certificate_get_keyid(certificate));
        free(certificate_get_group(certificate));
        X509_free(certificate);
    }
    X509_STORE_free(certificate_store_read(input.path()));
    static char passPhrase[] = "fuzz";
    EVP_PKEY_free(private_key_read(input.path(), passPhrase));
    PackageSignatures::Certificate::readCertificateFromFile(input.path()).keyId();
    return 0;
}
