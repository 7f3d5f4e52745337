// Reading file names from an RPM header with librpm. The header is read
// without a transaction set, so the package's own RPM signatures are not
// judged here.
#include "package_files.hpp"

#include <cstdlib>
#include <memory>

#include <rpm/header.h>
#include <rpm/rpmfiles.h>
#include <rpm/rpmio.h>
#include <rpm/rpmlib.h>

namespace sealkeep::cli {

std::vector<std::string> packageFileNames(std::string const& path)
{
    std::vector<std::string> names;
    FD_t fd = Fopen(path.c_str(), "r.ufdio");
    if (!fd || Ferror(fd)) {
        if (fd)
            Fclose(fd);
        return names;
    }
    Header header = nullptr;
    rpmRC rc = rpmReadPackageFile(nullptr, fd, nullptr, &header);
    Fclose(fd);
    if (rc != RPMRC_OK && rc != RPMRC_NOTTRUSTED && rc != RPMRC_NOKEY) {
        headerFree(header);
        return names;
    }
    rpmfiles files = rpmfilesNew(nullptr, header, 0, RPMFI_KEEPHEADER);
    int count = files ? rpmfilesFC(files) : 0;
    for (int i = 0; i < count; ++i) {
        std::unique_ptr<char, decltype(&std::free)> name(rpmfilesFN(files, i), &std::free);
        names.emplace_back(name ? name.get() : "");
    }
    rpmfilesFree(files);
    headerFree(header);
    return names;
}

}  // namespace sealkeep::cli
