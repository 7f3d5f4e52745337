// Built against the installed CMake package: signs a file as the holder of
// CERT and KEY, then verifies the file's signatures against CA.
//
//   sign_and_verify FILE CERT KEY CA
//
// Exit status 0 when the file was signed and verifies, 1 when not.
#include <sealkeep/sealkeep.hpp>

#include <iostream>
#include <memory>

using namespace PackageSignatures;

int main(int argc, char** argv)
{
    if (argc != 5) {
        std::cerr << "usage: sign_and_verify FILE CERT KEY CA" << std::endl;
        return 2;
    }
    std::unique_ptr<X509, decltype(&X509_free)> certificate(certificate_read(argv[2]), X509_free);
    std::unique_ptr<EVP_PKEY, decltype(&EVP_PKEY_free)> key(private_key_read(argv[3], nullptr), EVP_PKEY_free);
    auto file = FileWithCmses::fromPath(argv[1], "r+");
    if (!certificate || !key || !file) {
        std::cerr << "sign_and_verify: cannot read the certificate, the key or the file" << std::endl;
        return 1;
    }
    if (!file->sign(certificate.get(), key.get(), nullptr, 0, nullptr, false, false, false)) {
        std::cerr << "sign_and_verify: not signed" << std::endl;
        return 1;
    }
    bool valid = file->verifyCmses(argv[4]);
    std::cout << argv[1] << ": signed as " << groupToString(file->cmses().front().certificate()->group())
              << (valid ? ", signatures valid" : ", signatures INVALID") << std::endl;
    return valid ? 0 : 1;
}
