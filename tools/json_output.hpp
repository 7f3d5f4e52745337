// JSON as the command prints it. Names and subjects come from files and
// certificates that anyone may have made, so text that is not UTF-8 (a
// Latin-1 file name, a hostile certificate subject) must still print.
#ifndef SEALKEEP_TOOLS_JSON_OUTPUT_HPP
#define SEALKEEP_TOOLS_JSON_OUTPUT_HPP

#include <string>

#include <nlohmann/json.hpp>

namespace sealkeep::cli {

// The version of the documents' layout; raised when a key changes meaning
// or goes away, not when one is added.
constexpr int jsonSchemaVersion = 1;

// Indented by two spaces; every invalid UTF-8 sequence becomes U+FFFD.
std::string jsonText(nlohmann::json const& value);
// jsonText as one line of standard output.
void printJson(nlohmann::json const& value);

}  // namespace sealkeep::cli

#endif
