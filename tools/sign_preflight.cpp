// Pre-flight of the sign subcommand.
#include "sign_preflight.hpp"

#include <sealkeep/sealkeep.h>

#include "cli.hpp"
#include "key_checks.hpp"

namespace sealkeep::cli {
namespace {

using PackageSignatures::Group;

int refuse(std::string const& what, std::string const& why, int status = statusFailed)
{
    reportFailure(what, why);
    return status;
}

// An empty chain claims no rotation; any other must verify and end at the
// signer's own key.
int checkRotationChain(CredentialSource const& source, Credentials const& credentials)
{
    ProofOfRotationChain* chain = credentials.rotationChain.get();
    std::string label = "--rotation-chain " + source.options().rotationChain;
    if (!chain || ProofOfRotationChain_count(chain) < 1)
        return statusOk;
    if (ProofOfRotationChain_verify(chain) != 1)
        return refuse(label, "the rotation chain does not verify");
    int last = ProofOfRotationChain_count(chain) - 1;
    std::string end = keyIdOf(ProofOfRotation_get0_new_cert(ProofOfRotationChain_get0_at(chain, last)));
    std::string signer = keyIdOf(credentials.certificate.get());
    if (end != signer)
        return refuse(label, "the rotation chain ends at key id " + end + ", not at the signer's key id " + signer);
    return statusOk;
}

}  // namespace

int checkSigner(CredentialSource const& source, Credentials const& credentials, SignPlan const& plan, Group& group)
{
    std::string cert = "--cert " + source.options().certificate;
    X509* certificate = credentials.certificate.get();
    if (!keyBelongsTo(credentials.key.get(), source.key().inEngine(), certificate))
        return refuse(source.key().label(), "not the key of the certificate given with " + cert);
    if (auto problem = validityProblem(certificate))
        return refuse(cert, "the certificate " + *problem);
    GroupReading reading = readGroup(certificate);
    if (!reading.problem.empty())
        return refuse(cert, "the certificate " + reading.problem);
    group = reading.group;

    if (KeySource const* taKey = source.taKey()) {
        if (group != Group::Developer)
            return refuse(taKey->label(),
                          "only a developer signs trusted applications; the certificate is a " +
                              PackageSignatures::groupToString(group) + "'s",
                          statusUsage);
        if (auto problem = trustedApplicationKeyProblem(credentials.taKey.get()))
            return refuse(taKey->label(), *problem);
    }
    if (int status = checkRotationChain(source, credentials); status != statusOk)
        return status;
    // Per-file signatures are made only in the first signature, a developer's.
    if (group == Group::Developer && plan.fileSignatures && !plan.allowUnverifiableKey) {
        if (auto problem = kernelImaKeyProblem(certificate))
            return refuse(source.key().label(),
                          "a key of " + *problem +
                              " (--no-file-signatures signs without them, --allow-unverifiable-file-signatures "
                              "signs them anyway)");
    }
    return statusOk;
}

}  // namespace sealkeep::cli
