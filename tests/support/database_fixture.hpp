// Fixtures for the trust database suites: environment variables set for the
// length of a test, and a temporary directory holding a configuration file
// together with the database, revocation and developer-mode files it names.
#ifndef SEALKEEP_TESTS_SUPPORT_DATABASE_FIXTURE_HPP
#define SEALKEEP_TESTS_SUPPORT_DATABASE_FIXTURE_HPP

#include <optional>
#include <string>
#include <utility>
#include <vector>

#include <gtest/gtest.h>

#include "support/temp_dir.hpp"

namespace sealkeep::test {

// Sets an environment variable (or unsets it, for nullopt) and puts back the
// previous state when destroyed, so tests cannot leak settings to each other.
class ScopedEnvironment {
public:
    ScopedEnvironment(std::string name, std::optional<std::string> value);
    ~ScopedEnvironment();
    ScopedEnvironment(ScopedEnvironment const&) = delete;
    ScopedEnvironment& operator=(ScopedEnvironment const&) = delete;

private:
    std::string name_;
    std::optional<std::string> previous_;
};

// Everything that run writes to standard error while it runs.
template <typename Run>
std::string stderrOf(Run&& run)
{
    testing::internal::CaptureStderr();
    run();
    return testing::internal::GetCapturedStderr();
}

using KeyValues = std::vector<std::pair<std::string, std::string>>;
using KeyFileGroups = std::vector<std::pair<std::string, KeyValues>>;

// The text of a GLib key file with these groups and keys, in order.
std::string keyFileText(KeyFileGroups const& groups);

// A directory with a configuration file ("sealkeep.conf") whose group "main"
// names a database, a revocation file, two developer-mode files, a CA file
// and a system developer key id file, all inside the directory.
//
// Initially the revocation file exists and is empty, and the initial
// developer-mode file says "false": a database opens quietly, outside
// developer mode, and starts with no revoked key ids.
class TrustFiles {
public:
    TrustFiles();

    std::string confPath() const { return dir_.file("sealkeep.conf"); }
    std::string databasePath() const { return dir_.file("trust.db"); }
    std::string revocationPath() const { return dir_.file("revocation.conf"); }
    std::string initialModePath() const { return dir_.file("developermode-init.conf"); }
    std::string runtimeModePath() const { return dir_.file("developermode-runtime.conf"); }
    std::string file(std::string const& name) const { return dir_.file(name); }

    // The keys of group "main" that name the files above.
    KeyValues standardKeys() const;
    // Replaces the configuration's group "main" with these keys.
    void writeConfiguration(KeyValues const& mainKeys) const;

    void writeRevocation(KeyValues const& revoke, KeyValues const& revokeOnBind) const;
    // A developer-mode file whose group "developermode" holds enabled=value.
    void writeInitialMode(std::string const& value) const;
    void writeRuntimeMode(std::string const& value) const;
    void removeFile(std::string const& path) const;

private:
    TempDir dir_;
};

}  // namespace sealkeep::test

#endif
