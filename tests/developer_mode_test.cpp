// The developer-mode switch: the runtime file overrides the initial one, only
// the exact value "true" turns the mode on, and the files are re-read on
// every call.
#include <gtest/gtest.h>

#include <memory>

#include <sealkeep/database.hpp>

#include "support/database_fixture.hpp"
#include "support/files.hpp"

using namespace sealkeep::test;
using PackageSignatures::Database;

namespace {

constexpr char noAnswer[] = "Could not get developer mode state from config files\n";

class DeveloperMode : public testing::Test {
protected:
    TrustFiles files;
    std::unique_ptr<Database> database;

    void SetUp() override
    {
        // The database is opened in developer mode, so that nothing it does
        // at creation depends on the files the tests then rewrite.
        files.writeInitialMode("true");
        database = std::make_unique<Database>(files.databasePath(), files.confPath());
        files.removeFile(files.initialModePath());
    }

    // isDeveloperModeEnabled, and what it printed.
    std::pair<bool, std::string> mode()
    {
        bool enabled = false;
        std::string printed = stderrOf([&] { enabled = database->isDeveloperModeEnabled(); });
        return {enabled, printed};
    }
};

TEST_F(DeveloperMode, RuntimeFalseOverridesInitialTrue)
{
    files.writeRuntimeMode("false");
    files.writeInitialMode("true");
    EXPECT_EQ(std::make_pair(false, std::string()), mode());
}

TEST_F(DeveloperMode, RuntimeTrueOverridesInitialFalse)
{
    files.writeRuntimeMode("true");
    files.writeInitialMode("false");
    EXPECT_EQ(std::make_pair(true, std::string()), mode());
}

TEST_F(DeveloperMode, InitialFileDecidesWithoutRuntimeFile)
{
    files.writeInitialMode("true");
    EXPECT_EQ(std::make_pair(true, std::string()), mode());
}

TEST_F(DeveloperMode, NeitherFileMeansOffWithAMessage)
{
    EXPECT_EQ(std::make_pair(false, std::string(noAnswer)), mode());
}

TEST_F(DeveloperMode, RuntimeFileWithoutKeyEnabledLeavesTheDecisionToTheInitialFile)
{
    writeText(files.runtimeModePath(), keyFileText({{"developermode", {{"other", "true"}}}}));
    files.writeInitialMode("true");
    EXPECT_EQ(std::make_pair(true, std::string()), mode());
}

TEST_F(DeveloperMode, RuntimeFileWithoutGroupOrUnparsableLeavesTheDecisionToTheInitialFile)
{
    files.writeInitialMode("true");
    for (std::string const& text : {keyFileText({{"other", {{"enabled", "false"}}}}),
                                    std::string("enabled=false\n"), std::string()}) {
        writeText(files.runtimeModePath(), text);
        EXPECT_EQ(std::make_pair(true, std::string()), mode()) << text;
    }
}

TEST_F(DeveloperMode, OnlyTheExactTextTrueTurnsItOn)
{
    for (std::string const value : {"True", "TRUE", "1", "yes", "on", "", "truee"}) {
        files.writeRuntimeMode(value);
        files.writeInitialMode("true");
        EXPECT_EQ(std::make_pair(false, std::string()), mode()) << value;
    }
}

TEST_F(DeveloperMode, OtherKeysOfTheGroupAreIgnored)
{
    writeText(files.runtimeModePath(),
              keyFileText({{"developermode", {{"a", "x"}, {"enabled", "true"}, {"z", "false"}}}}));
    EXPECT_EQ(std::make_pair(true, std::string()), mode());
}

TEST_F(DeveloperMode, ChangesTakeEffectAtTheNextCall)
{
    files.writeRuntimeMode("true");
    EXPECT_TRUE(mode().first);
    files.writeRuntimeMode("false");
    EXPECT_FALSE(mode().first);
    files.removeFile(files.runtimeModePath());
    EXPECT_EQ(std::make_pair(false, std::string(noAnswer)), mode());
}

TEST_F(DeveloperMode, ConfigurationWithoutDeveloperModeKeysMeansOff)
{
    files.writeRuntimeMode("true");
    files.writeInitialMode("true");
    files.writeConfiguration({{"database_path", files.databasePath()}});
    EXPECT_EQ(std::make_pair(false, std::string(noAnswer)), mode());
}

TEST_F(DeveloperMode, ReadGivesAnAnswerOnlyWhenTheFileHasOne)
{
    bool enabled = true;
    EXPECT_FALSE(database->readDeveloperModeConfig(Database::Runtime, enabled));
    EXPECT_TRUE(enabled) << "untouched without an answer";

    writeText(files.runtimeModePath(), keyFileText({{"developermode", {{"other", "x"}}}}));
    EXPECT_FALSE(database->readDeveloperModeConfig(Database::Runtime, enabled));
    EXPECT_TRUE(enabled);

    files.writeRuntimeMode("no");
    EXPECT_TRUE(database->readDeveloperModeConfig(Database::Runtime, enabled));
    EXPECT_FALSE(enabled);

    files.writeInitialMode("true");
    EXPECT_TRUE(database->readDeveloperModeConfig(Database::Initial, enabled));
    EXPECT_TRUE(enabled);
}

TEST_F(DeveloperMode, UnknownTypeIsReportedAndReadsTheRuntimeFile)
{
    files.writeRuntimeMode("true");
    files.writeInitialMode("false");
    bool enabled = false;
    bool answered = false;
    const std::string printed = stderrOf([&] {
        answered = database->readDeveloperModeConfig(
            static_cast<Database::DeveloperModeConfigType>(7), enabled);
    });
    EXPECT_EQ(
        "Unknown developer mode runtime config type: 7\n"
        "Use runtime config by default\n",
        printed);
    EXPECT_TRUE(answered);
    EXPECT_TRUE(enabled);
}

TEST_F(DeveloperMode, UsesTheConfigurationTheDatabaseWasOpenedWith)
{
    // Another configuration file naming other developer-mode files changes
    // nothing: the database keeps the path it was given.
    TrustFiles other;
    other.writeRuntimeMode("true");
    files.writeRuntimeMode("false");
    EXPECT_FALSE(mode().first);
}

}  // namespace
