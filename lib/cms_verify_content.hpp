// Internal: cms_verify over covered bytes handed in as a BIO, so that a
// signed file can be verified straight from the file, in bounded memory.
#ifndef SEALKEEP_CMS_VERIFY_CONTENT_HPP
#define SEALKEEP_CMS_VERIFY_CONTENT_HPP

#include <openssl/bio.h>
#include <openssl/cms.h>
#include <openssl/x509_vfy.h>

namespace sealkeep {

// Which check of cms_verify a CMS failed, for the verification report.
enum class CmsCheck {
    Passed,
    Malformed,          // no CMS, no content, or not exactly one signer
    CertificateChain,   // the signer's certificate does not chain to the store
    ContentDigest,      // the signed digest does not match the covered bytes
    Signature,          // the signature value does not verify with the signer's key
    RotationInvalid,    // the rotation chain is too long or does not verify
    RotationNotAtSigner,
};

// Like verifyCmsContent, with the failed check named; prints the same lines.
CmsCheck checkCmsContent(BIO* content, CMS_ContentInfo* cms, X509_STORE* store);

// Every check of cms_verify, with the covered bytes read from content to its
// end (a null content fails with "CMS verification failed\n"). A content BIO
// that fails while read fails the check. Borrows all arguments.
bool verifyCmsContent(BIO* content, CMS_ContentInfo* cms, X509_STORE* store);

}  // namespace sealkeep

#endif
