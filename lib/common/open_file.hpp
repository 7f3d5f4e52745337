// Opening the files the library reads and writes by path. A file opened for
// reading must be a regular file, looked at on the descriptor before a byte
// is read: a FIFO, a terminal or a device given in its place would make a
// read wait for ever, or never end.
#ifndef SEALKEEP_COMMON_OPEN_FILE_HPP
#define SEALKEEP_COMMON_OPEN_FILE_HPP

#include <cerrno>
#include <cstdio>
#include <string>
#include <vector>

#include "common/ossl_ptr.hpp"

namespace sealkeep {

// The errno of a path that names something other than a regular file.
constexpr int notRegularFileError = EINVAL;

// The descriptor of the regular file at path, open for reading, blocking
// reads; -1 with errno set otherwise (notRegularFileError for anything that
// is not a regular file, EINVAL for a null path). Opening never waits: a
// FIFO without a writer is refused like a device.
int openRegularForReading(const char* path);

// The opened file, or null with errno set (EINVAL for a null path), so that
// callers report both cases with strerror(errno). A mode that only reads
// ("r", "rb") opens regular files only, as openRegularForReading does.
FilePtr openFile(const char* path, const char* mode);

// The whole content of the regular file at path, at most limit bytes; false
// with errno set when it cannot be read (EFBIG beyond the limit).
bool readRegularFile(const char* path, std::size_t limit, std::vector<char>& content);

// A path for messages: "(null)" stands in for a missing one.
inline const char* printablePath(const char* path)
{
    return path ? path : "(null)";
}

}  // namespace sealkeep

#endif
