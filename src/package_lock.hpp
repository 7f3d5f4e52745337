// Internal: the exclusive write lock of a package. Every operation that
// changes a package holds it from reading the signature stack to the end of
// the write, so that a second writer waits and then works from what the first
// one left. Readers take no lock: a package is replaced whole (see
// package_rewrite.hpp), so they always see one complete version.
#ifndef SEALKEEP_SRC_PACKAGE_LOCK_HPP
#define SEALKEEP_SRC_PACKAGE_LOCK_HPP

#include <chrono>
#include <string>

namespace PackageSignatures {

enum class LockOutcome { Locked, Busy, Failed };

// flock(LOCK_EX) on the open file description of fd. A negative timeout
// waits as long as it takes; otherwise the lock is tried until the timeout
// has passed, and Busy answers that another process still holds it. Failed
// (errno set) when the file cannot be locked at all.
LockOutcome lockExclusive(int fd, std::chrono::milliseconds timeout);

// Releases the lock taken on fd's open file description.
void unlockFile(int fd);

// Whether path names the very file open as fd (same device and inode). A
// writer that waited for the lock checks this: the package it opened may
// have been replaced by the writer it waited for.
bool pathNamesFile(std::string const& path, int fd);

}  // namespace PackageSignatures

#endif
