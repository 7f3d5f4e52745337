// Signing files and byte ranges in tests with the library's own signer, and
// building signature blocks by hand where a test needs a stack that the
// signing operation would refuse to make.
#ifndef SEALKEEP_TESTS_SUPPORT_SIGNING_HPP
#define SEALKEEP_TESTS_SUPPORT_SIGNING_HPP

#include <string>

#include <sealkeep/sealkeep.h>

#include "support/files.hpp"
#include "support/pki.hpp"

namespace sealkeep::test {

struct SignOptions {
    bool replace = false;
    bool skippableFrame = false;
    bool signFiles = false;
    ProofOfRotationChain* chain = nullptr;
};

inline SignOptions framed()
{
    SignOptions options;
    options.skippableFrame = true;
    return options;
}

inline SignOptions replacing()
{
    SignOptions options;
    options.replace = true;
    return options;
}

// FileWithCmses::sign on the file at path with who's certificate and key.
bool signFile(std::string const& path, Identity const& who, SignOptions const& options = {});
// FileWithCmses::verifyCmses of the file at path against caPath.
bool verifyFile(std::string const& path, std::string const& caPath);
// cms_sign over range; throws when it fails.
Bytes signRange(Bytes const& range, Identity const& who, ProofOfRotationChain* chain = nullptr);

}  // namespace sealkeep::test

#endif
