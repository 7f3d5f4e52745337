// JSON as the command prints it. Names and subjects come from files and
// certificates that anyone may have made, so text that is not UTF-8 (a
// Latin-1 file name, a hostile certificate subject) must still print.
// Every document is an object with the same "schemaVersion"; keys are
// lowerCamelCase and enumerated values snake_case, as sealkeep.schema.json
// describes them.
#ifndef SEALKEEP_TOOLS_JSON_OUTPUT_HPP
#define SEALKEEP_TOOLS_JSON_OUTPUT_HPP

#include <functional>
#include <string>

#include <nlohmann/json.hpp>

namespace sealkeep::cli {

// The version of the documents' layout; raised when a key changes meaning
// or goes away, not when one is added.
constexpr int jsonSchemaVersion = 1;

// Indented by two spaces; every invalid UTF-8 sequence becomes U+FFFD.
std::string jsonText(nlohmann::json const& value);
// The document (an object) with its "schemaVersion", as jsonText on
// standard output.
void printJson(nlohmann::json document);
// A result about one file: its path, whether it is ok and, when it is not,
// the reason's name and what a person reads ("error").
nlohmann::json fileResult(std::string const& path, bool ok, std::string const& reason = {},
                          std::string const& error = {});

// Runs run, which fills in its result about path and prints it as text
// unless json; with json prints the result instead. A run that fails
// before it has a result has one made: not ok, refusal for its reason and
// the lines it reported as its error. Returns run's exit status.
int runWithResult(bool json, std::string const& path, std::string const& refusal,
                  std::function<int(nlohmann::json& result)> const& run);

}  // namespace sealkeep::cli

#endif
