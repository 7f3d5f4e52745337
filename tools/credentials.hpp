// The signer's certificate, keys and rotation chain as the sign subcommand
// reads them from files. Each signing thread holds its own copy, so that no
// OpenSSL object is shared between threads.
#ifndef SEALKEEP_TOOLS_CREDENTIALS_HPP
#define SEALKEEP_TOOLS_CREDENTIALS_HPP

#include <optional>
#include <string>

#include "owned.hpp"

namespace sealkeep::cli {

struct CredentialFiles {
    std::string certificate;
    std::string key;
    std::optional<std::string> passPhrase;
    std::string taKey;          // empty: none
    std::string rotationChain;  // empty: none
};

struct Credentials {
    X509Ptr certificate;
    PkeyPtr key;
    PkeyPtr taKey;      // may be null
    ChainPtr rotationChain;  // may be null
};

// Reads every file named; on failure reports the file and the reason and
// returns nothing.
std::optional<Credentials> loadCredentials(CredentialFiles const& files);

// The first line of a pass-phrase file without its line end; reports and
// returns nothing when the file cannot be read.
std::optional<std::string> readPassPhrase(std::string const& path);

}  // namespace sealkeep::cli

#endif
