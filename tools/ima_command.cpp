// sealkeep ima apply: puts the per-file IMA signatures of a package's
// developer signature onto the files the package installed under a root
// directory, as the extended attribute the kernel (or evmctl) reads. A file
// gets its value only when its content still matches the signed digest, so
// that a changed file is never labelled as the developer's. Each file is
// reached from the root without following links, and checked and labelled
// through the same descriptor.
#include <sys/xattr.h>
#include <unistd.h>

#include <array>
#include <cerrno>
#include <memory>
#include <optional>
#include <string>
#include <vector>

#include <openssl/evp.h>
#include <openssl/obj_mac.h>
#include <openssl/x509.h>

#include <CLI/CLI.hpp>

#include <sealkeep/sealkeep.hpp>

#include "cli.hpp"
#include "owned.hpp"
#include "package_files.hpp"
#include "rooted_file.hpp"
#include "signed_attributes.hpp"
#include "signature_records.hpp"

namespace sealkeep::cli {
namespace {

struct ImaOptions {
    std::string package;
    std::string root;
    bool xattrUser = false;
    bool dryRun = false;
};

// The digest of what remains to be read from fd; nothing (errno set) when it
// cannot be read.
std::optional<std::vector<unsigned char>> fileDigest(int fd, EVP_MD const* md)
{
    MdCtxPtr context(EVP_MD_CTX_new());
    if (!context || EVP_DigestInit_ex(context.get(), md, nullptr) != 1)
        return std::nullopt;
    std::array<unsigned char, 65536> buffer;
    for (;;) {
        ssize_t got = read(fd, buffer.data(), buffer.size());
        if (got < 0 && errno == EINTR)
            continue;
        if (got < 0)
            return std::nullopt;
        if (got == 0)
            break;
        if (EVP_DigestUpdate(context.get(), buffer.data(), static_cast<std::size_t>(got)) != 1)
            return std::nullopt;
    }
    std::vector<unsigned char> digest(EVP_MAX_MD_SIZE);
    unsigned int length = 0;
    if (EVP_DigestFinal_ex(context.get(), digest.data(), &length) != 1)
        return std::nullopt;
    digest.resize(length);
    return digest;
}

// Why the open file fd may not carry the record bytes, signed by key; empty
// when it may: the record's signature must verify over the digest of the
// content found there now.
std::string refusalOf(int fd, std::vector<unsigned char> const& bytes, EVP_PKEY* key)
{
    auto record = decodeImaRecord(bytes.data(), bytes.size());
    if (!record)
        return "the package's record for it is not an IMA signature record";
    EVP_MD const* md = record->hashNid == NID_undef ? nullptr : EVP_get_digestbynid(record->hashNid);
    if (!md)
        return "the record's hash algorithm " + record->hashAlgorithm + " is not supported";
    auto digest = fileDigest(fd, md);
    if (!digest)
        return "cannot read: " + systemReason();
    PkeyCtxPtr context(EVP_PKEY_CTX_new(key, nullptr));
    if (!context || EVP_PKEY_verify_init(context.get()) != 1 ||
        EVP_PKEY_CTX_set_signature_md(context.get(), md) != 1)
        return "cannot verify its signature";
    if (EVP_PKEY_verify(context.get(), record->signature.data(), record->signature.size(), digest->data(),
                        digest->size()) != 1)
        return "changed since it was signed";
    return {};
}

// How files are labelled: under which root, checked with which key, with
// which attribute, and whether for real.
struct Labelling {
    int root;
    EVP_PKEY* key;
    char const* attribute;
    bool dryRun;
};

// Checks and labels the file the package installed as name; false (and
// reported) when it is refused. The file is checked and labelled through one
// descriptor, reached from the root without following any link: what is
// labelled is what was checked, and nothing outside the root.
bool label(Labelling const& how, std::string const& root, std::string const& name,
           std::vector<unsigned char> const& record)
{
    std::string path = root + name;
    RootedFile file = openUnderRoot(how.root, name);
    std::string refusal = file.fd ? refusalOf(file.fd.get(), record, how.key) : file.refusal;
    if (!refusal.empty()) {
        reportFailure(path, refusal);
        return false;
    }
    if (how.dryRun) {
        printLine(path + ": would set " + how.attribute + " (" + countOf(record.size(), "byte") + ")");
        return true;
    }
    if (fsetxattr(file.fd.get(), how.attribute, record.data(), record.size(), 0) != 0) {
        reportFailure(path, std::string("cannot set ") + how.attribute + ": " + systemReason());
        return false;
    }
    printLine(path + ": " + how.attribute + " set");
    return true;
}

int runApply(ImaOptions const& options)
{
    auto file = PackageSignatures::FileWithCmses::fromPath(options.package.c_str(), "r");
    if (!file) {
        reportFailure(options.package, "cannot open: " + systemReason());
        return statusFailed;
    }
    auto developer = PackageSignatures::developerCmsFromVector(file->cmses());
    if (!developer) {
        reportFailure(options.package, "no developer signature");
        return statusFailed;
    }
    // Signed without per-file signatures, the package has nothing to apply;
    // saying so beats labelling no file and reporting success.
    if (!hasSignedAttribute(developer->parsed(), "packageFileSignatures")) {
        reportFailure(options.package, "the developer signature carries no per-file IMA signatures");
        return statusFailed;
    }
    auto certificate = developer->certificate();
    PkeyPtr key(certificate && certificate->get() ? X509_get_pubkey(certificate->get()) : nullptr);
    if (!key) {
        reportFailure(options.package, "the developer signature has no readable certificate");
        return statusFailed;
    }
    std::vector<std::string> names = packageFileNames(options.package);
    if (names.empty()) {
        reportFailure(options.package, "not an RPM package, or one without files");
        return statusFailed;
    }
    UniqueFd root = openRoot(options.root);
    if (!root) {
        reportFailure(options.root, "cannot open the root directory: " + systemReason());
        return statusFailed;
    }
    Labelling how{root.get(), key.get(), options.xattrUser ? "user.ima" : "security.ima", options.dryRun};
    std::size_t written = 0;
    std::size_t refused = 0;
    for (std::size_t index = 0; index < names.size(); ++index) {
        std::vector<unsigned char> record = developer->fileSignature(static_cast<int>(index));
        if (record.empty())
            continue;
        (label(how, options.root, names[index], record) ? written : refused)++;
    }
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
    apply->add_flag("--xattr-user", options->xattrUser, "Write user.ima instead of security.ima");
    apply->add_flag("--dry-run", options->dryRun, "List what would be written, write nothing");
    apply->callback([options, &status] { status = runApply(*options); });
}

}  // namespace sealkeep::cli
