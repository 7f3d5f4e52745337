// sealkeep rotate / rotation show: proofs that a signer's new key succeeds
// its old one, chained oldest first in a PEM file.
#include <cerrno>
#include <memory>
#include <string>

#include <CLI/CLI.hpp>
#include <nlohmann/json.hpp>
#include <openssl/err.h>
#include <openssl/pem.h>

#include <sealkeep/sealkeep.hpp>

#include "cli.hpp"
#include "input_file.hpp"
#include "json_output.hpp"
#include "owned.hpp"
#include "pending_output.hpp"

namespace sealkeep::cli {
namespace {

using nlohmann::json;

struct RotateOptions {
    std::string chain;
    std::string oldCert, oldKey, newCert, newKey;
    bool append = false;
};

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
int runRotate(RotateOptions const& options)
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
    std::string why;
    auto output = PendingOutput::create(options.chain, why);
    if (!output) {
        reportFailure(options.chain, why);
        return statusFailed;
    }
    char const* in = options.append ? options.chain.c_str() : nullptr;
    if (make_proof_of_rotation_chain(output->path().c_str(), in, options.oldCert.c_str(), options.oldKey.c_str(),
                                     options.newCert.c_str(), options.newKey.c_str()) != 0) {
        reportFailure(options.chain, "rotation not recorded");
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
    printLine(options.chain + ": " + countOf(ProofOfRotationChain_count(chain.get()), "rotation") +
              ", newest key " + PackageSignatures::Certificate::readCertificateFromFile(
                                              options.newCert.c_str()).keyId());
    return statusOk;
}

int runShow(ShowOptions const& options)
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
    if (options.json) {
        printJson({{"path", options.chain}, {"verified", verified}, {"rotations", rotations}});
    } else {
        printLine(options.chain + ": " + countOf(rotations.size(), "rotation") + ", " +
                  (verified ? "every proof verifies" : "DOES NOT VERIFY"));
        int n = 0;
        for (auto const& rotation : rotations)
            printLine("  " + std::to_string(++n) + ": \"" + rotation["old"]["subject"].get<std::string>() + "\" " +
                      rotation["old"]["keyId"].get<std::string>() + " -> \"" +
                      rotation["new"]["subject"].get<std::string>() + "\" " +
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
    rotateCommand->add_option("--old-key", rotate->oldKey, "Old private key")->required();
    rotateCommand->add_option("--new-cert", rotate->newCert, "Certificate of the new key")->required();
    rotateCommand->add_option("--new-key", rotate->newKey, "New private key")->required();
    rotateCommand->add_flag("--append", rotate->append, "Add the rotation to the existing chain");
    rotateCommand->callback([rotate, &status] { status = runRotate(*rotate); });

    CLI::App* rotation = app.add_subcommand("rotation", "Work with rotation chains");
    rotation->require_subcommand(1);
    auto show = std::make_shared<ShowOptions>();
    CLI::App* showCommand = rotation->add_subcommand("show", "Show and check a rotation chain");
    showCommand->add_option("chain", show->chain, "Rotation chain (PEM)")->required();
    showCommand->add_flag("--json", show->json, "Print the chain as JSON");
    showCommand->callback([show, &status] { status = runShow(*show); });
}

}  // namespace sealkeep::cli
