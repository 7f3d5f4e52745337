// Internal: the rule of the signature stack, shared by signing and
// verification. A file carries at most three signatures: a developer's
// first, then a seclab or client signature, then a client signature.
#ifndef SEALKEEP_SRC_SIGNATURE_STACK_HPP
#define SEALKEEP_SRC_SIGNATURE_STACK_HPP

#include <cstddef>

#include <sealkeep/groups.hpp>

namespace PackageSignatures {

constexpr std::size_t maxSignatures = 3;

// Whether a signer of group may stand at position (0-based) of the stack.
bool groupAllowedAt(std::size_t position, Group group);

}  // namespace PackageSignatures

#endif
