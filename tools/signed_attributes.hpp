// Looking at a signature's signed attributes directly, before asking the
// library for a table it would complain is absent.
#ifndef SEALKEEP_TOOLS_SIGNED_ATTRIBUTES_HPP
#define SEALKEEP_TOOLS_SIGNED_ATTRIBUTES_HPP

#include <openssl/cms.h>

namespace sealkeep::cli {

// The first signer; a signature of this library has exactly one. Null for a
// null CMS or one without signers.
CMS_SignerInfo* onlySigner(CMS_ContentInfo* cms);

// Whether the signer signed the attribute the library registered under
// shortName when it was loaded ("packageFileSignatures",
// "packageTrustletSignatures").
bool hasSignedAttribute(CMS_ContentInfo* cms, char const* shortName);

}  // namespace sealkeep::cli

#endif
