// Configuration: where the configuration file is looked for, and how the
// paths in its group "main" are read.
#include <cstdlib>
#include <optional>

#include <glib.h>
#include <gtest/gtest.h>

#include <sealkeep/configuration.hpp>

#include "support/database_fixture.hpp"
#include "support/files.hpp"
#include "support/temp_dir.hpp"

using namespace sealkeep::test;
using PackageSignatures::Configuration;

namespace {

constexpr char defaultFile[] = "/etc/sealkeep/sealkeep.conf";

void expectAllKeysEmpty(Configuration const& configuration)
{
    EXPECT_EQ("", configuration.databasePath());
    EXPECT_EQ("", configuration.caPath());
    EXPECT_EQ("", configuration.revocationConfPath());
    EXPECT_EQ("", configuration.developerModeInitialConfPath());
    EXPECT_EQ("", configuration.developerModeRuntimeConfPath());
    EXPECT_EQ("", configuration.systemDeveloperKeyIdPath());
}

std::string defaultPathWithRoot(std::optional<std::string> root)
{
    ScopedEnvironment rootfs("SEALKEEP_ROOTFS", std::move(root));
    return Configuration().confPath();
}

}  // namespace

TEST(Configuration, WithoutRootfsAndWithoutDefaultFileEveryKeyIsEmpty)
{
    if (fileExists(defaultFile))
        GTEST_SKIP() << defaultFile << " exists on this machine";
    ScopedEnvironment rootfs("SEALKEEP_ROOTFS", std::nullopt);
    testing::internal::CaptureStderr();
    Configuration configuration;
    expectAllKeysEmpty(configuration);
    EXPECT_EQ(defaultFile, configuration.confPath());
    EXPECT_EQ("", PackageSignatures::defaultCaPath());
    EXPECT_EQ("", testing::internal::GetCapturedStderr());
}

TEST(Configuration, EmptyRootfsCountsAsSet)
{
    EXPECT_EQ(defaultFile, defaultPathWithRoot(std::string()));
}

TEST(Configuration, RootfsIsPrefixedByPlainConcatenation)
{
    EXPECT_EQ("/mnt/root/etc/sealkeep/sealkeep.conf", defaultPathWithRoot("/mnt/root"));
    EXPECT_EQ("/mnt/root//etc/sealkeep/sealkeep.conf", defaultPathWithRoot("/mnt/root/"));
    EXPECT_EQ("relative/etc/sealkeep/sealkeep.conf", defaultPathWithRoot("relative"));
}

TEST(Configuration, RootfsEnvironmentIsRestoredByTheFixture)
{
    ScopedEnvironment outer("SEALKEEP_ROOTFS", "/outer");
    defaultPathWithRoot(std::nullopt);
    EXPECT_STREQ("/outer", std::getenv("SEALKEEP_ROOTFS"));
}

TEST(Configuration, PathsInsideTheFileAreNeverPrefixed)
{
    TempDir root;
    ASSERT_EQ(0, g_mkdir_with_parents((root.path() + "/etc/sealkeep").c_str(), 0700));
    writeText(
        root.path() + defaultFile,
        keyFileText(
            {{"main", {{"database_path", "/var/x.db"}, {"root_ca_cert_path", "/etc/ca.pem"}}}}));
    ScopedEnvironment rootfs("SEALKEEP_ROOTFS", root.path());

    Configuration configuration;
    EXPECT_EQ(root.path() + defaultFile, configuration.confPath());
    EXPECT_EQ("/var/x.db", configuration.databasePath());
    EXPECT_EQ("/etc/ca.pem", PackageSignatures::defaultCaPath());
}

TEST(Configuration, PathsInsideAGivenFileIgnoreRootfs)
{
    TempDir dir;
    const std::string path = dir.file("sealkeep.conf");
    writeText(path, keyFileText({{"main", {{"database_path", "/var/x.db"}}}}));
    for (auto root :
         {std::optional<std::string>(), std::optional<std::string>(""),
          std::optional<std::string>("/mnt/root"), std::optional<std::string>(dir.path())}) {
        ScopedEnvironment rootfs("SEALKEEP_ROOTFS", root);
        EXPECT_EQ("/var/x.db", Configuration(path).databasePath());
        EXPECT_EQ(path, Configuration(path).confPath());
    }
}

