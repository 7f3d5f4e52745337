// Environment and trust-file fixtures for the database suites.
#include "support/database_fixture.hpp"

#include <cstdio>
#include <cstdlib>

#include "support/files.hpp"

namespace sealkeep::test {

ScopedEnvironment::ScopedEnvironment(std::string name, std::optional<std::string> value)
    : name_(std::move(name))
{
    if (const char* old = std::getenv(name_.c_str()))
        previous_ = old;
    if (value)
        setenv(name_.c_str(), value->c_str(), 1);
    else
        unsetenv(name_.c_str());
}

ScopedEnvironment::~ScopedEnvironment()
{
    if (previous_)
        setenv(name_.c_str(), previous_->c_str(), 1);
    else
        unsetenv(name_.c_str());
}

std::string keyFileText(KeyFileGroups const& groups)
{
    std::string text;
    for (auto const& [group, keys] : groups) {
        text += "[" + group + "]\n";
        for (auto const& [key, value] : keys)
            text += key + "=" + value + "\n";
    }
    return text;
}

TrustFiles::TrustFiles()
{
    writeConfiguration(standardKeys());
    writeRevocation({}, {});
    writeInitialMode("false");
}

KeyValues TrustFiles::standardKeys() const
{
    return {
        {"database_path", databasePath()},
        {"root_ca_cert_path", file("ca.pem")},
        {"revocation_conf", revocationPath()},
        {"developermode_init_conf", initialModePath()},
        {"developermode_runtime_conf", runtimeModePath()},
        {"system_developer_keyid_path", file("system-developer.keyid")},
    };
}

void TrustFiles::writeConfiguration(KeyValues const& mainKeys) const
{
    writeText(confPath(), keyFileText({{"main", mainKeys}}));
}

void TrustFiles::writeRevocation(KeyValues const& revoke, KeyValues const& revokeOnBind) const
{
    KeyFileGroups groups;
    if (!revoke.empty())
        groups.emplace_back("revoke", revoke);
    if (!revokeOnBind.empty())
        groups.emplace_back("revoke-on-bind", revokeOnBind);
    writeText(revocationPath(), keyFileText(groups));
}

void TrustFiles::writeInitialMode(std::string const& value) const
{
    writeText(initialModePath(), keyFileText({{"developermode", {{"enabled", value}}}}));
}

void TrustFiles::writeRuntimeMode(std::string const& value) const
{
    writeText(runtimeModePath(), keyFileText({{"developermode", {{"enabled", value}}}}));
}

void TrustFiles::removeFile(std::string const& path) const
{
    std::remove(path.c_str());
}

}  // namespace sealkeep::test
