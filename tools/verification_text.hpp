// The words for the library's verification verdicts: one line per reason,
// and the refusal of a package naming the block that failed.
#ifndef SEALKEEP_TOOLS_VERIFICATION_TEXT_HPP
#define SEALKEEP_TOOLS_VERIFICATION_TEXT_HPP

#include <cstddef>
#include <string>

#include <sealkeep/verification_report.hpp>

namespace sealkeep::cli {

// What a person reads for reason, verified against the CA file ca.
std::string explainReason(PackageSignatures::VerificationReason reason, std::string const& ca);

// "block 1 of 3 (developer, covers bytes [0, 4096)" (without the closing
// parenthesis, so that a caller may add to it).
std::string blockText(PackageSignatures::BlockVerification const& block, std::size_t signatures);

// "block 1 of 3 (developer, covers bytes [0, 4096)): REASON", or the reason
// alone when no block was checked.
std::string verificationRefusal(PackageSignatures::VerificationReport const& report, std::string const& ca);

}  // namespace sealkeep::cli

#endif
