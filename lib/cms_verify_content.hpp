// Internal: cms_verify over covered bytes handed in as a BIO, so that a
// signed file can be verified straight from the file, in bounded memory.
#ifndef SEALKEEP_CMS_VERIFY_CONTENT_HPP
#define SEALKEEP_CMS_VERIFY_CONTENT_HPP

#include <openssl/bio.h>
#include <openssl/cms.h>
#include <openssl/x509_vfy.h>

namespace sealkeep {

// Every check of cms_verify, with the covered bytes read from content to its
// end (a null content fails with "CMS verification failed\n"). A content BIO
// that fails while read fails the check. Borrows all arguments.
bool verifyCmsContent(BIO* content, CMS_ContentInfo* cms, X509_STORE* store);

}  // namespace sealkeep

#endif
