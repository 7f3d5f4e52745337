// sealkeep db: the device's trust database as its installer and
// administrators see it: status, admission checks, package records, revoked
// key ids and the developer-mode state, all on the files the configuration
// names.
#include <cstring>
#include <memory>
#include <optional>
#include <string>
#include <vector>

#include <sqlite3.h>
#include <sys/stat.h>

#include <CLI/CLI.hpp>
#include <nlohmann/json.hpp>

#include <sealkeep/sealkeep.hpp>

#include "cli.hpp"
#include "input_file.hpp"
#include "json_output.hpp"
#include "package_files.hpp"
#include "terminal_text.hpp"

namespace sealkeep::cli {
namespace {

using PackageSignatures::Database;

// The schema version this build of the library writes and understands.
constexpr int knownSchemaVersion = PackageSignatures::databaseSchemaVersion;

struct DbOptions {
    std::string conf;  // empty: the default configuration file
    bool json = false;
    bool active = false;
    bool superseded = false;
    bool blacklisted = false;
    std::string name;                         // of remove
    std::vector<std::string> nameAndPackage;  // of check and install: [NAME] PACKAGE
    bool otherName = false;
    std::string keyid;
};

// The configuration file and the database it names.
struct Place {
    std::string confPath;
    std::string databasePath;
};

std::optional<Place> placeOf(DbOptions const& options)
{
    std::string confPath =
        options.conf.empty() ? PackageSignatures::Configuration().confPath() : options.conf;
    InputFile configuration = openInput(confPath);
    if (!configuration.fd) {
        reportFailure(confPath, "cannot read the configuration: " + configuration.reason);
        return std::nullopt;
    }
    std::string databasePath = PackageSignatures::Configuration(confPath).databasePath();
    if (databasePath.empty()) {
        reportFailure(confPath, "no database_path in group [main]");
        return std::nullopt;
    }
    return Place{confPath, databasePath};
}

// How long the command waits for another process's lock on the database,
// as the library's own operations do.
constexpr int busyTimeoutMs = 5000;

// The schema version of an existing database file, read without writing and
// without creating it; otherwise why not, as a line for the command's
// report.
struct SchemaVersion {
    std::optional<int> version;
    std::string refusal;
};

// A lock held by another process (a commit in progress) is waited for, and
// after the wait reported as what it is: a busy database, not a damaged one.
std::string databaseRefusal(sqlite3* db, int result)
{
    switch (result & 0xff) {
    case SQLITE_BUSY:
    case SQLITE_LOCKED:
        return "the database is busy: another process kept it locked for " +
               std::to_string(busyTimeoutMs / 1000) + " seconds; try again";
    case SQLITE_NOTADB:
        return "cannot open the database: not an SQLite database";
    case SQLITE_CANTOPEN:
        if (int error = db ? sqlite3_system_errno(db) : 0)
            return std::string("cannot open the database: ") + std::strerror(error);
        break;
    }
    return std::string("cannot open the database: ") + (db ? sqlite3_errmsg(db) : sqlite3_errstr(result));
}

SchemaVersion schemaVersionOf(std::string const& path)
{
    sqlite3* raw = nullptr;
    int rc = sqlite3_open_v2(path.c_str(), &raw, SQLITE_OPEN_READONLY, nullptr);
    std::unique_ptr<sqlite3, decltype(&sqlite3_close)> db(raw, &sqlite3_close);
    if (rc != SQLITE_OK)
        return {std::nullopt, databaseRefusal(db.get(), rc)};
    sqlite3_busy_timeout(db.get(), busyTimeoutMs);
    sqlite3_stmt* statement = nullptr;
    rc = sqlite3_prepare_v2(db.get(), "PRAGMA user_version", -1, &statement, nullptr);
    std::unique_ptr<sqlite3_stmt, decltype(&sqlite3_finalize)> owned(statement, &sqlite3_finalize);
    if (rc != SQLITE_OK)
        return {std::nullopt, databaseRefusal(db.get(), rc)};
    rc = sqlite3_step(statement);
    if (rc != SQLITE_ROW)
        return {std::nullopt, databaseRefusal(db.get(), rc)};
    return {sqlite3_column_int(statement, 0), {}};
}

// The database of the configuration, opened for a command. A read-only
// command needs an existing, non-empty file, and never creates one, not
// even when the file disappears meanwhile: the library writes its tables
// into an empty file as into a missing one. Every command refuses a file of
// a newer schema rather than work on tables it does not know, and anything
// that is not a regular file, which SQLite would wait on.
std::unique_ptr<Database> openDatabase(Place const& place, bool readOnly)
{
    struct stat status {};
    bool exists = stat(place.databasePath.c_str(), &status) == 0;
    if (readOnly && !exists) {
        reportFailure(place.databasePath, "cannot open the database: " + systemReason());
        return nullptr;
    }
    if (exists && !S_ISREG(status.st_mode)) {
        reportFailure(place.databasePath, std::string("cannot open the database: ") + notRegularFile);
        return nullptr;
    }
    if (readOnly && status.st_size == 0) {
        reportFailure(place.databasePath, "cannot open the database: the file is empty");
        return nullptr;
    }
    if (exists) {
        SchemaVersion schema = schemaVersionOf(place.databasePath);
        if (!schema.version) {
            reportFailure(place.databasePath, schema.refusal);
            return nullptr;
        }
        if (*schema.version > knownSchemaVersion) {
            reportFailure(place.databasePath, "the database has schema version " + std::to_string(*schema.version) +
                                                  ", newer than version " + std::to_string(knownSchemaVersion) +
                                                  " that this command knows");
            return nullptr;
        }
    }
    auto db = std::make_unique<Database>(place.databasePath, place.confPath,
                                         readOnly ? Database::ExistingOnly : Database::CreateIfMissing);
    if (db->queryVersion() != knownSchemaVersion) {
        if (readOnly && stat(place.databasePath.c_str(), &status) != 0)
            reportFailure(place.databasePath, "cannot open the database: " + systemReason());
        else
            reportFailure(place.databasePath, "cannot open the database at schema version " +
                                                  std::to_string(knownSchemaVersion));
        return nullptr;
    }
    return db;
}

using Run = int (*)(DbOptions const& options, Place const& place, Database& db);

// Makes command run on the configuration's database; its status is 1 when
// the database cannot be opened (reported already).
void runOnDatabase(CLI::App& command, std::shared_ptr<DbOptions> const& options, int& status, bool readOnly, Run run)
{
    command.callback([options, &status, readOnly, run] {
        auto place = placeOf(*options);
        auto db = place ? openDatabase(*place, readOnly) : nullptr;
        status = db ? run(*options, *place, *db) : statusFailed;
    });
}

std::string decisionName(PackageSignatures::PackageCheckResult result)
{
    switch (result) {
    case PackageSignatures::Accepted:
        return "accepted";
    case PackageSignatures::NotDeveloperSigned:
        return "not_developer_signed";
    case PackageSignatures::DeveloperMismatch:
        return "developer_mismatch";
    case PackageSignatures::KeySuperseded:
        return "key_superseded";
    case PackageSignatures::KeyBlacklisted:
        return "key_blacklisted";
    }
    return "unknown_" + std::to_string(static_cast<int>(result));
}

std::string revocationName(int status)
{
    switch (status) {
    case Database::Superseded:
        return "superseded";
    case Database::Blacklisted:
        return "blacklisted";
    default:
        return "not revoked";
    }
}

nlohmann::json certificateJson(PackageSignatures::Certificate const& certificate)
{
    return {{"group", PackageSignatures::groupToString(certificate.group())},
            {"subgroup", PackageSignatures::subgroupToString(certificate.subgroup())},
            {"keyId", certificate.keyId()},
            {"subject", certificate.subject()}};
}

std::string certificateLine(nlohmann::json const& certificate)
{
    return certificate["group"].get<std::string>() + " " + certificate["keyId"].get<std::string>() + " " +
           visible(certificate["subject"].get<std::string>());
}

// Which developer-mode file gave the answer, as isDeveloperModeEnabled reads
// them: the runtime file first, then the initial one.
nlohmann::json developerModeJson(Database const& db, Place const& place)
{
    PackageSignatures::Configuration configuration(place.confPath);
    bool enabled = false;
    if (db.readDeveloperModeConfig(Database::Runtime, enabled))
        return {{"enabled", enabled}, {"decidedBy", configuration.developerModeRuntimeConfPath()}};
    if (db.readDeveloperModeConfig(Database::Initial, enabled))
        return {{"enabled", enabled}, {"decidedBy", configuration.developerModeInitialConfPath()}};
    return {{"enabled", false}, {"decidedBy", nullptr}};
}

std::string developerModeLine(nlohmann::json const& mode)
{
    std::string line = std::string("developer mode: ") + (mode["enabled"].get<bool>() ? "on" : "off");
    if (mode["decidedBy"].is_null())
        return line + " (no developer-mode file answers)";
    return line + " (decided by " + mode["decidedBy"].get<std::string>() + ")";
}

int runStatus(DbOptions const& options, Place const& place, Database& db)
{
    std::size_t superseded = 0;
    std::size_t blacklisted = 0;
    for (auto const& keyid : db.revokedKeyids())
        (db.getKeyidRevocationStatus(keyid) == Database::Superseded ? superseded : blacklisted)++;
    nlohmann::json status = {{"configuration", place.confPath},
                             {"database", place.databasePath},
                             {"databaseSchemaVersion", db.queryVersion()},
                             {"developerMode", developerModeJson(db, place)},
                             {"packages", db.packages().size()},
                             {"certificates", db.certificates().size()},
                             {"supersededKeyIds", superseded},
                             {"blacklistedKeyIds", blacklisted}};
    if (options.json) {
        printJson(status);
        return statusOk;
    }
    printLine("configuration: " + place.confPath);
    printLine("database: " + place.databasePath);
    printLine("schema version: " + std::to_string(status["databaseSchemaVersion"].get<int>()));
    printLine(developerModeLine(status["developerMode"]));
    printLine("packages: " + std::to_string(status["packages"].get<std::size_t>()));
    printLine("certificates: " + std::to_string(status["certificates"].get<std::size_t>()));
    printLine("superseded key ids: " + std::to_string(superseded));
    printLine("blacklisted key ids: " + std::to_string(blacklisted));
    return statusOk;
}

// A package file to check or install: the name it is recorded under and
// its signatures, which verify against the configured root CA.
struct VerifiedPackage {
    std::string name;
    std::vector<PackageSignatures::Cms> cmses;
};

// The name the package at path (open as fd) is recorded under: the NAME of
// its RPM header, unless another is given and meant (--other-name). A name
// that merely differs from the header's would let one package's signatures
// stand for another's record. Nothing (reported) when there is none to use.
std::optional<std::string> recordedName(DbOptions const& options, std::string const& path, int fd)
{
    std::optional<std::string> headerName = packageName(fd);
    if (options.nameAndPackage.size() < 2) {
        if (!headerName)
            reportFailure(path, "no package name: it has no RPM header to take one from; give NAME");
        return headerName;
    }
    std::string const& given = options.nameAndPackage.front();
    if (headerName && *headerName != given && !options.otherName) {
        reportFailure(path, "its header names the package " + visible(*headerName) + ", not " + visible(given) +
                                " (give --other-name to record it under another name)");
        return std::nullopt;
    }
    return given;
}

// reason names why there is none.
std::optional<VerifiedPackage> verifiedPackage(DbOptions const& options, Place const& place, std::string& reason)
{
    std::string const& path = options.nameAndPackage.back();
    std::string ca = PackageSignatures::Configuration(place.confPath).caPath();
    std::string refusal;
    auto file = openPackageForReading(path, refusal);
    reason = "unreadable_file";
    if (!file) {
        reportFailure(path, refusal);
        return std::nullopt;
    }
    reason = "package_name_refused";
    std::optional<std::string> name = recordedName(options, path, file->fd());
    if (!name)
        return std::nullopt;
    reason = "not_verified";
    if (!file->verifyCmses(ca.c_str())) {
        std::string why = inputRefusal(ca) == notRegularFile ? std::string(" (") + notRegularFile + ")" : "";
        reportFailure(path, "the signatures do not verify against " + ca + why);
        return std::nullopt;
    }
    return VerifiedPackage{*name, file->cmses()};
}

// The decision on a package with the key ids it rests on.
nlohmann::json admission(Database& db, std::string const& name, std::vector<PackageSignatures::Cms> const& cmses)
{
    auto decision = db.checkPackage(name, cmses, false);
    nlohmann::json result = {{"package", name}, {"decision", decisionName(decision)},
                             {"code", static_cast<int>(decision)}, {"ok", decision == PackageSignatures::Accepted}};
    if (decision != PackageSignatures::Accepted)
        result["reason"] = decisionName(decision);
    auto developer = PackageSignatures::developerCmsFromVector(cmses);
    if (developer) {
        result["signerKeyId"] = developer->certificate()->keyId();
        nlohmann::json previous = nlohmann::json::array();
        if (auto chain = developer->rotationChain())
            for (auto const& keyid : chain->previousKeyids())
                previous.push_back(keyid);
        result["previousKeyIds"] = previous;
    }
    auto installed = db.packageCertificateWithGroup(name, PackageSignatures::Group::Developer);
    result["installedKeyId"] = installed ? nlohmann::json(installed->keyId()) : nlohmann::json(nullptr);
    return result;
}

std::string admissionLine(nlohmann::json const& result)
{
    std::string line = visible(result["package"].get<std::string>()) + ": " + result["decision"].get<std::string>();
    if (result.contains("signerKeyId")) {
        line += " (signer " + result["signerKeyId"].get<std::string>();
        for (auto const& keyid : result["previousKeyIds"])
            line += ", rotated from " + keyid.get<std::string>();
        if (!result["installedKeyId"].is_null())
            line += ", installed " + result["installedKeyId"].get<std::string>();
        line += ")";
    }
    return line;
}

// The admission decision on the package given, with its path and, when
// it is refused, the reason; nothing but the reason when there is no decision.
nlohmann::json checkedPackage(DbOptions const& options, Place const& place, Database& db,
                              std::optional<VerifiedPackage>& package)
{
    std::string const& path = options.nameAndPackage.back();
    FailureNotes notes;
    std::string reason;
    package = verifiedPackage(options, place, reason);
    if (!package)
        return fileResult(path, false, reason, notes.text());
    nlohmann::json result = admission(db, package->name, package->cmses);
    result["path"] = path;
    return result;
}

int runCheck(DbOptions const& options, Place const& place, Database& db)
{
    std::optional<VerifiedPackage> package;
    nlohmann::json result = checkedPackage(options, place, db, package);
    if (options.json)
        printJson(result);
    else if (package)
        printLine(admissionLine(result));
    return result["ok"] ? statusOk : statusFailed;
}

int runInstall(DbOptions const& options, Place const& place, Database& db)
{
    std::optional<VerifiedPackage> package;
    nlohmann::json result = checkedPackage(options, place, db, package);
    result["recorded"] = false;
    if (package) {
        if (!options.json)
            printLine(admissionLine(result));
        if (!result["ok"]) {
            reportFailure(options.nameAndPackage.back(), "not installed: " + result["decision"].get<std::string>());
        } else if (!db.insertPackage(package->name, package->cmses)) {
            reportFailure(place.databasePath, "could not record " + visible(package->name));
            result.update({{"ok", false}, {"reason", "not_recorded"}});
        } else {
            result["recorded"] = true;
            if (!options.json)
                printLine(visible(package->name) + ": recorded");
        }
    }
    if (options.json)
        printJson(result);
    return result["recorded"] ? statusOk : statusFailed;
}

int runRemove(DbOptions const& options, Place const& place, Database& db)
{
    bool existed = db.packageExists(options.name);
    if (!db.removePackage(options.name)) {
        reportFailure(place.databasePath, "could not remove " + visible(options.name));
        return statusFailed;
    }
    if (options.json)
        printJson({{"package", options.name}, {"removed", existed}});
    else
        printLine(visible(options.name) + (existed ? ": removed" : ": was not recorded"));
    return statusOk;
}

int runList(DbOptions const& options, Place const& /*place*/, Database& db)
{
    nlohmann::json packages = nlohmann::json::array();
    for (auto const& name : db.packages()) {
        nlohmann::json signers = nlohmann::json::array();
        for (auto const& certificate : db.packageCertificates(name))
            signers.push_back(certificateJson(certificate));
        packages.push_back({{"name", name}, {"signers", signers}});
    }
    if (options.json) {
        printJson({{"packages", packages}});
        return statusOk;
    }
    for (auto const& package : packages) {
        printLine(visible(package["name"].get<std::string>()));
        for (auto const& signer : package["signers"])
            printLine("  " + certificateLine(signer));
    }
    return statusOk;
}

int runCertificates(DbOptions const& options, Place const& /*place*/, Database& db)
{
    nlohmann::json certificates = nlohmann::json::array();
    for (auto const& certificate : options.active ? db.activeCertificates() : db.certificates())
        certificates.push_back(certificateJson(certificate));
    if (options.json) {
        printJson({{"certificates", certificates}});
        return statusOk;
    }
    for (auto const& certificate : certificates)
        printLine(certificateLine(certificate));
    return statusOk;
}

Database::RevocationType revocationType(DbOptions const& options)
{
    return options.blacklisted ? Database::Blacklisted : Database::Superseded;
}

int changeRevocation(DbOptions const& options, Place const& place, Database& db, bool insert)
{
    auto type = revocationType(options);
    bool done = insert ? db.insertRevokedKeyid(options.keyid, type) : db.removeRevokedKeyid(options.keyid, type);
    if (!done) {
        reportFailure(place.databasePath, "could not change key id " + visible(options.keyid));
        return statusFailed;
    }
    int status = db.getKeyidRevocationStatus(options.keyid);
    bool revoked = status == Database::Superseded || status == Database::Blacklisted;
    if (options.json)
        printJson({{"keyId", options.keyid},
                   {"revoked", revoked},
                   {"type", revoked ? nlohmann::json(revocationName(status)) : nlohmann::json(nullptr)}});
    else
        printLine(visible(options.keyid) + ": " + revocationName(status));
    return statusOk;
}

int runRevoke(DbOptions const& options, Place const& place, Database& db)
{
    return changeRevocation(options, place, db, true);
}

int runUnrevoke(DbOptions const& options, Place const& place, Database& db)
{
    return changeRevocation(options, place, db, false);
}

int runRevoked(DbOptions const& options, Place const& /*place*/, Database& db)
{
    nlohmann::json keyids = nlohmann::json::array();
    for (auto const& keyid : db.revokedKeyids())
        keyids.push_back({{"keyId", keyid}, {"type", revocationName(db.getKeyidRevocationStatus(keyid))}});
    if (options.json) {
        printJson({{"revoked", keyids}});
        return statusOk;
    }
    for (auto const& keyid : keyids)
        printLine(visible(keyid["keyId"].get<std::string>()) + " " + keyid["type"].get<std::string>());
    return statusOk;
}

int runSync(DbOptions const& options, Place const& place, Database& db)
{
    bool enabled = db.isDeveloperModeEnabled();
    if (!db.updateRevokedKeyids()) {
        reportFailure(PackageSignatures::Configuration(place.confPath).revocationConfPath(),
                      "could not apply the revocation file");
        return statusFailed;
    }
    if (options.json)
        printJson({{"updated", true}, {"developerMode", developerModeJson(db, place)}});
    else
        printLine(std::string("revoked key ids updated (developer mode ") + (enabled ? "on" : "off") + ")");
    return statusOk;
}

int runDeveloperMode(DbOptions const& options, Place const& place, Database& db)
{
    nlohmann::json mode = developerModeJson(db, place);
    if (options.json)
        printJson(mode);
    else
        printLine(developerModeLine(mode));
    return statusOk;
}

CLI::App* addDbSubcommand(CLI::App& db, char const* name, char const* description, DbOptions& options)
{
    CLI::App* command = db.add_subcommand(name, description);
    command->add_option("--conf", options.conf, "Configuration file (default /etc/sealkeep/sealkeep.conf under $SEALKEEP_ROOTFS)");
    command->add_flag("--json", options.json, "Print as JSON");
    return command;
}

}  // namespace

void addDbCommands(CLI::App& app, int& status)
{
    auto options = std::make_shared<DbOptions>();
    CLI::App* db = app.add_subcommand("db", "Inspect and drive the device's trust database");
    db->require_subcommand(1);

    auto* statusCommand = addDbSubcommand(*db, "status", "Configuration, schema, developer mode and counts", *options);
    runOnDatabase(*statusCommand, options, status, true, runStatus);

    for (bool install : {false, true}) {
        auto* command = addDbSubcommand(*db, install ? "install" : "check",
                                        install ? "Verify and check a package, and record it when accepted"
                                                : "Verify a package and ask whether it may be installed",
                                        *options);
        // [NAME] PACKAGE: one word is the package.
        command->add_option("package", options->nameAndPackage,
                            "[NAME] PACKAGE: the package name (default: the NAME of its RPM header) and the "
                            "signed package file")
            ->expected(1, 2)
            ->required();
        command->add_flag("--other-name", options->otherName,
                          "Record the package under NAME although its header names it otherwise");

        if (install) {
            runOnDatabase(*command, options, status, false, runInstall);
        } else {
            runOnDatabase(*command, options, status, true, runCheck);
        }
    }

    auto* remove = addDbSubcommand(*db, "remove", "Forget an installed package", *options);
    remove->add_option("name", options->name, "Package name")->required();
    runOnDatabase(*remove, options, status, false, runRemove);

    auto* list = addDbSubcommand(*db, "list", "Installed packages with their signers", *options);
    runOnDatabase(*list, options, status, true, runList);

    auto* certificates = addDbSubcommand(*db, "certificates", "Recorded certificates", *options);
    certificates->add_flag("--active", options->active, "Only those that sign a package and are not blacklisted");
    runOnDatabase(*certificates, options, status, true, runCertificates);

    for (bool insert : {true, false}) {
        auto* command = addDbSubcommand(*db, insert ? "revoke" : "unrevoke",
                                        insert ? "Record a key id as superseded or blacklisted"
                                               : "Remove a key id's superseded or blacklisted entry",
                                        *options);
        command->add_option("keyid", options->keyid, "Key id")->required();
        auto* type = command->add_option_group("type", "Exactly one of");
        type->add_flag("--superseded", options->superseded, "Superseded by a rotation");
        type->add_flag("--blacklisted", options->blacklisted, "Blacklisted");
        type->require_option(1);
        runOnDatabase(*command, options, status, false, insert ? runRevoke : runUnrevoke);
    }

    auto* revoked = addDbSubcommand(*db, "revoked", "Revoked key ids", *options);
    runOnDatabase(*revoked, options, status, true, runRevoked);

    auto* sync = addDbSubcommand(*db, "sync", "Apply the revocation file according to developer mode", *options);
    runOnDatabase(*sync, options, status, false, runSync);

    auto* mode = addDbSubcommand(*db, "developer-mode", "Whether developer mode is on, and which file says so", *options);
    runOnDatabase(*mode, options, status, true, runDeveloperMode);
}

}  // namespace sealkeep::cli
