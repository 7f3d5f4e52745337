// Asking the command for help and getting usage wrong: `sealkeep help
// [SUBCOMMAND...]`, a word that is no subcommand, and numbers out of range,
// each answered in one readable line.
#include <string>

#include <gtest/gtest.h>

#include "support/sealkeep_command.hpp"
#include "support/temp_dir.hpp"

namespace sealkeep::test {
namespace {

class CliHelp : public ::testing::Test {
protected:
    CommandResult run(std::vector<std::string> const& args) const { return runSealkeep(dir.path(), args); }
    TempDir dir;
};

TEST_F(CliHelp, HelpPrintsTheCommandsHelp)
{
    auto help = run({"help"});
    EXPECT_EQ(help.exitCode, 0) << help.errors;
    EXPECT_EQ(help.output, run({"--help"}).output);
    EXPECT_EQ(help.output.rfind("Sign, verify and inspect packages", 0), 0u) << help.output;
}

TEST_F(CliHelp, HelpOfASubcommandIsItsOwn)
{
    for (std::vector<std::string> words : {std::vector<std::string>{"verify"}, {"db"}, {"db", "install"},
                                           {"rotation", "show"}}) {
        std::vector<std::string> asked = {"help"};
        asked.insert(asked.end(), words.begin(), words.end());
        words.push_back("--help");
        auto help = run(asked);
        EXPECT_EQ(help.exitCode, 0) << help.errors;
        EXPECT_EQ(help.output, run(words).output);
    }
    EXPECT_NE(run({"help", "db", "install"}).output.find("Usage: sealkeep db install [OPTIONS]"), std::string::npos);
}

TEST_F(CliHelp, HelpOfAnUnknownSubcommandListsTheKnownOnes)
{
    auto unknown = run({"help", "frob"});
    EXPECT_EQ(unknown.exitCode, 2);
    EXPECT_EQ(unknown.output, "");
    EXPECT_EQ(unknown.errors, "sealkeep: no subcommand \"frob\"; the subcommands are: sign, prepare, sign-request, "
                              "attach, verify, inspect, strip, ca, rotate, rotation, db, ima, help\n");
    auto below = run({"help", "db", "frob"});
    EXPECT_EQ(below.exitCode, 2);
    EXPECT_EQ(below.errors, "sealkeep: no subcommand \"frob\"; the subcommands are: status, check, install, remove, "
                            "list, certificates, revoke, unrevoke, revoked, sync, developer-mode\n");
}

TEST_F(CliHelp, AnUnknownSubcommandIsNamed)
{
    auto unknown = run({"db", "lsit", "--json"});
    EXPECT_EQ(unknown.exitCode, 2);
    EXPECT_EQ(unknown.errors, "sealkeep: unknown subcommand \"lsit\"; the subcommands are: status, check, install, "
                              "remove, list, certificates, revoke, unrevoke, revoked, sync, developer-mode "
                              "(see --help)\n");
    // A missing one is still said to be missing.
    EXPECT_EQ(run({"db"}).errors, "sealkeep: A subcommand is required (see --help)\n");
}

TEST_F(CliHelp, NoJobsAtAllIsOneShortLine)
{
    for (std::string jobs : {"0", "-1", "x"}) {
        auto result = run({"sign", "package.rpm", "--cert", "c.pem", "--key", "k.pem", "--jobs", jobs});
        EXPECT_EQ(result.exitCode, 2);
        EXPECT_EQ(result.errors, "sealkeep: --jobs: must be a whole number of 1 or more, not " + jobs +
                                     " (see --help)\n");
    }
}

}  // namespace
}  // namespace sealkeep::test
