// Configuration: the paths of the library's files, read from one GLib key file
// (group "main"). Nothing is validated or reported here; an absent key simply
// reads as the empty string and the consumer of the path decides what that
// means.
#include <sealkeep/configuration.hpp>

#include <cstdlib>

#include "common/key_file.hpp"
#include "common/ossl_ptr.hpp"

namespace PackageSignatures {

namespace {

constexpr char mainGroup[] = "main";
constexpr char defaultConfigurationFile[] = "/etc/sealkeep/sealkeep.conf";

// $SEALKEEP_ROOTFS lets a tool configure a system image mounted elsewhere. The
// prefix is concatenated as is, so callers get exactly the path they asked
// for; an empty value still counts as set.
std::string defaultConfigurationPath()
{
    const char* root = std::getenv("SEALKEEP_ROOTFS");
    if (!root)
        return defaultConfigurationFile;
    return std::string(root) + defaultConfigurationFile;
}

}  // namespace

struct Configuration::Record {
    sealkeep::GKeyFilePtr keyFile{g_key_file_new()};
    std::string filePath;

    std::string value(const char* key) const
    {
        sealkeep::GCharPtr text(g_key_file_get_string(keyFile.get(), mainGroup, key, nullptr));
        return text ? std::string(text.get()) : std::string();
    }
};

Configuration::Configuration() : Configuration(defaultConfigurationPath()) {}

Configuration::Configuration(std::string_view path) : record_(std::make_unique<Record>())
{
    record_->filePath = std::string(path);
    // GLib gets our own copy, which is NUL-terminated whatever the view was.
    // A file that cannot be loaded gives an empty key file, which every
    // getter reports as an absent key: there is nothing more useful to say.
    // GLib keeps what it read before the line it could not parse, so that
    // head is dropped: half a configuration is not a configuration.
    if (!sealkeep::loadKeyFile(record_->keyFile.get(), record_->filePath.c_str()))
        record_->keyFile.reset(g_key_file_new());
}

Configuration::~Configuration() = default;

std::string Configuration::databasePath() const
{
    return record_->value("database_path");
}

std::string Configuration::caPath() const
{
    return record_->value("root_ca_cert_path");
}

std::string Configuration::revocationConfPath() const
{
    return record_->value("revocation_conf");
}

std::string Configuration::developerModeInitialConfPath() const
{
    return record_->value("developermode_init_conf");
}

std::string Configuration::developerModeRuntimeConfPath() const
{
    return record_->value("developermode_runtime_conf");
}

std::string Configuration::systemDeveloperKeyIdPath() const
{
    return record_->value("system_developer_keyid_path");
}

std::string Configuration::confPath() const
{
    return record_->filePath;
}

std::string defaultCaPath()
{
    return Configuration().caPath();
}

}  // namespace PackageSignatures
