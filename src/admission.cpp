// Package admission: whether a developer signature may install a package or
// update an installed one. The signing key must not be revoked, no key it was
// rotated from may be blacklisted, and an update must come from the installed
// package's developer, directly or through a rotation its chain proves.
#include <algorithm>
#include <string>
#include <vector>

#include "database_record.hpp"

namespace PackageSignatures {

bool Database::developerMatch(std::string_view package, Cms const& cms)
{
    // A package not yet installed may come from any developer.
    if (!packageExists(package))
        return true;
    // An installed package without a developer certificate cannot be taken
    // over by a developer signature.
    const std::optional<Certificate> installed =
        packageCertificateWithGroup(package, Group::Developer);
    if (!installed)
        return false;
    const std::string installedKeyid = installed->keyId();
    if (installedKeyid == cms.certificate()->keyId())
        return true;
    const std::vector<std::string> previous = cms.rotationChain()->previousKeyids();
    return std::find(previous.begin(), previous.end(), installedKeyid) != previous.end();
}

PackageCheckResult Database::checkPackage(std::string_view package, std::vector<Cms> const& cmses,
                                          bool)
{
    const std::optional<Cms> developer = developerCmsFromVector(cmses);
    if (!developer)
        return NotDeveloperSigned;

    switch (getKeyidRevocationStatus(developer->certificate()->keyId())) {
    case Superseded:
        return KeySuperseded;
    case Blacklisted:
        return KeyBlacklisted;
    }
    // Earlier keys of the chain are superseded by the very rotation the chain
    // proves; only a blacklisting of one of them taints the signer.
    for (std::string const& keyid : developer->rotationChain()->previousKeyids())
        if (getKeyidRevocationStatus(keyid) == Blacklisted)
            return KeyBlacklisted;

    return developerMatch(package, *developer) ? Accepted : DeveloperMismatch;
}

}  // namespace PackageSignatures
