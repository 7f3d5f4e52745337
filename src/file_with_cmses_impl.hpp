// Internal: what a FileWithCmses holds, shared by the sources that implement
// its listing, verifying, signing and removing.
#ifndef SEALKEEP_SRC_FILE_WITH_CMSES_IMPL_HPP
#define SEALKEEP_SRC_FILE_WITH_CMSES_IMPL_HPP

#include <cstdio>
#include <string>

#include <sealkeep/file_with_cmses.hpp>

namespace PackageSignatures {

struct FileWithCmses::Impl {
    FILE* file = nullptr;
    std::string path;  // empty for an object made from a FILE*
    std::string mode;  // what fromPath opened it with
    bool locked = false;

    // Closes the stream and takes over another one (after a rewrite, or a
    // reopen of the path). Inline, so that it stays out of the exported
    // symbols.
    void replaceStream(FILE* other)
    {
        if (file)
            fclose(file);
        file = other;
    }
};

// Holds the write lock for one operation, unless the caller already holds
// it (FileWithCmses::lockForWriting); releases only what it took.
class WriteLockScope {
public:
    explicit WriteLockScope(FileWithCmses& file);
    ~WriteLockScope();
    WriteLockScope(WriteLockScope const&) = delete;
    WriteLockScope& operator=(WriteLockScope const&) = delete;

    bool held() const { return held_; }
    // Whether this scope took the lock (and so releases it).
    bool takenHere() const { return taken_; }

private:
    FileWithCmses& file_;
    bool held_ = false;
    bool taken_ = false;
};

}  // namespace PackageSignatures

#endif
