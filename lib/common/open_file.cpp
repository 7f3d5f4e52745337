// Opening files by path without blocking, and reading small regular files
// whole.
#include "common/open_file.hpp"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cstring>

namespace sealkeep {

namespace {

bool readsOnly(const char* mode)
{
    return mode && mode[0] == 'r' && std::strchr(mode, '+') == nullptr;
}

}  // namespace

int openRegularForReading(const char* path)
{
    if (!path) {
        errno = EINVAL;
        return -1;
    }
    // O_NONBLOCK makes the open of a FIFO return at once; it is cleared
    // before any read, which then behaves as on any regular file.
    int fd = open(path, O_RDONLY | O_NONBLOCK | O_NOCTTY | O_CLOEXEC);
    if (fd < 0)
        return -1;
    struct stat status {};
    int error = 0;
    if (fstat(fd, &status) != 0)
        error = errno;
    else if (!S_ISREG(status.st_mode))
        error = notRegularFileError;
    else if (int flags = fcntl(fd, F_GETFL); flags < 0 || fcntl(fd, F_SETFL, flags & ~O_NONBLOCK) != 0)
        error = errno;
    if (error != 0) {
        close(fd);
        errno = error;
        return -1;
    }
    return fd;
}

FilePtr openFile(const char* path, const char* mode)
{
    if (!path) {
        errno = EINVAL;
        return nullptr;
    }
    if (!readsOnly(mode))
        return FilePtr(fopen(path, mode));
    int fd = openRegularForReading(path);
    if (fd < 0)
        return nullptr;
    FILE* file = fdopen(fd, mode);
    if (!file) {
        int error = errno;
        close(fd);
        errno = error;
    }
    return FilePtr(file);
}

bool readRegularFile(const char* path, std::size_t limit, std::vector<char>& content)
{
    content.clear();
    int fd = openRegularForReading(path);
    if (fd < 0)
        return false;
    char buffer[8192];
    for (;;) {
        ssize_t got = read(fd, buffer, sizeof buffer);
        if (got < 0 && errno == EINTR)
            continue;
        if (got < 0 || content.size() + static_cast<std::size_t>(got) > limit) {
            int error = got < 0 ? errno : EFBIG;
            close(fd);
            content.clear();
            errno = error;
            return false;
        }
        if (got == 0)
            break;
        content.insert(content.end(), buffer, buffer + got);
    }
    close(fd);
    return true;
}

}  // namespace sealkeep
