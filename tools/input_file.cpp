// open() with O_NONBLOCK, a look at the descriptor, then blocking reads.
#include "input_file.hpp"

#include <fcntl.h>
#include <sys/stat.h>

#include <cerrno>
#include <cstdio>
#include <cstring>

#include "cli.hpp"

namespace sealkeep::cli {

namespace {

InputFile cannotOpen()
{
    int error = errno;
    std::string reason = std::strerror(error);
    return {UniqueFd(), "cannot open: " + reason, reason, error};
}

}  // namespace

InputFile openInput(std::string const& path)
{
    // Opening a FIFO without O_NONBLOCK waits for a writer.
    UniqueFd fd(open(path.c_str(), O_RDONLY | O_NONBLOCK | O_NOCTTY | O_CLOEXEC));
    if (!fd)
        return cannotOpen();
    struct stat status {};
    if (fstat(fd.get(), &status) != 0)
        return cannotOpen();
    if (!S_ISREG(status.st_mode))
        return {UniqueFd(), notRegularFile, notRegularFile, 0};
    int flags = fcntl(fd.get(), F_GETFL);
    if (flags < 0 || fcntl(fd.get(), F_SETFL, flags & ~O_NONBLOCK) != 0)
        return cannotOpen();
    return {std::move(fd), {}, {}, 0};
}

std::string inputRefusal(std::string const& path)
{
    return openInput(path).refusal;
}

std::unique_ptr<PackageSignatures::FileWithCmses> openPackageForReading(std::string const& path,
                                                                        std::string& refusal)
{
    InputFile input = openInput(path);
    if (!input.fd) {
        refusal = input.refusal;
        return nullptr;
    }
    FILE* file = fdopen(input.fd.get(), "r");
    if (!file) {
        refusal = "cannot open: " + systemReason();
        return nullptr;
    }
    input.fd.release();
    return std::make_unique<PackageSignatures::FileWithCmses>(file);
}

}  // namespace sealkeep::cli
