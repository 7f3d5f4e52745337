// Signatures as an installer sees them, for the trust database suites: Cms
// objects signed by the library for identities of the test CA, rotation
// chains written with make_proof_of_rotation_chain, and key ids.
#ifndef SEALKEEP_TESTS_SUPPORT_PACKAGE_SIGNATURES_HPP
#define SEALKEEP_TESTS_SUPPORT_PACKAGE_SIGNATURES_HPP

#include <string>
#include <utility>
#include <vector>

#include <sealkeep/cms.hpp>

#include "support/pki.hpp"

namespace sealkeep::test {

// One key rotation: from the first identity's key to the second's.
using RotationStep = std::pair<Identity, Identity>;

// Writes the chain of rotations, oldest first, to path with
// make_proof_of_rotation_chain (one call per rotation) and reads it back.
ChainPtr writeRotationChain(std::string const& path, std::vector<RotationStep> const& rotations);

// A detached signature by who over content, made by cms_sign with chain.
PackageSignatures::Cms signedCms(Identity const& who, ProofOfRotationChain* chain = nullptr,
                                 std::string const& content = "package payload");

// The key id of the identity's certificate.
std::string keyidOf(Identity const& who);

// The key id of every certificate, in order.
std::vector<std::string> keyidsOf(std::vector<PackageSignatures::Certificate> const& certificates);

}  // namespace sealkeep::test

#endif
