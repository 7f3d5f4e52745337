// Internal: the rules of the signature stack. A file carries at most three
// signatures: a developer's first, then a seclab or client signature, then a
// client signature. Verification and signing each have a rule, kept side by
// side in signature_stack.cpp.
#ifndef SEALKEEP_SRC_SIGNATURE_STACK_HPP
#define SEALKEEP_SRC_SIGNATURE_STACK_HPP

#include <cstddef>

#include <sealkeep/groups.hpp>
#include <sealkeep/limits.hpp>

namespace PackageSignatures {

constexpr std::size_t maxSignatures = maxStackSignatures;

// Verification: whether a signer of group may stand at position (0-based) of
// the stack, whoever stands before it.
bool groupAllowedAt(std::size_t position, Group group);

// Signing: whether a signer of group may add the signature at position
// (0-based) above a stack whose newest signer is of group newest. Only the
// third position looks at newest.
bool mayTakeNextPosition(Group group, std::size_t position, Group newest);

}  // namespace PackageSignatures

#endif
