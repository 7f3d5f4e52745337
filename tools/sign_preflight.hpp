// The checks sign makes once, before any package is opened for writing: the
// credentials must be usable for every package, so a problem with them is
// one line naming the option, not a failure per package after work began.
#ifndef SEALKEEP_TOOLS_SIGN_PREFLIGHT_HPP
#define SEALKEEP_TOOLS_SIGN_PREFLIGHT_HPP

#include <sealkeep/groups.hpp>

#include "credentials.hpp"

namespace sealkeep::cli {

struct SignPlan {
    bool fileSignatures = true;          // per-file signatures are wanted
    bool allowUnverifiableKey = false;   // sign files the kernel cannot verify anyway
};

// statusOk with the signer's group in group, or the status of the one
// refusal reported: the key is not the certificate's, the certificate is
// outside its validity or has no group, --ta-key is given to a signer that is
// no developer (bad usage) or is too weak for OP-TEE, the rotation chain does
// not verify or ends elsewhere, or the developer's key is one whose file
// signatures the kernel cannot verify.
int checkSigner(CredentialSource const& source, Credentials const& credentials, SignPlan const& plan,
                PackageSignatures::Group& group);

}  // namespace sealkeep::cli

#endif
