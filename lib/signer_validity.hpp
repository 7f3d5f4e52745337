// Internal: whether a signer's certificate that does not chain to the CA
// store fails only on time, so that a report can say the certificate expired
// (or is not yet valid) rather than that it is not trusted.
#ifndef SEALKEEP_SIGNER_VALIDITY_HPP
#define SEALKEEP_SIGNER_VALIDITY_HPP

#include <openssl/cms.h>
#include <openssl/x509_vfy.h>

namespace sealkeep {

enum class ChainTime {
    Other,        // the chain fails for a reason other than time, or verifies
    Expired,      // it verifies but for a certificate past its end of validity
    NotYetValid,  // it verifies but for a certificate before its start of validity
};

// Checks the chain of cms's single signer as CMS verification does (the
// CMS's own certificates as intermediates, the S/MIME signing purpose),
// once without the validity periods and, when that passes, once with them.
// Prints nothing and leaves OpenSSL's error queue empty.
ChainTime signerChainTime(CMS_ContentInfo* cms, X509_STORE* store);

}  // namespace sealkeep

#endif
