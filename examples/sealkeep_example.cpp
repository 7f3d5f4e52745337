// A small command-line client of libsealkeep that shows the whole flow: run a
// CA, issue signer certificates, sign a package three times and verify it.
//
//   sealkeep-example ca      CA.pem CA.key "Common Name"
//   sealkeep-example issue   OUT.pem REQUEST.csr CA.key CA.pem [GROUP]
//   sealkeep-example sign    PACKAGE CERT.pem KEY [--replace] [--v2]
//   sealkeep-example verify  PACKAGE CA.pem
//   sealkeep-example list    PACKAGE
//
// Exit status 0 on success, 1 on failure, 2 on bad usage.
#include <sealkeep/sealkeep.hpp>

#include <cstring>
#include <iostream>
#include <string>
#include <vector>

#include <sys/stat.h>

using namespace PackageSignatures;

namespace {

int usage()
{
    std::cerr << "usage: sealkeep-example ca|issue|sign|verify|list ..." << std::endl;
    return 2;
}

int makeCa(std::vector<std::string> const& args)
{
    if (args.size() != 3)
        return usage();
    return make_ca_certificate(args[0].c_str(), args[1].c_str(), args[2].c_str()) == 0 ? 0 : 1;
}

int issue(std::vector<std::string> const& args)
{
    if (args.size() != 4 && args.size() != 5)
        return usage();
    const char* group = args.size() == 5 ? args[4].c_str() : nullptr;
    return make_certificate(args[0].c_str(), args[1].c_str(), args[2].c_str(), args[3].c_str(), group) == 0 ? 0 : 1;
}

int sign(std::vector<std::string> const& args)
{
    if (args.size() < 3)
        return usage();
    bool replace = false, skippableFrame = true;
    for (std::size_t i = 3; i < args.size(); ++i) {
        if (args[i] == "--replace")
            replace = true;
        else if (args[i] == "--v2")
            skippableFrame = false;
        else
            return usage();
    }
    X509* certificate = certificate_read(args[1].c_str());
    EVP_PKEY* key = private_key_read(args[2].c_str(), nullptr);
    auto file = FileWithCmses::fromPath(args[0]);
    bool signedOk = certificate && key && file &&
                    file->sign(certificate, key, nullptr, 0, nullptr, replace, skippableFrame, true);
    EVP_PKEY_free(key);
    X509_free(certificate);
    if (!signedOk) {
        std::cerr << "signing " << args[0] << " failed" << std::endl;
        return 1;
    }
    return 0;
}

int verify(std::vector<std::string> const& args)
{
    if (args.size() != 2)
        return usage();
    auto file = FileWithCmses::fromPath(args[0].c_str(), "r");
    bool valid = file && file->verifyCmses(args[1].c_str());
    std::cout << args[0] << (valid ? ": signatures valid" : ": signatures INVALID") << std::endl;
    return valid ? 0 : 1;
}

int list(std::vector<std::string> const& args)
{
    if (args.size() != 1)
        return usage();
    auto file = FileWithCmses::fromPath(args[0].c_str(), "r");
    if (!file)
        return 1;
    auto cmses = file->cmses();
    // isRpmPackage() waits forever on a file shorter than the RPM lead.
    struct stat st {};
    bool rpm = fstat(file->fd(), &st) == 0 && st.st_size >= 4 && file->isRpmPackage();
    std::cout << args[0] << (rpm ? " (RPM package): " : ": ") << cmses.size()
              << " signature(s)" << std::endl;
    for (std::size_t i = 0; i < cmses.size(); ++i) {
        auto certificate = cmses[i].certificate();
        std::cout << "  [" << i << "] " << groupToString(certificate->group()) << ":"
                  << subgroupToString(certificate->subgroup()) << " \"" << certificate->subject() << "\" key id "
                  << certificate->keyId() << ", " << cmses[i].size() << " bytes of CMS" << std::endl;
    }
    return 0;
}

}  // namespace

int main(int argc, char** argv)
{
    if (argc < 2)
        return usage();
    std::vector<std::string> args(argv + 2, argv + argc);
    std::string command = argv[1];
    if (command == "ca")
        return makeCa(args);
    if (command == "issue")
        return issue(args);
    if (command == "sign")
        return sign(args);
    if (command == "verify")
        return verify(args);
    if (command == "list")
        return list(args);
    return usage();
}
