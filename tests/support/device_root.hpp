// A device's configuration in a temporary directory, laid out as under
// SEALKEEP_ROOTFS: the configuration file, its revocation and developer-mode
// files, and where the trust database goes (not created here).
#ifndef SEALKEEP_TESTS_SUPPORT_DEVICE_ROOT_HPP
#define SEALKEEP_TESTS_SUPPORT_DEVICE_ROOT_HPP

#include <string>

#include "support/files.hpp"
#include "support/process.hpp"
#include "support/sealkeep_command.hpp"
#include "support/temp_dir.hpp"

namespace sealkeep::test {

class DeviceRoot {
public:
    explicit DeviceRoot(std::string const& caPath)
    {
        runShell("mkdir -p " + shellQuoted(dir.file("etc/sealkeep")) + " " + shellQuoted(dir.file("var/lib")));
        writeText(conf(), "[main]\ndatabase_path=" + database() + "\nroot_ca_cert_path=" + caPath +
                              "\nrevocation_conf=" + revocation() + "\ndevelopermode_init_conf=" +
                              dir.file("etc/sealkeep/developermode.conf") + "\ndevelopermode_runtime_conf=" +
                              runtimeDeveloperMode() + "\nsystem_developer_keyid_path=" +
                              dir.file("etc/sealkeep/system_developer_keyid") + "\n");
        writeRevocation("");
        writeText(dir.file("etc/sealkeep/developermode.conf"), "[developermode]\nenabled=false\n");
    }

    std::string root() const { return dir.path(); }
    std::string conf() const { return dir.file("etc/sealkeep/sealkeep.conf"); }
    std::string database() const { return dir.file("var/lib/sealkeep.db"); }
    std::string revocation() const { return dir.file("etc/sealkeep/revocation.conf"); }
    std::string runtimeDeveloperMode() const { return dir.file("developermode-runtime.conf"); }

    // The revocation file with entries (lines "KEYID=TYPE") under
    // "revoke-on-bind" and nothing under "revoke".
    void writeRevocation(std::string const& onBind) const
    {
        writeText(revocation(), "[revoke]\n[revoke-on-bind]\n" + onBind);
    }
    void setDeveloperMode(bool enabled) const
    {
        writeText(runtimeDeveloperMode(), std::string("[developermode]\nenabled=") + (enabled ? "true" : "false") + "\n");
    }
    // The output of the sqlite3 command on the database.
    std::string query(std::string const& sql) const
    {
        return runCommand({"sqlite3", database(), sql}).output;
    }

private:
    TempDir dir;
};

}  // namespace sealkeep::test

#endif
