// Dumping JSON without nlohmann's exception on invalid UTF-8, and the parts
// every document shares.
#include "json_output.hpp"

#include "cli.hpp"

namespace sealkeep::cli {

std::string jsonText(nlohmann::json const& value)
{
    return value.dump(2, ' ', false, nlohmann::json::error_handler_t::replace);
}

void printJson(nlohmann::json document)
{
    document["schemaVersion"] = jsonSchemaVersion;
    printText(jsonText(document));
}

nlohmann::json fileResult(std::string const& path, bool ok, std::string const& reason, std::string const& error)
{
    nlohmann::json result = {{"path", path}, {"ok", ok}};
    if (!ok) {
        result["reason"] = reason;
        if (!error.empty())
            result["error"] = error;
    }
    return result;
}

int runWithResult(bool json, std::string const& path, std::string const& refusal,
                  std::function<int(nlohmann::json& result)> const& run)
{
    FailureNotes notes;
    nlohmann::json result;
    int status = run(result);
    if (json)
        printJson(result.is_null() ? fileResult(path, false, refusal, notes.text()) : result);
    return status;
}

}  // namespace sealkeep::cli
