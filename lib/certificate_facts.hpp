// Internal: a certificate's group text and key id without a word on standard
// error, for callers that describe a certificate they have not judged yet.
// certificate_get_group and certificate_get_keyid are these with messages.
#ifndef SEALKEEP_CERTIFICATE_FACTS_HPP
#define SEALKEEP_CERTIFICATE_FACTS_HPP

#include <optional>
#include <string>

#include <openssl/x509.h>

namespace sealkeep {

// The group extension's text of a certificate allowed to sign packages;
// nothing otherwise, with *failure set to the line certificate_get_group
// prints for it.
std::optional<std::string> certificateGroupText(X509* cert, const char** failure);
// The subject key identifier in lower-case hexadecimal; nothing without one.
std::optional<std::string> certificateKeyId(X509* cert);

}  // namespace sealkeep

#endif
