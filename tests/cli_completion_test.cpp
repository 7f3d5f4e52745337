// The installed bash completion of sealkeep, sourced into bash and asked as
// bash asks it (COMP_WORDS, COMP_CWORD): every subcommand the command's
// --help lists completes, and so do the options of a subcommand and, after
// an option that takes a value, file names. The zsh completion is asked the
// same under zsh.
#include <sstream>
#include <string>
#include <vector>

#include <gtest/gtest.h>

#include "support/files.hpp"
#include "support/process.hpp"
#include "support/sealkeep_command.hpp"
#include "support/temp_dir.hpp"

namespace sealkeep::test {
namespace {

std::vector<std::string> linesOf(std::string const& text)
{
    std::vector<std::string> lines;
    std::istringstream stream(text);
    for (std::string line; std::getline(stream, line);)
        lines.push_back(line);
    return lines;
}

class CliCompletion : public ::testing::Test {
protected:
    // What the completion offers for the words typed so far, the last one
    // being the word under the cursor; one per line, in the order offered.
    std::vector<std::string> complete(std::vector<std::string> const& words) const
    {
        std::string array;
        for (auto const& word : words)
            array += " " + shellQuoted(word);
        std::string script = "source " + shellQuoted(SEALKEEP_TEST_BASH_COMPLETION) +
                             " && COMP_WORDS=(sealkeep" + array + ") && COMP_CWORD=" +
                             std::to_string(words.size()) + " && _sealkeep && printf '%s\\n' \"${COMPREPLY[@]}\"";
        auto result = runCommand({"bash", "-c", "cd " + shellQuoted(dir.path()) + " && " + script});
        EXPECT_EQ(result.exitCode, 0) << result.errors;
        EXPECT_EQ(result.errors, "");
        std::vector<std::string> offered = linesOf(result.output);
        if (offered.size() == 1 && offered[0].empty())
            offered.clear();
        return offered;
    }

    // The names under "Subcommands:" in the --help of `sealkeep words...`.
    std::vector<std::string> subcommandsOf(std::vector<std::string> words) const
    {
        words.push_back("--help");
        std::vector<std::string> names;
        bool listing = false;
        for (auto const& line : linesOf(runSealkeep(dir.path(), words).output)) {
            if (line == "Subcommands:")
                listing = true;
            else if (line.empty())
                listing = false;
            else if (listing)
                names.push_back(line.substr(2, line.find(' ', 2) - 2));
        }
        return names;
    }

    TempDir dir;
};

TEST_F(CliCompletion, TheScriptRegistersItselfForSealkeep)
{
    auto result = runCommand({"bash", "-c", "source " + shellQuoted(SEALKEEP_TEST_BASH_COMPLETION) +
                                                " && complete -p sealkeep"});
    EXPECT_EQ(result.output, "complete -o filenames -F _sealkeep sealkeep\n");
}

TEST_F(CliCompletion, EverySubcommandCompletes)
{
    auto top = subcommandsOf({});
    ASSERT_GE(top.size(), 9u);
    EXPECT_EQ(complete({""}), top);
    for (auto const& name : top) {
        SCOPED_TRACE(name);
        // A whole name completes to itself and to the longer names it begins.
        std::vector<std::string> starting;
        for (auto const& other : top)
            if (other.rfind(name, 0) == 0)
                starting.push_back(other);
        EXPECT_EQ(complete({name}), starting);
        auto below = subcommandsOf({name});
        if (below.empty())
            continue;
        EXPECT_EQ(complete({name, ""}), below);
        for (auto const& sub : below)
            EXPECT_EQ(complete({name, sub.substr(0, sub.size() - 1)}).empty(), false) << sub;
    }
    EXPECT_EQ(complete({"db", "rev"}), (std::vector<std::string>{"revoke", "revoked"}));
}

TEST_F(CliCompletion, OptionsOfOneSubcommandComplete)
{
    EXPECT_EQ(complete({"sign", "--j"}), (std::vector<std::string>{"--jobs", "--json"}));
    EXPECT_EQ(complete({"verify", "pkg.rpm", "--"}),
              (std::vector<std::string>{"--ca", "--json", "--verbose", "--print-certs", "--signer", "--require",
                                        "--min-signatures"}));
    EXPECT_EQ(complete({"db", "revoke", "00", "--s"}), std::vector<std::string>{"--superseded"});
    // Options of another subcommand are not offered.
    EXPECT_EQ(complete({"strip", "--ca"}), std::vector<std::string>{});
}

TEST_F(CliCompletion, AfterAnOptionThatTakesAValueFilesAreOffered)
{
    writeText(dir.path() + "/ca-root.pem", "");
    EXPECT_EQ(complete({"verify", "pkg.rpm", "--ca", "ca-"}), std::vector<std::string>{"ca-root.pem"});
    // After a flag the next word is an option or a package again.
    EXPECT_EQ(complete({"verify", "--json", "--c"}), std::vector<std::string>{"--ca"});
}

// zsh autoloads the installed _sealkeep; compadd and _files are stood in
// for, to print what would be offered.
TEST_F(CliCompletion, TheZshScriptCompletesTheSameTree)
{
    std::string zshDir = SEALKEEP_TEST_ZSH_COMPLETION;
    zshDir.erase(zshDir.rfind('/'));
    std::string script = "fpath=(" + shellQuoted(zshDir) + " $fpath)\n"
                         "autoload -U _sealkeep\n"
                         "compadd() { shift; print -l -- \"$@\"; }\n"
                         "_files() { print FILES; }\n"
                         "try() { words=(sealkeep \"$@\"); CURRENT=$#words; _sealkeep; print -- ---; }\n"
                         "try ''\ntry db rev\ntry sign --j\ntry verify --ca ''\n";
    writeText(dir.path() + "/try.zsh", script);
    auto result = runCommand({"zsh", "-f", dir.path() + "/try.zsh"});
    ASSERT_EQ(result.exitCode, 0) << result.errors;
    EXPECT_EQ(result.errors, "");
    std::string top;
    for (auto const& name : subcommandsOf({}))
        top += name + "\n";
    // compadd is given every candidate; zsh itself matches the prefix typed.
    std::string db;
    for (auto const& name : subcommandsOf({"db"}))
        db += name + "\n";
    std::string shown = runCommand({"bash", "-c", "source " + shellQuoted(SEALKEEP_TEST_BASH_COMPLETION) +
                                                      " && COMP_WORDS=(sealkeep sign -) && COMP_CWORD=2 && "
                                                      "_sealkeep && printf '%s\\n' \"${COMPREPLY[@]}\""})
                            .output;
    EXPECT_EQ(result.output, top + "---\n" + db + "---\n" + shown + "---\nFILES\n---\n");
}

}  // namespace
}  // namespace sealkeep::test
