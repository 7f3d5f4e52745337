#include "support/signing.hpp"

#include <stdexcept>

#include <sealkeep/file_with_cmses.hpp>

namespace sealkeep::test {

bool signFile(std::string const& path, Identity const& who, SignOptions const& options)
{
    X509Ptr cert = loadCertificate(who.certPath);
    PkeyPtr key = loadKey(who.keyPath);
    auto file = PackageSignatures::FileWithCmses::fromPath(path.c_str(), "r+");
    if (!file)
        throw std::runtime_error("cannot open " + path);
    return file->sign(cert.get(), key.get(), nullptr, 0, options.chain, options.replace, options.skippableFrame,
                      options.signFiles);
}

bool verifyFile(std::string const& path, std::string const& caPath)
{
    auto file = PackageSignatures::FileWithCmses::fromPath(path.c_str(), "r");
    if (!file)
        throw std::runtime_error("cannot open " + path);
    return file->verifyCmses(caPath.c_str());
}

Bytes signRange(Bytes const& range, Identity const& who, ProofOfRotationChain* chain)
{
    X509Ptr cert = loadCertificate(who.certPath);
    PkeyPtr key = loadKey(who.keyPath);
    size_t length = 0;
    unsigned char* der =
        cms_sign(range.data(), range.size(), 0, key.get(), nullptr, 0, cert.get(), chain, &length);
    if (!der)
        throw std::runtime_error("cms_sign failed");
    Bytes out(der, der + length);
    free(der);
    return out;
}

}  // namespace sealkeep::test
