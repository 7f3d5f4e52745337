// A VFS that forwards to the default one and reports every change to a file
// before making it.
#include "support/counting_vfs.hpp"

#include <sqlite3.h>

#include <stdexcept>

namespace sealkeep::test {

namespace {

sqlite3_vfs* realVfs = nullptr;
sqlite3_vfs countingVfs;
void (*beforeChangeHook)() = nullptr;

// SQLite allocates szOsFile bytes per open file: this header, then the real
// VFS's own file structure.
struct CountingFile {
    sqlite3_file base;
    sqlite3_file* real;
};

sqlite3_file* realFile(sqlite3_file* file)
{
    return reinterpret_cast<CountingFile*>(file)->real;
}

void changing()
{
    if (beforeChangeHook)
        beforeChangeHook();
}

int fileClose(sqlite3_file* file)
{
    return realFile(file)->pMethods->xClose(realFile(file));
}

int fileRead(sqlite3_file* file, void* buffer, int amount, sqlite3_int64 offset)
{
    return realFile(file)->pMethods->xRead(realFile(file), buffer, amount, offset);
}

int fileWrite(sqlite3_file* file, const void* buffer, int amount, sqlite3_int64 offset)
{
    changing();
    return realFile(file)->pMethods->xWrite(realFile(file), buffer, amount, offset);
}

int fileTruncate(sqlite3_file* file, sqlite3_int64 size)
{
    changing();
    return realFile(file)->pMethods->xTruncate(realFile(file), size);
}

int fileSync(sqlite3_file* file, int flags)
{
    changing();
    return realFile(file)->pMethods->xSync(realFile(file), flags);
}

int fileSize(sqlite3_file* file, sqlite3_int64* size)
{
    return realFile(file)->pMethods->xFileSize(realFile(file), size);
}

int fileLock(sqlite3_file* file, int level)
{
    return realFile(file)->pMethods->xLock(realFile(file), level);
}

int fileUnlock(sqlite3_file* file, int level)
{
    return realFile(file)->pMethods->xUnlock(realFile(file), level);
}

int fileCheckReservedLock(sqlite3_file* file, int* reserved)
{
    return realFile(file)->pMethods->xCheckReservedLock(realFile(file), reserved);
}

int fileControl(sqlite3_file* file, int op, void* argument)
{
    return realFile(file)->pMethods->xFileControl(realFile(file), op, argument);
}

int fileSectorSize(sqlite3_file* file)
{
    return realFile(file)->pMethods->xSectorSize(realFile(file));
}

int fileDeviceCharacteristics(sqlite3_file* file)
{
    return realFile(file)->pMethods->xDeviceCharacteristics(realFile(file));
}

// Version 1 methods: no shared memory (rollback journal only) and no
// memory-mapped pages, so every change goes through fileWrite.
const sqlite3_io_methods countingMethods = {1,
                                            fileClose,
                                            fileRead,
                                            fileWrite,
                                            fileTruncate,
                                            fileSync,
                                            fileSize,
                                            fileLock,
                                            fileUnlock,
                                            fileCheckReservedLock,
                                            fileControl,
                                            fileSectorSize,
                                            fileDeviceCharacteristics,
                                            nullptr,
                                            nullptr,
                                            nullptr,
                                            nullptr,
                                            nullptr,
                                            nullptr};

int vfsOpen(sqlite3_vfs*, const char* name, sqlite3_file* file, int flags, int* outFlags)
{
    auto* counting = reinterpret_cast<CountingFile*>(file);
    counting->real = reinterpret_cast<sqlite3_file*>(counting + 1);
    int result = realVfs->xOpen(realVfs, name, counting->real, flags, outFlags);
    counting->base.pMethods = counting->real->pMethods ? &countingMethods : nullptr;
    return result;
}

int vfsDelete(sqlite3_vfs*, const char* name, int syncDirectory)
{
    changing();
    return realVfs->xDelete(realVfs, name, syncDirectory);
}

}  // namespace

CountingVfs::CountingVfs(void (*beforeChange)())
{
    if (beforeChangeHook)
        throw std::logic_error("one counting VFS at a time");
    realVfs = sqlite3_vfs_find(nullptr);
    // Everything but opening and deleting is the default VFS's own.
    countingVfs = *realVfs;
    countingVfs.pNext = nullptr;
    countingVfs.zName = "sealkeep-test-counting";
    countingVfs.szOsFile = static_cast<int>(sizeof(CountingFile)) + realVfs->szOsFile;
    countingVfs.xOpen = vfsOpen;
    countingVfs.xDelete = vfsDelete;
    beforeChangeHook = beforeChange;
    sqlite3_vfs_register(&countingVfs, 1);
}

CountingVfs::~CountingVfs()
{
    sqlite3_vfs_unregister(&countingVfs);
    beforeChangeHook = nullptr;
}

}  // namespace sealkeep::test
