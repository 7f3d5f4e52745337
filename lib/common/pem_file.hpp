// Writing one PEM object to an open file and closing it, the single way the
// library saves certificates and rotation chains.
#ifndef SEALKEEP_COMMON_PEM_FILE_HPP
#define SEALKEEP_COMMON_PEM_FILE_HPP

#include <cstdio>
#include <utility>

#include "common/ossl_ptr.hpp"

namespace sealkeep {

// Calls write(FILE*) (a PEM_write_* call returning 1 on success) and closes
// the file. True only when both succeeded: buffered data reaches the disk at
// fclose, so a full disk may only show there. What to do with a file that
// could not be written (keep it, remove it) and what to print stay with the
// caller.
template <typename Write>
bool writePemAndClose(FilePtr file, Write&& write)
{
    bool written = file && std::forward<Write>(write)(file.get()) == 1;
    FILE* raw = file.release();
    return raw && fclose(raw) == 0 && written;
}

}  // namespace sealkeep

#endif
