// Dumping JSON without nlohmann's exception on invalid UTF-8.
#include "json_output.hpp"

#include "cli.hpp"

namespace sealkeep::cli {

std::string jsonText(nlohmann::json const& value)
{
    return value.dump(2, ' ', false, nlohmann::json::error_handler_t::replace);
}

void printJson(nlohmann::json const& value)
{
    printLine(jsonText(value));
}

}  // namespace sealkeep::cli
