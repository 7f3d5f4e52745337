// Telling a signer certificate that has expired from one that is not
// trusted at all.
#include "signer_validity.hpp"

#include <openssl/err.h>
#include <openssl/x509.h>

#include "common/ossl_ptr.hpp"

namespace sealkeep {
namespace {

struct CertificateStackFree {
    void operator()(STACK_OF(X509) * certificates) const { sk_X509_pop_free(certificates, X509_free); }
};
using CertificateStackPtr = std::unique_ptr<STACK_OF(X509), CertificateStackFree>;
struct StoreContextFree {
    void operator()(X509_STORE_CTX* context) const { X509_STORE_CTX_free(context); }
};
using StoreContextPtr = std::unique_ptr<X509_STORE_CTX, StoreContextFree>;

// The signer's certificate as the CMS carries it, borrowed.
X509* signerCertificate(CMS_ContentInfo* cms)
{
    STACK_OF(CMS_SignerInfo)* signers = CMS_get0_SignerInfos(cms);
    if (!signers || sk_CMS_SignerInfo_num(signers) != 1)
        return nullptr;
    X509* signer = nullptr;
    CMS_SignerInfo_get0_algs(sk_CMS_SignerInfo_value(signers, 0), nullptr, &signer, nullptr, nullptr);
    return signer;
}

// X509_V_OK when the chain verifies, else the error of the verification.
int chainError(X509_STORE* store, X509* signer, STACK_OF(X509) * intermediates, bool ignoreTime)
{
    StoreContextPtr context(X509_STORE_CTX_new());
    if (!context || X509_STORE_CTX_init(context.get(), store, signer, intermediates) != 1)
        return X509_V_ERR_UNSPECIFIED;
    X509_STORE_CTX_set_default(context.get(), "smime_sign");
    if (ignoreTime)
        X509_STORE_CTX_set_flags(context.get(), X509_V_FLAG_NO_CHECK_TIME);
    if (X509_verify_cert(context.get()) == 1)
        return X509_V_OK;
    int error = X509_STORE_CTX_get_error(context.get());
    return error == X509_V_OK ? X509_V_ERR_UNSPECIFIED : error;
}

}  // namespace

ChainTime signerChainTime(CMS_ContentInfo* cms, X509_STORE* store)
{
    ChainTime result = ChainTime::Other;
    X509* signer = cms && store ? signerCertificate(cms) : nullptr;
    if (signer) {
        CertificateStackPtr intermediates(CMS_get1_certs(cms));
        if (chainError(store, signer, intermediates.get(), true) == X509_V_OK) {
            int error = chainError(store, signer, intermediates.get(), false);
            if (error == X509_V_ERR_CERT_HAS_EXPIRED)
                result = ChainTime::Expired;
            else if (error == X509_V_ERR_CERT_NOT_YET_VALID)
                result = ChainTime::NotYetValid;
        }
    }
    ERR_clear_error();
    return result;
}

}  // namespace sealkeep
