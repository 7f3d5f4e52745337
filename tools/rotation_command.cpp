// sealkeep rotate / rotation show: proofs that a signer's new key succeeds
// its old one, chained oldest first in a PEM file. Both keys may be PEM files
// or keys held by an engine; each must be its certificate's, and the new key
// must differ from the old one.
#include <cerrno>
#include <fstream>
#include <memory>
#include <optional>
#include <string>

#include <CLI/CLI.hpp>
#include <nlohmann/json.hpp>
#include <openssl/err.h>
#include <openssl/pem.h>

#include <sealkeep/sealkeep.hpp>

#include "cli.hpp"
#include "input_file.hpp"
#include "json_output.hpp"
#include "key_checks.hpp"
#include "key_source.hpp"
#include "owned.hpp"
#include "pending_output.hpp"
#include "terminal_text.hpp"

namespace sealkeep::cli {
namespace {

using nlohmann::json;

struct RotateOptions {
    std::string chain;
    std::string oldCert, newCert;
    KeyOption oldKey, newKey;
    EngineOptions engine;
    bool append = false;
    bool json = false;
};

// One side of the rotation: a certificate and its key, checked to belong
// together.
struct RotationSide {
    X509Ptr certificate;
    PkeyPtr key;
};

std::optional<RotationSide> loadSide(std::string const& certOption, std::string const& certPath,
                                     KeyOption const& keyOption, std::shared_ptr<Engine> const& engine, int& status)
{
    RotationSide side;
    status = statusFailed;
    side.certificate.reset(certificate_read(certPath.c_str()));
    if (!side.certificate) {
        reportFailure(certOption + " " + certPath, "cannot read the certificate");
        return std::nullopt;
    }
    auto source = KeySource::of(keyOption, engine, status);
    if (!source)
        return std::nullopt;
    side.key = source->load();
    if (!side.key)
        return std::nullopt;
    if (!keyBelongsTo(side.key.get(), source->inEngine(), side.certificate.get())) {
        reportFailure(source->label(), "not the key of the certificate given with " + certOption + " " + certPath);
        return std::nullopt;
    }
    status = statusOk;
    return side;
}

std::string groupText(GroupReading const& reading)
{
    return reading.problem.empty() ? PackageSignatures::groupToString(reading.group) : "none";
}

// A rotation to the same key would mark the signer's own key superseded on
// every device that installs a package carrying it.
bool rotatesToAnotherKey(RotateOptions const& options, X509* oldCert, X509* newCert)
{
    std::string oldId = keyIdOf(oldCert);
    if (oldId.empty() || oldId != keyIdOf(newCert))
        return true;
    std::string why = "the new certificate carries the same key id as the old one (" + oldId +
                      "); a rotation must change the key";
    GroupReading oldGroup = readGroup(oldCert);
    GroupReading newGroup = readGroup(newCert);
    if (oldGroup.group != newGroup.group)
        why += " (the groups differ: " + groupText(oldGroup) + " and " + groupText(newGroup) +
               "; a new group needs a new certificate, not a rotation)";
    reportFailure("--new-cert " + options.newCert, why);
    return false;
}

// The chain to extend: the existing one with --append, else an empty one.
ChainPtr startingChain(RotateOptions const& options)
{
    if (!options.append)
        return ChainPtr(sk_ProofOfRotation_new_null());
    ChainPtr chain(ProofOfRotationChain_read(options.chain.c_str()));
    if (!chain)
        reportFailure(options.chain, "cannot read the rotation chain");
    return chain;
}

// Appends the proof old -> new and checks the whole chain; reports and
// returns false when it cannot.
bool appendProof(ProofOfRotationChain* chain, RotationSide const& oldSide, RotationSide const& newSide,
                 std::string const& path)
{
    ProofOfRotation* proof = ProofOfRotation_create(oldSide.certificate.get(), oldSide.key.get(),
                                                    newSide.certificate.get(), newSide.key.get());
    if (!proof || sk_ProofOfRotation_push(chain, proof) == 0) {
        ProofOfRotation_free(proof);
        reportFailure(path, "rotation not recorded: the proof could not be made");
        return false;
    }
    if (ProofOfRotationChain_verify(chain) != 1) {
        reportFailure(path, "rotation not recorded: the chain does not verify with it");
        return false;
    }
    return true;
}

bool writeChain(ProofOfRotationChain* chain, std::string const& path)
{
    BioPtr out(BIO_new_file(path.c_str(), "w"));
    bool written = out && PEM_write_bio_ProofOfRotationChain(out.get(), chain) == 1 && BIO_flush(out.get()) == 1;
    ERR_clear_error();
    return written;
}

struct ShowOptions {
    std::string chain;
    bool json = false;
};

json describeCertificate(std::shared_ptr<PackageSignatures::Certificate> const& certificate)
{
    if (!certificate)
        return {{"subject", ""}, {"keyId", ""}};
    return {{"subject", certificate->subject()}, {"keyId", certificate->keyId()}};
}

// The chain at path, read without a word on failure: what the library wrote
// is checked before it replaces anything.
ChainPtr readChainQuietly(std::string const& path)
{
    BioPtr bio(BIO_new_file(path.c_str(), "r"));
    ChainPtr chain(bio ? PEM_read_bio_ProofOfRotationChain(bio.get(), nullptr, nullptr, nullptr) : nullptr);
    ERR_clear_error();
    return chain;
}

// The chain is written beside its destination and moved into place only
// when complete, so that a failure leaves an existing chain as it was.
int runRotate(RotateOptions const& options, json& result)
{
    // Looked at without blocking: a FIFO in place of the chain is refused.
    InputFile existing = openInput(options.chain);
    bool exists = existing.fd || existing.error != ENOENT;
    if (options.append && !existing.fd) {
        reportFailure(options.chain, "cannot append to the chain: " + existing.reason);
        return statusFailed;
    }
    if (!options.append && exists) {
        reportFailure(options.chain, "already exists (use --append to add a rotation to it)");
        return statusFailed;
    }
    int status = statusOk;
    auto engine = startEngine(options.engine, status);
    if (!engine)
        return status;
    auto oldSide = loadSide("--old-cert", options.oldCert, options.oldKey, *engine, status);
    if (!oldSide)
        return status;
    auto newSide = loadSide("--new-cert", options.newCert, options.newKey, *engine, status);
    if (!newSide)
        return status;
    if (!rotatesToAnotherKey(options, oldSide->certificate.get(), newSide->certificate.get()))
        return statusFailed;
    ChainPtr extended = startingChain(options);
    if (!extended || !appendProof(extended.get(), *oldSide, *newSide, options.chain))
        return statusFailed;
    std::string why;
    auto output = PendingOutput::create(options.chain, why);
    if (!output) {
        reportFailure(options.chain, why);
        return statusFailed;
    }
    if (!writeChain(extended.get(), output->path())) {
        reportFailure(options.chain, "rotation not recorded: " + systemReason());
        return statusFailed;
    }
    ChainPtr chain = readChainQuietly(output->path());
    if (!chain) {
        reportFailure(options.chain, "rotation not recorded: what was written does not read back as a chain");
        return statusFailed;
    }
    if (!output->commit()) {
        reportFailure(options.chain, "rotation not written: " + systemReason());
        return statusFailed;
    }
    result = fileResult(options.chain, true);
    result.update({{"rotations", ProofOfRotationChain_count(chain.get())},
                   {"newestKeyId", keyIdOf(newSide->certificate.get())}});
    if (!options.json)
        printLine(options.chain + ": " + countOf(result["rotations"].get<std::size_t>(), "rotation") +
                  ", newest key " + result["newestKeyId"].get<std::string>());
    return statusOk;
}

int runShow(ShowOptions const& options, json& result)
{
    std::string unreadable = inputRefusal(options.chain);
    if (unreadable == notRegularFile) {
        reportFailure(options.chain, unreadable);
        return statusFailed;
    }
    ChainPtr chain(ProofOfRotationChain_read(options.chain.c_str()));
    if (!chain) {
        reportFailure(options.chain, "cannot read the rotation chain");
        return statusFailed;
    }
    bool verified = ProofOfRotationChain_verify(chain.get()) == 1;
    json rotations = json::array();
    for (auto const& rotation : PackageSignatures::RotationChain(chain.get()).rotations())
        rotations.push_back({{"old", describeCertificate(rotation->oldCertificate())},
                             {"new", describeCertificate(rotation->newCertificate())}});
    result = fileResult(options.chain, verified, "rotation_chain_invalid", "the rotation chain does not verify");
    result["rotations"] = rotations;
    if (!options.json) {
        printLine(options.chain + ": " + countOf(rotations.size(), "rotation") + ", " +
                  (verified ? "every proof verifies" : "DOES NOT VERIFY"));
        int n = 0;
        for (auto const& rotation : rotations)
            printLine("  " + std::to_string(++n) + ": \"" + visible(rotation["old"]["subject"].get<std::string>()) +
                      "\" " + rotation["old"]["keyId"].get<std::string>() + " -> \"" +
                      visible(rotation["new"]["subject"].get<std::string>()) + "\" " +
                      rotation["new"]["keyId"].get<std::string>());
    }
    if (!verified) {
        reportFailure(options.chain, "the rotation chain does not verify");
        return statusFailed;
    }
    return statusOk;
}

}  // namespace

void addRotationCommands(CLI::App& app, int& status)
{
    auto rotate = std::make_shared<RotateOptions>();
    CLI::App* rotateCommand = app.add_subcommand("rotate", "Record that a new signer key succeeds the old one");
    rotateCommand->add_option("chain", rotate->chain, "Rotation chain to write (PEM)")->required();
    rotateCommand->add_option("--old-cert", rotate->oldCert, "Certificate of the old key")->required();
    addKeyOption(*rotateCommand, rotate->oldKey, "--old-key", "--old-pass", "Old private key")->required();
    rotateCommand->add_option("--new-cert", rotate->newCert, "Certificate of the new key")->required();
    addKeyOption(*rotateCommand, rotate->newKey, "--new-key", "--new-pass", "New private key")->required();
    addEngineOptions(*rotateCommand, rotate->engine);
    rotateCommand->add_flag("--append", rotate->append, "Add the rotation to the existing chain");
    rotateCommand->add_flag("--json", rotate->json, "Print the result as JSON");
    rotateCommand->callback([rotate, &status] {
        status = runWithResult(rotate->json, rotate->chain, "not_recorded",
                               [&](json& result) { return runRotate(*rotate, result); });
    });

    CLI::App* rotation = app.add_subcommand("rotation", "Work with rotation chains");
    rotation->require_subcommand(1);
    auto show = std::make_shared<ShowOptions>();
    CLI::App* showCommand = rotation->add_subcommand("show", "Show and check a rotation chain");
    showCommand->add_option("chain", show->chain, "Rotation chain (PEM)")->required();
    showCommand->add_flag("--json", show->json, "Print the chain as JSON");
    showCommand->callback([show, &status] {
        status = runWithResult(show->json, show->chain, "unreadable_file",
                               [&](json& result) { return runShow(*show, result); });
    });
}

}  // namespace sealkeep::cli
