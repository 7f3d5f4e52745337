// The developer-mode switch: two small key files, a runtime one that
// overrides an initial one, decide whether the system is in developer mode.
// Both are re-read on every call, so a change takes effect at once.
#include <cstring>
#include <iostream>
#include <optional>
#include <string>

#include <sealkeep/configuration.hpp>

#include "common/key_file.hpp"
#include "database_record.hpp"

namespace PackageSignatures {

namespace {

constexpr char developerModeGroup[] = "developermode";
constexpr char enabledKey[] = "enabled";

std::string developerModeFile(Configuration const& configuration,
                              Database::DeveloperModeConfigType type)
{
    switch (type) {
    case Database::Initial:
        return configuration.developerModeInitialConfPath();
    case Database::Runtime:
        return configuration.developerModeRuntimeConfPath();
    }
    std::cerr << "Unknown developer mode runtime config type: " << static_cast<int>(type)
              << std::endl;
    std::cerr << "Use runtime config by default" << std::endl;
    return configuration.developerModeRuntimeConfPath();
}

// The answer of one developer-mode file: nullopt when the file cannot be
// loaded or has no key "enabled" in its group. Only the exact text "true"
// turns developer mode on, so any other spelling fails safe.
std::optional<bool> enabledIn(std::string const& path)
{
    sealkeep::GKeyFilePtr keyFile(g_key_file_new());
    if (!sealkeep::loadKeyFile(keyFile.get(), path.c_str()))
        return std::nullopt;
    sealkeep::GStrvPtr keys(
        g_key_file_get_keys(keyFile.get(), developerModeGroup, nullptr, nullptr));
    if (!keys)
        return std::nullopt;
    for (char** key = keys.get(); *key; ++key) {
        if (std::strcmp(*key, enabledKey) != 0)
            continue;
        sealkeep::GCharPtr value(
            g_key_file_get_string(keyFile.get(), developerModeGroup, *key, nullptr));
        return value && std::strcmp(value.get(), "true") == 0;
    }
    return std::nullopt;
}

}  // namespace

bool Database::readDeveloperModeConfig(DeveloperModeConfigType type, bool& enabled) const
{
    const Configuration configuration(record_->confPath);
    const std::optional<bool> answer = enabledIn(developerModeFile(configuration, type));
    if (!answer)
        return false;
    enabled = *answer;
    return true;
}

bool Database::isDeveloperModeEnabled() const
{
    bool enabled = false;
    if (readDeveloperModeConfig(Runtime, enabled) || readDeveloperModeConfig(Initial, enabled))
        return enabled;
    std::cerr << "Could not get developer mode state from config files" << std::endl;
    return false;
}

}  // namespace PackageSignatures
