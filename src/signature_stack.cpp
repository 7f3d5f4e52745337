// The two rules of the signature stack, side by side.
//
// Verification judges each signer by its own position: a developer first, a
// seclab or client second, a client third, so developer, client, client
// verifies. Signing is stricter at the third position: it adds a client only
// above a seclab, so it never makes a client countersign a client. The
// verifier keeps the looser rule so that every stack it has accepted keeps
// verifying; the signer keeps the stricter one so that such stacks are not
// made any more. The first signer's group is not examined by signing: the
// verifier refuses a stack whose first signer is not a developer.
#include "signature_stack.hpp"

namespace PackageSignatures {

bool groupAllowedAt(std::size_t position, Group group)
{
    switch (position) {
    case 0:
        return group == Group::Developer;
    case 1:
        return group == Group::Seclab || group == Group::Client;
    case 2:
        return group == Group::Client;
    default:
        return false;
    }
}

bool mayTakeNextPosition(Group group, std::size_t position, Group newest)
{
    if (position == 2 && newest != Group::Seclab)
        return false;
    return groupAllowedAt(position, group);
}

}  // namespace PackageSignatures
