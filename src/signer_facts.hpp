// Internal: who a block's CMS says signed it, read from the CMS already
// decoded for verification, without a word on standard error (a refused
// block is described as quietly as an accepted one).
#ifndef SEALKEEP_SRC_SIGNER_FACTS_HPP
#define SEALKEEP_SRC_SIGNER_FACTS_HPP

#include <openssl/cms.h>

#include "verification_report_record.hpp"

namespace PackageSignatures {

// The facts of the certificate of cms's single signer, found among the
// certificates the CMS carries; known is false when there is no single
// signer or its certificate is not there. Leaves OpenSSL's error queue empty.
SignerFacts signerFactsOf(CMS_ContentInfo* cms);

}  // namespace PackageSignatures

#endif
