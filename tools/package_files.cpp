// Recognising an RPM package by its lead, and reading file names from its
// header with librpm. The header is read without a transaction set, so the
// package's own RPM signatures are not judged here.
#include "package_files.hpp"

#include <unistd.h>

#include <algorithm>
#include <array>
#include <cerrno>
#include <cstdlib>
#include <memory>
#include <type_traits>

#include <rpm/header.h>
#include <rpm/rpmfiles.h>
#include <rpm/rpmio.h>
#include <rpm/rpmlib.h>

#include <sealkeep/limits.hpp>

namespace sealkeep::cli {

bool hasRpmLead(int fd)
{
    std::array<unsigned char, sizeof PackageSignatures::rpmLeadMagic> lead{};
    std::size_t got = 0;
    while (got < lead.size()) {
        ssize_t n = pread(fd, lead.data() + got, lead.size() - got, static_cast<off_t>(got));
        if (n < 0 && errno == EINTR)
            continue;
        if (n <= 0)
            return false;
        got += static_cast<std::size_t>(n);
    }
    return std::equal(lead.begin(), lead.end(), std::begin(PackageSignatures::rpmLeadMagic));
}

namespace {

using RpmfilesPtr = std::unique_ptr<std::remove_pointer_t<rpmfiles>, decltype(&rpmfilesFree)>;

// The header of the package read from fd, or null.
Header readHeader(FD_t fd)
{
    Header header = nullptr;
    rpmRC rc = rpmReadPackageFile(nullptr, fd, nullptr, &header);
    if (rc != RPMRC_OK && rc != RPMRC_NOTTRUSTED && rc != RPMRC_NOKEY) {
        headerFree(header);
        return nullptr;
    }
    return header;
}

// The header of the package open as fd, or null. The duplicate that librpm
// reads shares the offset, which the header is read from.
Header readHeader(int fd)
{
    if (lseek(fd, 0, SEEK_SET) != 0)
        return nullptr;
    FD_t rpmFd = fdDup(fd);
    if (!rpmFd || Ferror(rpmFd)) {
        if (rpmFd)
            Fclose(rpmFd);
        return nullptr;
    }
    Header header = readHeader(rpmFd);
    Fclose(rpmFd);
    return header;
}

}  // namespace

std::optional<std::string> packageName(int fd)
{
    Header header = readHeader(fd);
    if (!header)
        return std::nullopt;
    const char* name = headerGetString(header, RPMTAG_NAME);
    std::optional<std::string> result = name ? std::optional<std::string>(name) : std::nullopt;
    headerFree(header);
    return result;
}

std::optional<std::vector<PackageFile>> packageFiles(int fd)
{
    Header header = readHeader(fd);
    if (!header)
        return std::nullopt;
    RpmfilesPtr files(rpmfilesNew(nullptr, header, 0, RPMFI_KEEPHEADER), &rpmfilesFree);
    headerFree(header);
    if (!files)
        return std::nullopt;
    std::vector<PackageFile> listed;
    int count = rpmfilesFC(files.get());
    listed.reserve(static_cast<std::size_t>(count > 0 ? count : 0));
    for (int i = 0; i < count; ++i) {
        PackageFile file;
        std::unique_ptr<char, decltype(&std::free)> name(rpmfilesFN(files.get(), i), &std::free);
        file.name = name ? name.get() : "";
        file.mode = rpmfilesFMode(files.get(), i);
        file.size = rpmfilesFSize(files.get(), i);
        const int* members = nullptr;
        std::uint32_t links = rpmfilesFLinks(files.get(), i, &members);
        file.links = links > 1 ? links : 1;
        file.ghost = (rpmfilesFFlags(files.get(), i) & RPMFILE_GHOST) != 0;
        listed.push_back(std::move(file));
    }
    return listed;
}

bool isTrustedApplicationName(std::string const& name)
{
    static const std::string directory = "/usr/lib/optee_armtz/";
    static const std::string suffix = ".ta";
    return name.size() >= directory.size() + suffix.size() && name.compare(0, directory.size(), directory) == 0 &&
           name.find('/', directory.size()) == std::string::npos &&
           name.compare(name.size() - suffix.size(), suffix.size(), suffix) == 0;
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
