// Lists what sealkeep sees in a file: whether it is an RPM package and the
// header of its newest signature block.
//
//   list_signatures FILE
#include <sealkeep/sealkeep.hpp>

#include <iostream>

using namespace PackageSignatures;

int main(int argc, char** argv)
{
    if (argc != 2) {
        std::cerr << "usage: list_signatures FILE" << std::endl;
        return 2;
    }
    auto file = FileWithCmses::fromPath(argv[1], "r");
    if (!file) {
        std::cerr << "cannot open " << argv[1] << std::endl;
        return 1;
    }
    std::cout << argv[1] << (file->isRpmPackage() ? ": RPM package" : ": not an RPM package")
              << std::endl;
    auto cmses = file->cmses();
    std::cout << cmses.size() << " signature block(s)" << std::endl;
    for (std::size_t i = 0; i < cmses.size(); ++i) {
        auto certificate = cmses[i].certificate();
        std::cout << "  [" << i << "] " << cmses[i].size() << " bytes, signer \""
                  << certificate->subject() << "\", group "
                  << groupToString(certificate->group()) << ", key id " << certificate->keyId()
                  << std::endl;
    }
    return 0;
}