TEST(Configuration, ReadsEverySixKeysOfGroupMain)
{
    TempDir dir;
    std::string path = dir.file("sealkeep.conf");
    writeText(path, keyFileText({{"main",
                                  {{"database_path", "/d.db"},
                                   {"root_ca_cert_path", "/ca.pem"},
                                   {"revocation_conf", "/revocation.conf"},
                                   {"developermode_init_conf", "/init.conf"},
                                   {"developermode_runtime_conf", "/runtime.conf"},
                                   {"system_developer_keyid_path", "/keyid"}}}}));
    Configuration configuration(path);
    EXPECT_EQ("/d.db", configuration.databasePath());
    EXPECT_EQ("/ca.pem", configuration.caPath());
    EXPECT_EQ("/revocation.conf", configuration.revocationConfPath());
    EXPECT_EQ("/init.conf", configuration.developerModeInitialConfPath());
    EXPECT_EQ("/runtime.conf", configuration.developerModeRuntimeConfPath());
    EXPECT_EQ("/keyid", configuration.systemDeveloperKeyIdPath());
    EXPECT_EQ(path, configuration.confPath());
}

TEST(Configuration, ValuesAreUnescapedByGlib)
{
    TempDir dir;
    std::string path = dir.file("sealkeep.conf");
    writeText(path, "[main]\ndatabase_path=/var/with\\sspace.db\n");
    EXPECT_EQ("/var/with space.db", Configuration(path).databasePath());
}

TEST(Configuration, KeysOfOtherGroupsAreNotSeen)
{
    TempDir dir;
    std::string path = dir.file("sealkeep.conf");
    writeText(path, keyFileText({{"other", {{"database_path", "/var/x.db"}}},
                                 {"main", {{"root_ca_cert_path", "/ca.pem"}}}}));
    Configuration configuration(path);
    EXPECT_EQ("", configuration.databasePath());
    EXPECT_EQ("/ca.pem", configuration.caPath());
}

TEST(Configuration, FileWithoutGroupMainGivesEmptyStringsSilently)
{
    TempDir dir;
    std::string path = dir.file("sealkeep.conf");
    writeText(path, keyFileText({{"other", {{"database_path", "/var/x.db"}}}}));
    testing::internal::CaptureStderr();
    Configuration configuration(path);
    expectAllKeysEmpty(configuration);
    EXPECT_EQ("", testing::internal::GetCapturedStderr());
}

TEST(Configuration, PartlyLoadableFileGivesEmptyStringsSilently)
{
    // GLib reads the valid head before it meets the line that is not a key
    // file line; the file as a whole is still unloadable.
    TempDir dir;
    std::string path = dir.file("sealkeep.conf");
    writeText(path, "[main]\ndatabase_path=/var/x.db\nroot_ca_cert_path=/ca.pem\n"
                    "this is not a key file line\nrevocation_conf=/r.conf\n");
    testing::internal::CaptureStderr();
    Configuration configuration(path);
    expectAllKeysEmpty(configuration);
    EXPECT_EQ(path, configuration.confPath());
    EXPECT_EQ("", testing::internal::GetCapturedStderr());
}

TEST(Configuration, MissingOrMalformedFileGivesEmptyStringsSilently)
{
    TempDir dir;
    std::string malformed = dir.file("malformed.conf");
    writeText(malformed, "this is not a key file\n[main\n");
    testing::internal::CaptureStderr();
    for (std::string const& path : {dir.file("absent.conf"), malformed, std::string()}) {
        Configuration configuration(path);
        expectAllKeysEmpty(configuration);
        EXPECT_EQ(path, configuration.confPath());
    }
    EXPECT_EQ("", testing::internal::GetCapturedStderr());
}
