// The smallest useful client of libsealkeep, built with pkg-config alone:
// lists who signed a package and verifies the signature stack.
//
//   sealkeep-example PACKAGE CA.pem
//
// Exit status 0 when the signatures verify, 1 when not, 2 on bad usage.
// The sealkeep command does the same and much more; this shows the calls.
#include <sealkeep/sealkeep.hpp>

#include <iostream>

using namespace PackageSignatures;

int main(int argc, char** argv)
{
    if (argc != 3) {
        std::cerr << "usage: sealkeep-example PACKAGE CA.pem" << std::endl;
        return 2;
    }
    auto file = FileWithCmses::fromPath(argv[1], "r");
    if (!file) {
        std::cerr << "sealkeep-example: cannot open " << argv[1] << std::endl;
        return 1;
    }
    for (Cms const& cms : file->cmses()) {
        auto signer = cms.certificate();
        std::cout << groupToString(signer->group()) << " \"" << signer->subject() << "\" key id " << signer->keyId()
                  << std::endl;
    }
    bool valid = file->verifyCmses(argv[2]);
    std::cout << argv[1] << (valid ? ": signatures valid" : ": signatures INVALID") << std::endl;
    return valid ? 0 : 1;
}
