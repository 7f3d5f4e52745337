// What a gate may insist on beyond a stack that verifies: a given signer at
// a given position (--signer), the exact stack of groups (--require) and a
// least number of signatures (--min-signatures). A package that breaks one is
// refused with signer_not_pinned or stack_incomplete.
#ifndef SEALKEEP_TOOLS_SIGNER_PINS_HPP
#define SEALKEEP_TOOLS_SIGNER_PINS_HPP

#include <cstddef>
#include <optional>
#include <string>
#include <vector>

#include <sealkeep/limits.hpp>
#include <sealkeep/verification_report.hpp>

namespace sealkeep::cli {

// POSITION=KEYID or POSITION=sha256:FINGERPRINT. POSITION is a block's number
// as verify prints it (1 = oldest, the developer's) or a group name, which
// pins every block of that group (and needs one).
struct SignerPin {
    std::string given;     // as on the command line, for messages
    std::size_t number = 0;  // 1-based block number; 0 when a group is named
    PackageSignatures::Group group = PackageSignatures::Group::None;
    std::string keyId;        // lower case; empty when a fingerprint is pinned
    std::string fingerprint;  // SHA-256, lower-case hexadecimal without separators
};

struct Pins {
    std::vector<SignerPin> signers;
    std::optional<std::vector<PackageSignatures::Group>> stack;  // --require, oldest first
    std::size_t minSignatures = 0;
};

// The pin, or nothing with why set.
std::optional<SignerPin> parseSignerPin(std::string const& text, std::string& why);
// "developer,seclab,client", or nothing with why set.
std::optional<std::vector<PackageSignatures::Group>> parseRequiredStack(std::string const& text, std::string& why);

struct PinVerdict {
    PackageSignatures::VerificationReason reason = PackageSignatures::VerificationReason::Ok;
    std::optional<std::size_t> block;  // 0-based index of the block that breaks a pin
    std::string detail;                // what was found against what was asked
};

// Judges a report that verified; Ok when every pin holds.
PinVerdict checkPins(PackageSignatures::VerificationReport const& report, Pins const& pins);

}  // namespace sealkeep::cli

#endif
