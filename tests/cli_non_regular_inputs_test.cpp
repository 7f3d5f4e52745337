// Every path the command reads (a package, a CA file, a configuration, a
// database, a rotation chain) may name a FIFO or a device instead of a
// file. Reading one would wait for ever: each is refused at once with a line
// that says what it is. Every command runs under a timeout, which a command
// that waits would reach.
#include <sys/stat.h>

#include <chrono>
#include <string>
#include <vector>

#include <gtest/gtest.h>

#include "support/cli_test.hpp"
#include "support/device_root.hpp"

namespace sealkeep::test {
namespace {

class CliNonRegularInputs : public CliTest {
protected:
    void SetUp() override
    {
        fifo = work.file("fifo");
        ASSERT_EQ(mkfifo(fifo.c_str(), 0600), 0);
        package = freshPackage();
        auto signing = signAs(pki->developer(), package);
        ASSERT_EQ(signing.exitCode, 0) << signing.errors;
    }

    // The command's result, which must come well before the timeout.
    CommandResult runQuickly(std::vector<std::string> const& args) const
    {
        auto started = std::chrono::steady_clock::now();
        CommandResult result = runSealkeepWithin(30, work.path(), args);
        EXPECT_LT(std::chrono::steady_clock::now() - started, std::chrono::seconds(20));
        EXPECT_NE(result.exitCode, 137) << "killed after waiting: " << args[0];
        return result;
    }

    std::string ca() const { return pki->ca().certPath; }

    std::string fifo, package;
};

TEST_F(CliNonRegularInputs, InspectRefusesAFifoAndADevice)
{
    for (std::string const& path : {fifo, std::string("/dev/null")}) {
        auto result = runQuickly({"inspect", path});
        EXPECT_EQ(result.exitCode, 1);
        EXPECT_EQ(result.errors, "sealkeep: " + path + ": not a regular file\n");
    }
}

TEST_F(CliNonRegularInputs, VerifyRefusesAFifoPackageAndGoesOn)
{
    auto result = runQuickly({"verify", fifo, "/dev/null", package, "--ca", ca()});
    EXPECT_EQ(result.exitCode, 1);
    EXPECT_EQ(result.errors, "sealkeep: " + fifo + ": not a regular file\nsealkeep: /dev/null: not a regular file\n");
    EXPECT_EQ(result.output, fifo + ": refused\n/dev/null: refused\n" + package + ": verified (1 signature)\n");
}

TEST_F(CliNonRegularInputs, VerifyRefusesAFifoCa)
{
    auto result = runQuickly({"verify", package, "--ca", fifo});
    EXPECT_EQ(result.exitCode, 1);
    EXPECT_EQ(result.errors, "Could not open certificate store \"" + fifo + "\": Invalid argument\nsealkeep: " +
                                 package + ": no CA certificates could be read from " + fifo + ": not a regular file\n");
}

TEST_F(CliNonRegularInputs, DbRefusesAFifoConfigurationAndPackage)
{
    for (auto const& args : std::vector<std::vector<std::string>>{{"db", "status", "--conf", fifo},
                                                                  {"db", "install", package, "--conf", fifo}}) {
        auto result = runQuickly(args);
        EXPECT_EQ(result.exitCode, 1) << args[1];
        EXPECT_EQ(result.errors, "sealkeep: " + fifo + ": cannot read the configuration: not a regular file\n");
    }
    DeviceRoot device(ca());
    auto result = runQuickly({"db", "install", fifo, "--conf", device.conf()});
    EXPECT_EQ(result.exitCode, 1);
    EXPECT_EQ(result.errors, "sealkeep: " + fifo + ": not a regular file\n");
}

TEST_F(CliNonRegularInputs, DbRefusesAFifoRootCa)
{
    DeviceRoot device(fifo);
    auto result = runQuickly({"db", "install", package, "--conf", device.conf()});
    EXPECT_EQ(result.exitCode, 1);
    EXPECT_EQ(result.errors, "Could not open certificate store \"" + fifo + "\": Invalid argument\nsealkeep: " +
                                 package + ": the signatures do not verify against " + fifo + " (not a regular file)\n");
}

TEST_F(CliNonRegularInputs, RotationChainsMustBeRegularFiles)
{
    auto shown = runQuickly({"rotation", "show", fifo});
    EXPECT_EQ(shown.exitCode, 1);
    EXPECT_EQ(shown.errors, "sealkeep: " + fifo + ": not a regular file\n");

    Identity successor = pki->issue("successor", "developer");
    auto appended = runQuickly({"rotate", fifo, "--append", "--old-cert", pki->developer().certPath, "--old-key",
                                pki->developer().keyPath, "--new-cert", successor.certPath, "--new-key",
                                successor.keyPath});
    EXPECT_EQ(appended.exitCode, 1);
    EXPECT_EQ(appended.errors, "sealkeep: " + fifo + ": cannot append to the chain: not a regular file\n");
}

TEST_F(CliNonRegularInputs, ImaApplyRefusesAFifoPackageCaAndConfiguration)
{
    std::string root = work.file("root");
    runCommand({"mkdir", "-p", root});
    auto byPackage = runQuickly({"ima", "apply", fifo, "--root", root, "--ca", ca()});
    EXPECT_EQ(byPackage.exitCode, 1);
    EXPECT_EQ(byPackage.errors, "sealkeep: " + fifo + ": not a regular file\n");

    auto byCa = runQuickly({"ima", "apply", package, "--root", root, "--ca", fifo});
    EXPECT_EQ(byCa.exitCode, 1);
    EXPECT_EQ(byCa.errors, "Could not open certificate store \"" + fifo + "\": Invalid argument\nsealkeep: " +
                               package + ": the signatures do not verify against " + fifo +
                               ": no CA certificates could be read from " + fifo + ": not a regular file\n");

    auto byConf = runQuickly({"ima", "apply", package, "--root", root, "--conf", fifo});
    EXPECT_EQ(byConf.exitCode, 1);
    EXPECT_EQ(byConf.errors, "sealkeep: " + fifo + ": cannot read the configuration: not a regular file\n");
}

}  // namespace
}  // namespace sealkeep::test
