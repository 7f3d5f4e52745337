// Read-only source BIOs over a large buffer and over a file range.
#include "common/streaming_bio.hpp"

#include <algorithm>
#include <cerrno>
#include <climits>
#include <cstring>
#include <memory>
#include <vector>

#include <fcntl.h>
#include <unistd.h>

#include "common/background_copy.hpp"
#include "common/bio_source.hpp"

namespace sealkeep {
namespace {

// Where the bytes come from, and how far a reader has got.
struct Source {
    virtual ~Source() = default;
    // Fills up to len bytes at out; the count, 0 at the end, -1 on error.
    virtual long read(unsigned char* out, std::size_t len) = 0;
    virtual bool atEnd() const = 0;
};

class MemorySource : public Source {
public:
    MemorySource(const unsigned char* data, std::size_t len) : data_(data), left_(len) {}
    long read(unsigned char* out, std::size_t len) override
    {
        std::size_t piece = std::min(len, left_);
        memcpy(out, data_, piece);
        data_ += piece;
        left_ -= piece;
        return static_cast<long>(piece);
    }
    bool atEnd() const override { return left_ == 0; }

private:
    const unsigned char* data_;
    std::size_t left_;
};

// Reads ahead one piece at a time: OpenSSL asks for a few kilobytes per
// call, and one pread per large piece keeps the system calls few. A source
// that follows a copy reads each piece only once the copy has written it.
class FileRangeSource : public Source {
public:
    FileRangeSource(int fd, std::int64_t begin, std::int64_t end, BackgroundCopy* copy)
        : fd_(fd), next_(begin), end_(end), copy_(copy),
          buffer_(static_cast<std::size_t>(std::min<std::int64_t>(end - begin, pieceSize)))
    {
    }
    long read(unsigned char* out, std::size_t len) override
    {
        if (used_ == filled_ && !refill())
            return -1;
        std::size_t piece = std::min(len, filled_ - used_);
        memcpy(out, buffer_.data() + used_, piece);
        used_ += piece;
        return static_cast<long>(piece);
    }
    bool atEnd() const override { return used_ == filled_ && next_ >= end_; }

private:
    static constexpr std::int64_t pieceSize = 256 * 1024;

    bool refill()
    {
        used_ = filled_ = 0;
        if (next_ >= end_)
            return true;
        auto want = static_cast<std::size_t>(std::min<std::int64_t>(buffer_.size(), end_ - next_));
        if (copy_ && !copy_->waitFor(next_ + static_cast<std::int64_t>(want)))
            return false;
        ssize_t got = 0;
        do
            got = pread(fd_, buffer_.data(), want, static_cast<off_t>(next_));
        while (got == -1 && errno == EINTR);
        if (got <= 0)  // an error, or a file cut short after it was scanned
            return false;
        filled_ = static_cast<std::size_t>(got);
        next_ += got;
        return true;
    }

    int fd_;
    std::int64_t next_;
    std::int64_t end_;
    BackgroundCopy* copy_;
    std::vector<unsigned char> buffer_;
    std::size_t used_ = 0;
    std::size_t filled_ = 0;
};

Source* sourceOf(BIO* bio)
{
    return static_cast<Source*>(BIO_get_data(bio));
}

int readSource(BIO* bio, char* out, int len)
{
    BIO_clear_retry_flags(bio);
    if (len <= 0)
        return 0;
    long got = sourceOf(bio)->read(reinterpret_cast<unsigned char*>(out), static_cast<std::size_t>(len));
    return static_cast<int>(got);
}

long controlSource(BIO* bio, int command, long, void*)
{
    switch (command) {
    case BIO_CTRL_EOF:
        return sourceOf(bio)->atEnd() ? 1 : 0;
    case BIO_CTRL_FLUSH:
        return 1;
    default:
        return 0;
    }
}

int destroySource(BIO* bio)
{
    delete sourceOf(bio);
    BIO_set_data(bio, nullptr);
    return 1;
}

// Made once; OpenSSL keeps no reference to it beyond the BIOs it makes.
const BIO_METHOD* sourceMethod()
{
    static BIO_METHOD* method = [] {
        BIO_METHOD* made = BIO_meth_new(BIO_get_new_index() | BIO_TYPE_SOURCE_SINK, "sealkeep read-only source");
        if (made) {
            BIO_meth_set_read(made, readSource);
            BIO_meth_set_ctrl(made, controlSource);
            BIO_meth_set_destroy(made, destroySource);
        }
        return made;
    }();
    return method;
}

BIO* bioOver(std::unique_ptr<Source> source)
{
    const BIO_METHOD* method = sourceMethod();
    BIO* bio = method ? BIO_new(method) : nullptr;
    if (!bio)
        return nullptr;
    BIO_set_data(bio, source.release());
    BIO_set_init(bio, 1);
    return bio;
}

}  // namespace

BIO* bioStreamingBytes(const unsigned char* data, std::size_t len)
{
    if (len <= maxMemoryBioLength)
        return BIO_new_mem_buf(data, static_cast<int>(len));
    return bioOver(std::make_unique<MemorySource>(data, len));
}

BIO* bioOverFileRange(int fd, std::int64_t begin, std::int64_t end, BackgroundCopy* copy)
{
    if (fd < 0 || begin < 0 || end < begin)
        return nullptr;
    // Only a hint: sequential reading doubles the kernel's read-ahead.
    posix_fadvise(fd, static_cast<off_t>(begin), static_cast<off_t>(end - begin), POSIX_FADV_SEQUENTIAL);
    return bioOver(std::make_unique<FileRangeSource>(fd, begin, end, copy));
}

}  // namespace sealkeep
