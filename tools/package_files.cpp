// Recognising an RPM package by its lead, and reading file names from its
// header with librpm. The header is read without a transaction set, so the
// package's own RPM signatures are not judged here.
#include "package_files.hpp"

#include <unistd.h>

#include <array>
#include <cerrno>
#include <cstdlib>
#include <memory>

#include <rpm/header.h>
#include <rpm/rpmfiles.h>
#include <rpm/rpmio.h>
#include <rpm/rpmlib.h>

namespace sealkeep::cli {

bool hasRpmLead(int fd)
{
    static constexpr std::array<unsigned char, 4> magic = {0xED, 0xAB, 0xEE, 0xDB};
    std::array<unsigned char, 4> lead{};
    std::size_t got = 0;
    while (got < lead.size()) {
        ssize_t n = pread(fd, lead.data() + got, lead.size() - got, static_cast<off_t>(got));
        if (n < 0 && errno == EINTR)
            continue;
        if (n <= 0)
            return false;
        got += static_cast<std::size_t>(n);
    }
    return lead == magic;
}

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
