// A file copy made in a thread of its own, which readers follow.
#include "common/background_copy.hpp"

#include <algorithm>
#include <cerrno>
#include <system_error>

#include <fcntl.h>
#include <unistd.h>

#include "common/chunked_io.hpp"

namespace sealkeep {
namespace {

// How much one system call copies: small enough that a reader waits little
// for the first bytes, large enough that the calls stay few.
constexpr std::int64_t copyStep = 1024 * 1024;

bool kernelCannotCopy(int error)
{
    return error == EXDEV || error == ENOSYS || error == EINVAL || error == EOPNOTSUPP;
}

}  // namespace

BackgroundCopy::BackgroundCopy(int from, int to, std::int64_t end) : from_(from), to_(to), end_(end)
{
    try {
        thread_ = std::thread([this] { run(); });
    } catch (std::system_error const&) {
        run();
    }
}

BackgroundCopy::~BackgroundCopy()
{
    {
        std::lock_guard<std::mutex> lock(mutex_);
        stop_ = true;
    }
    if (thread_.joinable())
        thread_.join();
}

void BackgroundCopy::run() noexcept
{
    WriteBehind behind(to_);
    std::int64_t at = 0;
    int error = 0;
    while (at < end_) {
        {
            std::lock_guard<std::mutex> lock(mutex_);
            if (stop_)
                break;
        }
        const std::int64_t before = at;
        if (!copyNext(at)) {
            error = errno != 0 ? errno : EIO;
            break;
        }
        behind.wrote(static_cast<std::size_t>(at - before));
        std::lock_guard<std::mutex> lock(mutex_);
        copied_ = at;
        progress_.notify_all();
    }
    std::lock_guard<std::mutex> lock(mutex_);
    error_ = at < end_ && error == 0 ? ECANCELED : error;
    progress_.notify_all();
}

// Copies the next piece, advancing at; false with errno set.
bool BackgroundCopy::copyNext(std::int64_t& at)
{
    const auto want = static_cast<std::size_t>(std::min(end_ - at, copyStep));
    loff_t in = at;
    ssize_t copied = copy_file_range(from_, &in, to_, nullptr, want, 0);
    if (copied == -1 && errno == EINTR)
        return true;
    if (copied == -1 && kernelCannotCopy(errno)) {
        if (!copyRangeInPieces(from_, static_cast<off_t>(at), want, to_))
            return false;
        at += static_cast<std::int64_t>(want);
        return true;
    }
    if (copied == 0)
        errno = EIO;  // from ends before the range does
    if (copied <= 0)
        return false;
    at += copied;
    return true;
}

bool BackgroundCopy::waitFor(std::int64_t upTo)
{
    std::unique_lock<std::mutex> lock(mutex_);
    progress_.wait(lock, [&] { return copied_ >= upTo || error_ != 0; });
    if (copied_ >= upTo)
        return true;
    errno = error_;
    return false;
}

bool BackgroundCopy::finish()
{
    return waitFor(end_);
}

bool BackgroundCopy::unfailed()
{
    std::lock_guard<std::mutex> lock(mutex_);
    if (error_ == 0)
        return true;
    errno = error_;
    return false;
}

}  // namespace sealkeep
