// Signed Cms objects and rotation chains for the trust database suites.
#include "support/package_signatures.hpp"

#include <stdexcept>

#include <sealkeep/certificate.hpp>
#include <sealkeep/sealkeep.h>

#include "support/signing.hpp"

namespace sealkeep::test {

ChainPtr writeRotationChain(std::string const& path, std::vector<RotationStep> const& rotations)
{
    bool first = true;
    for (auto const& [oldKey, newKey] : rotations) {
        if (make_proof_of_rotation_chain(path.c_str(), first ? nullptr : path.c_str(),
                                         oldKey.certPath.c_str(), oldKey.keyPath.c_str(),
                                         newKey.certPath.c_str(), newKey.keyPath.c_str()) != 0)
            throw std::runtime_error("cannot write rotation chain " + path);
        first = false;
    }
    ChainPtr chain(ProofOfRotationChain_read(path.c_str()));
    if (!chain)
        throw std::runtime_error("cannot read rotation chain " + path);
    return chain;
}

PackageSignatures::Cms signedCms(Identity const& who, ProofOfRotationChain* chain,
                                 std::string const& content)
{
    return PackageSignatures::Cms(signRange(Bytes(content.begin(), content.end()), who, chain));
}

std::string keyidOf(Identity const& who)
{
    return PackageSignatures::Certificate::readCertificateFromFile(who.certPath.c_str()).keyId();
}

std::vector<std::string> keyidsOf(std::vector<PackageSignatures::Certificate> const& certificates)
{
    std::vector<std::string> keyids;
    for (auto const& certificate : certificates)
        keyids.push_back(certificate.keyId());
    return keyids;
}

}  // namespace sealkeep::test
