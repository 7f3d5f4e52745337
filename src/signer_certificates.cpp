// Certificate::allFromFilePath: the signer certificates of a signed file, one
// per signature block, in file order.
#include <sealkeep/certificate.hpp>
#include <sealkeep/file_with_cmses.hpp>

namespace PackageSignatures {

std::vector<Certificate> Certificate::allFromFilePath(char const* path)
{
    std::vector<Certificate> certificates;
    auto file = FileWithCmses::fromPath(path);
    if (!file)
        return certificates;
    for (auto const& cms : file->cmses())
        certificates.push_back(*cms.certificate());
    file.reset();
    certificates.shrink_to_fit();
    return certificates;
}

}  // namespace PackageSignatures
