// sealkeep ima apply: puts the per-file IMA signatures of a package's
// developer signature onto the files the package installed under a root
// directory, as the extended attribute the kernel (or evmctl) reads. A file
// gets its value only when its content still matches the signed digest, so
// that a changed file is never labelled as the developer's, and only when
// the package's signatures verify against the device's CA. Every regular
// file of the package must get its value: one left without (its record
// missing, its content changed) fails the command. Each file is reached from
// the root without following links, measured before it is read, and checked
// and labelled through the same descriptor.
#include <sys/stat.h>
#include <sys/xattr.h>
#include <unistd.h>

#include <array>
#include <cstdint>
#include <cerrno>
#include <memory>
#include <optional>
#include <string>
#include <vector>

#include <openssl/evp.h>
#include <openssl/obj_mac.h>
#include <openssl/x509.h>

#include <CLI/CLI.hpp>
#include <nlohmann/json.hpp>

#include <sealkeep/sealkeep.hpp>

#include "cli.hpp"
#include "input_file.hpp"
#include "json_output.hpp"
#include "owned.hpp"
#include "package_files.hpp"
#include "rooted_file.hpp"
#include "signed_attributes.hpp"
#include "signature_records.hpp"
#include "terminal_text.hpp"
#include "verification_text.hpp"

