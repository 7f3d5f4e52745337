// Reading the signer's files for the sign subcommand.
#include "credentials.hpp"

#include <fstream>

#include "cli.hpp"

namespace sealkeep::cli {

std::optional<Credentials> loadCredentials(CredentialFiles const& files)
{
    Credentials credentials;
    credentials.certificate.reset(certificate_read(files.certificate.c_str()));
    if (!credentials.certificate) {
        reportFailure(files.certificate, "cannot read the signer certificate");
        return std::nullopt;
    }
    void* passPhrase = files.passPhrase ? const_cast<char*>(files.passPhrase->c_str()) : nullptr;
    credentials.key.reset(private_key_read(files.key.c_str(), passPhrase));
    if (!credentials.key) {
        reportFailure(files.key, "cannot read the private key");
        return std::nullopt;
    }
    if (!files.taKey.empty()) {
        credentials.taKey.reset(private_key_read(files.taKey.c_str(), nullptr));
        if (!credentials.taKey) {
            reportFailure(files.taKey, "cannot read the trusted-application key");
            return std::nullopt;
        }
    }
    if (!files.rotationChain.empty()) {
        credentials.rotationChain.reset(ProofOfRotationChain_read(files.rotationChain.c_str()));
        if (!credentials.rotationChain) {
            reportFailure(files.rotationChain, "cannot read the rotation chain");
            return std::nullopt;
        }
    }
    return credentials;
}

std::optional<std::string> readPassPhrase(std::string const& path)
{
    std::ifstream in(path);
    std::string line;
    if (!in || !std::getline(in, line)) {
        reportFailure(path, "cannot read the pass phrase");
        return std::nullopt;
    }
    if (!line.empty() && line.back() == '\r')
        line.pop_back();
    return line;
}

}  // namespace sealkeep::cli
