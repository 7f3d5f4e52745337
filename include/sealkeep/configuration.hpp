// PackageSignatures::Configuration: where the library's files lie, read from
// one GLib key file (group "main"). Every getter re-reads the loaded key file
// and returns the empty string for an absent key; nothing is ever reported.
#ifndef SEALKEEP_CONFIGURATION_HPP
#define SEALKEEP_CONFIGURATION_HPP

#include <memory>
#include <string>
#include <string_view>

#include <sealkeep/export.hpp>

namespace PackageSignatures {

class SEALKEEP_EXPORT Configuration {
public:
    // "/etc/sealkeep/sealkeep.conf", prefixed by $SEALKEEP_ROOTFS (by plain
    // concatenation) when that variable is set, even to the empty string.
    Configuration();
    // path must be NUL-terminated.
    explicit Configuration(std::string_view path);
    ~Configuration();
    Configuration(Configuration const&) = delete;
    Configuration& operator=(Configuration const&) = delete;

    std::string databasePath() const;
    std::string caPath() const;
    std::string revocationConfPath() const;
    std::string developerModeInitialConfPath() const;
    std::string developerModeRuntimeConfPath() const;
    std::string systemDeveloperKeyIdPath() const;
    std::string confPath() const;

private:
    struct Record;
    std::unique_ptr<Record> record_;
};

// caPath() of the default configuration.
SEALKEEP_EXPORT std::string defaultCaPath();

}  // namespace PackageSignatures

#endif
