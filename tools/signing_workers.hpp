// Signing many files at once (sign and sign-request with --jobs): one set of
// keys per thread, files handed out in the order given, one result each.
#ifndef SEALKEEP_TOOLS_SIGNING_WORKERS_HPP
#define SEALKEEP_TOOLS_SIGNING_WORKERS_HPP

#include <functional>
#include <optional>
#include <string>
#include <vector>

#include <nlohmann/json.hpp>

#include "credentials.hpp"

namespace sealkeep::cli {

// One set of keys for each of threads threads, all read before any file is
// touched; each key is unlocked once, whatever the number. Nothing when one
// cannot be read (reported).
std::optional<std::vector<Credentials>> credentialsPerThread(CredentialSource& source, unsigned threads);

// Runs signOne on every path, one thread per set of credentials, until an
// interruption is pending. signOne fills in its result and answers whether
// the file was signed; a path whose signOne failed without a result, or
// threw, gets a refusal for refusalReason with the lines it reported. Returns
// the results in the order of paths, null for a path an interruption left
// untouched; anyFailed tells whether any path was not signed.
using SignOne = std::function<bool(std::string const& path, Credentials const& own, nlohmann::json& result)>;
std::vector<nlohmann::json> signOnWorkers(std::vector<std::string> const& paths,
                                          std::vector<Credentials> const& credentials,
                                          std::string const& refusalReason, SignOne const& signOne,
                                          bool& anyFailed);

// The results as one JSON array, the null ones (untouched) left out.
nlohmann::json resultArray(std::vector<nlohmann::json> results);

}  // namespace sealkeep::cli

#endif
