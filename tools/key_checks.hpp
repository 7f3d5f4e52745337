// Facts about keys and certificates that the command checks before it uses
// them, each read without a word on standard error: whether a key belongs to
// a certificate, a certificate's validity and group, and whether the device's
// consumers (OP-TEE, the kernel's IMA) can use a key at all.
#ifndef SEALKEEP_TOOLS_KEY_CHECKS_HPP
#define SEALKEEP_TOOLS_KEY_CHECKS_HPP

#include <optional>
#include <string>

#include <openssl/evp.h>
#include <openssl/x509.h>

#include <sealkeep/groups.hpp>

namespace sealkeep::cli {

// Whether key is the private half of certificate's public key. A key in an
// engine may not show its public half, so it is asked for a signature that
// the certificate's key must verify.
bool keyBelongsTo(EVP_PKEY* key, bool inEngine, X509* certificate);

// Why the certificate is not valid now ("expired on 2024-01-01 00:00:00
// UTC", "is not valid before ..."); nothing when it is.
std::optional<std::string> validityProblem(X509* certificate);

// The certificate's signer group, or why it has none: no package-signing
// purpose, no group extension, a text that names no group.
struct GroupReading {
    PackageSignatures::Group group = PackageSignatures::Group::None;
    std::string problem;  // empty when group is known
};
GroupReading readGroup(X509* certificate);

// Why OP-TEE would refuse trusted applications signed with key; nothing
// when it accepts them (RSA of 2048 bits or more).
std::optional<std::string> trustedApplicationKeyProblem(EVP_PKEY* key);

// Why the Linux kernel's IMA cannot verify signatures made with the key of
// certificate (a GOST parameter set it lacks); nothing when it can.
std::optional<std::string> kernelImaKeyProblem(X509* certificate);

// The lower-case hexadecimal subject key identifier; empty when absent.
std::string keyIdOf(X509* certificate);

}  // namespace sealkeep::cli

#endif
