// A test base for suites of the sealkeep command: one PKI and one signed-able
// RPM package per suite, and a fresh working directory per test in which the
// command runs.
#ifndef SEALKEEP_TESTS_SUPPORT_CLI_TEST_HPP
#define SEALKEEP_TESTS_SUPPORT_CLI_TEST_HPP

#include <memory>
#include <string>
#include <vector>

#include <gtest/gtest.h>

#include "support/files.hpp"
#include "support/rpm_builder.hpp"
#include "support/sealkeep_command.hpp"
#include "support/shared_pki.hpp"
#include "support/temp_dir.hpp"

namespace sealkeep::test {

class CliTest : public SharedPkiTest {
protected:
    static void SetUpTestSuite()
    {
        SharedPkiTest::SetUpTestSuite();
        rpmDir = std::make_unique<TempDir>();
        rpmTemplate = buildRpm(rpmDir->path(), "cli-demo",
                               {regularFile("/usr/share/cli/hello.txt", "hello\n"),
                                hardLink("/usr/share/cli/hello-again.txt", "/usr/share/cli/hello.txt"),
                                regularFile("/usr/share/cli/empty", "")});
    }
    static void TearDownTestSuite()
    {
        rpmDir.reset();
        SharedPkiTest::TearDownTestSuite();
    }

    CommandResult run(std::vector<std::string> const& args) const { return runSealkeep(work.path(), args); }

    // A copy of the suite's unsigned RPM in the working directory.
    std::string freshPackage(std::string const& name = "package.rpm") const
    {
        std::string path = work.file(name);
        writeFile(path, readFile(rpmTemplate));
        return path;
    }

    // sign PACKAGE --cert ... --key ... for one of the PKI's identities.
    CommandResult signAs(Identity const& who, std::string const& package,
                         std::vector<std::string> const& extra = {}) const
    {
        std::vector<std::string> args = {"sign", package, "--cert", who.certPath, "--key", who.keyPath};
        args.insert(args.end(), extra.begin(), extra.end());
        return run(args);
    }

    TempDir work;
    static inline std::unique_ptr<TempDir> rpmDir;
    static inline std::string rpmTemplate;
};

}  // namespace sealkeep::test

#endif