namespace sealkeep::cli {
namespace {

struct ImaOptions {
    std::string package;
    std::string root;
    std::string ca;    // empty: the configuration's root CA
    std::string conf;  // empty: the default configuration file
    bool xattrUser = false;
    bool dryRun = false;
    bool json = false;
};

// The digest of the first limit bytes read from fd (fewer when it ends
// sooner); nothing (errno set) when it cannot be read. A file that grows
// while it is read costs no more than its packaged size.
std::optional<std::vector<unsigned char>> fileDigest(int fd, EVP_MD const* md, std::uint64_t limit)
{
    MdCtxPtr context(EVP_MD_CTX_new());
    if (!context || EVP_DigestInit_ex(context.get(), md, nullptr) != 1)
        return std::nullopt;
    std::array<unsigned char, 65536> buffer;
    std::uint64_t left = limit;
    while (left > 0) {
        std::size_t piece = left < buffer.size() ? static_cast<std::size_t>(left) : buffer.size();
        ssize_t got = read(fd, buffer.data(), piece);
        if (got < 0 && errno == EINTR)
            continue;
        if (got < 0)
            return std::nullopt;
        if (got == 0)
            break;
        if (EVP_DigestUpdate(context.get(), buffer.data(), static_cast<std::size_t>(got)) != 1)
            return std::nullopt;
        left -= static_cast<std::uint64_t>(got);
    }
    std::vector<unsigned char> digest(EVP_MAX_MD_SIZE);
    unsigned int length = 0;
    if (EVP_DigestFinal_ex(context.get(), digest.data(), &length) != 1)
        return std::nullopt;
    digest.resize(length);
    return digest;
}

// Whether fd still has bytes to read: the file grew after it was measured.
bool hasMore(int fd)
{
    unsigned char byte = 0;
    ssize_t got;
    do
        got = read(fd, &byte, 1);
    while (got < 0 && errno == EINTR);
    return got > 0;
}

// Why the open file fd may not carry the record bytes, signed by key; empty
// when it may: the record's signature must verify over the digest of the
// content found there now.
std::string signatureRefusal(int fd, std::uint64_t size, std::vector<unsigned char> const& bytes, EVP_PKEY* key)
{
    auto record = decodeImaRecord(bytes.data(), bytes.size());
    if (!record)
        return "the package's record for it is not an IMA signature record";
    EVP_MD const* md = record->hashNid == NID_undef ? nullptr : EVP_get_digestbynid(record->hashNid);
    if (!md)
        return "the record's hash algorithm " + record->hashAlgorithm + " is not supported";
    auto digest = fileDigest(fd, md, size);
    if (!digest)
        return "cannot read: " + systemReason();
    if (hasMore(fd))
        return "changed since it was signed";
    PkeyCtxPtr context(EVP_PKEY_CTX_new(key, nullptr));
    if (!context || EVP_PKEY_verify_init(context.get()) != 1 ||
        EVP_PKEY_CTX_set_signature_md(context.get(), md) != 1)
        return "cannot verify its signature";
    if (EVP_PKEY_verify(context.get(), record->signature.data(), record->signature.size(), digest->data(),
                        digest->size()) != 1)
        return "changed since it was signed";
    return {};
}

// Why the file open as fd is not the one the package installed, judged from
// what fstat tells before a byte is read: its size must be the header's, so
// that a huge or sparse file costs nothing, and it may have no hard link
// beyond those the package makes, since the label would land on every name
// of the inode, inside the root or out of it. Empty when it may be checked.
std::string installationRefusal(int fd, PackageFile const& packaged)
{
    struct stat status {};
    if (fstat(fd, &status) != 0)
        return "cannot read: " + systemReason();
    if (static_cast<std::uint64_t>(status.st_size) != packaged.size)
        return "its size (" + countOf(static_cast<std::size_t>(status.st_size), "byte") +
               ") is not the package's (" + countOf(static_cast<std::size_t>(packaged.size), "byte") + ")";
    if (static_cast<std::uint64_t>(status.st_nlink) > packaged.links)
        return "hard-linked from outside the package (" + std::to_string(status.st_nlink) +
               " links, the package makes " + std::to_string(packaged.links) + ")";
    return {};
}

// How files are labelled: under which root, checked with which key, with
// which attribute, whether for real, and whether the results are printed as
// text as they come.
struct Labelling {
    int root;
    EVP_PKEY* key;
    char const* attribute;
    bool dryRun;
    bool text;
};

// A file refused: reported, and its result (not ok) added to files.
bool refuse(std::string const& path, std::string const& reason, std::string const& why, nlohmann::json& files)
{
    reportFailure(visible(path), why);
    files.push_back(fileResult(path, false, reason, why));
    return false;
}

// Checks and labels the file the package installed as name; false (and
// reported) when it is refused. The file is checked and labelled through one
// descriptor, reached from the root without following any link: what is
// labelled is what was checked, and nothing outside the root.
bool label(Labelling const& how, std::string const& root, PackageFile const& packaged,
           std::vector<unsigned char> const& record, nlohmann::json& files)
{
    std::string path = root + packaged.name;
    RootedFile file = openUnderRoot(how.root, packaged.name);
    std::string refusal = file.fd ? installationRefusal(file.fd.get(), packaged) : file.refusal;
    if (refusal.empty())
        refusal = signatureRefusal(file.fd.get(), packaged.size, record, how.key);
    if (!refusal.empty())
        return refuse(path, "not_labelled", refusal, files);
    if (!how.dryRun && fsetxattr(file.fd.get(), how.attribute, record.data(), record.size(), 0) != 0)
        return refuse(path, "not_labelled", std::string("cannot set ") + how.attribute + ": " + systemReason(), files);
    nlohmann::json result = fileResult(path, true);
    result["bytes"] = record.size();
    files.push_back(std::move(result));
    if (how.text && how.dryRun)
        printLine(visible(path) + ": would set " + how.attribute + " (" + countOf(record.size(), "byte") + ")");
    else if (how.text)
        printLine(visible(path) + ": " + how.attribute + " set");
    return true;
}

// The CA the package's signatures must chain to: --ca, else the root CA
// that the device's configuration names.
std::string caOf(ImaOptions const& options)
{
    if (!options.ca.empty())
        return options.ca;
    return options.conf.empty() ? PackageSignatures::Configuration().caPath()
                                : PackageSignatures::Configuration(options.conf).caPath();
}

// The developer signature of the package open as file, once the whole stack
// verifies against the CA; nothing (reported) otherwise. Records signed by a
// certificate the device does not trust label nothing.
std::optional<PackageSignatures::Cms> trustedDeveloperSignature(ImaOptions const& options,
                                                                PackageSignatures::FileWithCmses& file)
{
    if (!options.conf.empty()) {
        InputFile configuration = openInput(options.conf);
        if (!configuration.fd) {
            reportFailure(options.conf, "cannot read the configuration: " + configuration.reason);
            return std::nullopt;
        }
    }
    std::string ca = caOf(options);
    if (ca.empty()) {
        reportFailure(options.package, "no CA to verify it against: give --ca, or root_ca_cert_path in the configuration");
        return std::nullopt;
    }
    PackageSignatures::VerificationReport report = file.verificationReport(ca.c_str());
    if (!report.verified()) {
        reportFailure(options.package, "the signatures do not verify against " + ca + ": " +
                                           verificationRefusal(report, ca));
        return std::nullopt;
    }
    auto developer = PackageSignatures::developerCmsFromVector(file.cmses());
    if (!developer) {
        reportFailure(options.package, "no developer signature");
        return std::nullopt;
    }
    // Signed without per-file signatures, the package has nothing to apply;
    // saying so beats labelling no file and reporting success.
    if (!hasSignedAttribute(developer->parsed(), "packageFileSignatures")) {
        reportFailure(options.package, "the developer signature carries no per-file IMA signatures");
        return std::nullopt;
    }
    return developer;
}

int runApply(ImaOptions const& options, nlohmann::json& result)
{
    std::string refusal;
    auto file = openPackageForReading(options.package, refusal);
    if (!file) {
        reportFailure(options.package, refusal);
        return statusFailed;
    }
    auto developer = trustedDeveloperSignature(options, *file);
    if (!developer)
        return statusFailed;
    auto certificate = developer->certificate();
    PkeyPtr key(certificate && certificate->get() ? X509_get_pubkey(certificate->get()) : nullptr);
    if (!key) {
        reportFailure(options.package, "the developer signature has no readable certificate");
        return statusFailed;
    }
    auto files = packageFiles(file->fd());
    if (!files || files->empty()) {
        reportFailure(options.package, "not an RPM package, or one without files");
        return statusFailed;
    }
    UniqueFd root = openRoot(options.root);
    if (!root) {
        reportFailure(options.root, "cannot open the root directory: " + systemReason());
        return statusFailed;
    }
    Labelling how{root.get(), key.get(), options.xattrUser ? "user.ima" : "security.ima", options.dryRun,
                  !options.json};
    std::size_t written = 0;
    std::size_t refused = 0;
    nlohmann::json labelled = nlohmann::json::array();
    for (std::size_t index = 0; index < files->size(); ++index) {
        PackageFile const& packaged = (*files)[index];
        if (!S_ISREG(packaged.mode) || packaged.ghost)
            continue;
        std::vector<unsigned char> record = developer->fileSignature(static_cast<int>(index));
        if (record.empty()) {
            // A trusted application carries its own signed header instead.
            // Any other regular file without its record would stay
            // unreadable on a device that enforces appraisal: the payload
            // was cut short or could not be read when it was signed.
            if (isTrustedApplicationName(packaged.name))
                continue;
            refuse(options.root + packaged.name, "no_signature", "no signature in the package", labelled);
            ++refused;
            continue;
        }
        (label(how, options.root, packaged, record, labelled) ? written : refused)++;
    }
    result = fileResult(options.package, refused == 0, "files_refused", countOf(refused, "file") + " refused");
    result.update({{"root", options.root}, {"attribute", how.attribute}, {"dryRun", options.dryRun},
                   {"labelled", written}, {"refused", refused}, {"files", labelled}});
    if (!options.json)
        printLine(countOf(written, "file") + (options.dryRun ? " to label, " : " labelled, ") +
                  std::to_string(refused) + " refused");
    return refused == 0 ? statusOk : statusFailed;
}

}  // namespace

void addImaCommands(CLI::App& app, int& status)
{
    auto options = std::make_shared<ImaOptions>();
    CLI::App* ima = app.add_subcommand("ima", "Put a package's per-file IMA signatures onto installed files");
    ima->require_subcommand(1);
    CLI::App* apply = ima->add_subcommand("apply", "Write each file's IMA signature as its extended attribute");
    apply->add_option("package", options->package, "Signed package")->required();
    apply->add_option("--root", options->root, "Directory the package's files were installed under")->required();
    apply->add_option("--ca", options->ca, "CA certificates (PEM) the signatures must chain to (default: the configuration's root CA)");
    apply->add_option("--conf", options->conf, "Configuration file naming the root CA (default /etc/sealkeep/sealkeep.conf under $SEALKEEP_ROOTFS)");
    apply->add_flag("--xattr-user", options->xattrUser, "Write user.ima instead of security.ima");
    apply->add_flag("--dry-run", options->dryRun, "List what would be written, write nothing");
    apply->add_flag("--json", options->json, "Print the results as JSON");
    apply->callback([options, &status] {
        status = runWithResult(options->json, options->package, "not_applied",
                               [&](nlohmann::json& result) { return runApply(*options, result); });
    });
}

}  // namespace sealkeep::cli
