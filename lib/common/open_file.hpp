// fopen() that treats a null path as an invalid argument instead of crashing.
#ifndef SEALKEEP_COMMON_OPEN_FILE_HPP
#define SEALKEEP_COMMON_OPEN_FILE_HPP

#include <cerrno>
#include <cstdio>

#include "common/ossl_ptr.hpp"

namespace sealkeep {

// The opened file, or null with errno set (EINVAL for a null path), so that
// callers report both cases with strerror(errno).
inline FilePtr openFile(const char* path, const char* mode)
{
    if (!path) {
        errno = EINVAL;
        return nullptr;
    }
    return FilePtr(fopen(path, mode));
}

// A path for messages: "(null)" stands in for a missing one.
inline const char* printablePath(const char* path)
{
    return path ? path : "(null)";
}

}  // namespace sealkeep

#endif
