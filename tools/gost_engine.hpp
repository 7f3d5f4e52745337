// The GOST engine every subcommand depends on: the library makes it the
// default for all algorithms when it loads, and without it no GOST key,
// digest or certificate can be used. The command checks for it first, so
// that its absence reads as itself, not as a trust or pass-phrase failure.
#ifndef SEALKEEP_TOOLS_GOST_ENGINE_HPP
#define SEALKEEP_TOOLS_GOST_ENGINE_HPP

#include <optional>
#include <string>

namespace sealkeep::cli {

// Why the engine cannot be used; nothing when it can.
std::optional<std::string> gostEngineProblem();

// --version: the command's, OpenSSL's and the engine's.
std::string versionText(std::string const& commandVersion);

}  // namespace sealkeep::cli

#endif
