// Caller-owned bytes as a BIO: memory when small enough, else a temporary file.
#include "common/bio_source.hpp"

#include <cstdio>

#include "common/chunked_io.hpp"
#include "common/ossl_ptr.hpp"

namespace sealkeep {

BIO* openTempFileBio(const unsigned char* data, std::size_t len)
{
    return openTempFileBio([&](int fd) { return writeInPieces(fd, data, len); });
}

BIO* openTempFileBio(std::function<bool(int fd)> const& fill)
{
    // A temporary file that cannot even be made fails like one that cannot
    // be written.
    FilePtr file(tmpfile());
    if (!file || !fill(fileno(file.get()))) {
        fprintf(stderr, "Could not store inmemory data to temporary file\n");
        return nullptr;
    }
    fseek(file.get(), 0, SEEK_SET);
    BIO* bio = BIO_new_fp(file.get(), BIO_CLOSE);
    if (!bio) {
        fprintf(stderr, "Could not create BIO from temporary file\n");
        return nullptr;
    }
    file.release();  // the BIO closes it now
    return bio;
}

BIO* bioOverBytes(const unsigned char* data, std::size_t len)
{
    if (len > maxMemoryBioLength)
        return openTempFileBio(data, len);
    return BIO_new_mem_buf(data, static_cast<int>(len));
}

}  // namespace sealkeep
