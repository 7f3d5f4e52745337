// Copying a package into its new version on a second processor while the
// first digests it. Signing a package through its path writes the package
// anew beside itself; done in the signing thread, that copy (and the
// kernel's block allocation and write-back it sets off) adds a fifth to the
// cost of a large signature. In a thread of its own it costs almost nothing,
// and the digest reads the new version behind the copy, so that what is
// signed is exactly what the new version holds.
#ifndef SEALKEEP_COMMON_BACKGROUND_COPY_HPP
#define SEALKEEP_COMMON_BACKGROUND_COPY_HPP

#include <condition_variable>
#include <cstdint>
#include <mutex>
#include <thread>

namespace sealkeep {

class BackgroundCopy {
public:
    // Starts copying the bytes [0, end) of from to the current position of
    // to (an empty file, so the copy lands at the same offsets), inside the
    // kernel where the two files allow it, starting write-back as it goes
    // (see WriteBehind). Both descriptors stay the caller's and must outlive
    // the copy. Where no thread can be started, the copy is made before the
    // constructor returns.
    BackgroundCopy(int from, int to, std::int64_t end);
    // Stops a copy still under way and waits for it.
    ~BackgroundCopy();
    BackgroundCopy(BackgroundCopy const&) = delete;
    BackgroundCopy& operator=(BackgroundCopy const&) = delete;

    // The file being written.
    int target() const { return to_; }

    // Waits until the bytes [0, upTo) of the target are copied. False, with
    // errno set to the copy's error (EIO when from ended early), when the
    // copy failed before that.
    bool waitFor(std::int64_t upTo);

    // Waits for the whole copy. False with errno set as for waitFor.
    bool finish();

    // Without waiting: false, with errno set as for waitFor, when the copy
    // has failed by now.
    bool unfailed();

private:
    void run() noexcept;
    bool copyNext(std::int64_t& at);

    int from_;
    int to_;
    std::int64_t end_;
    std::mutex mutex_;
    std::condition_variable progress_;
    std::int64_t copied_ = 0;  // under mutex_
    int error_ = 0;            // under mutex_: the copy's errno, once failed
    bool stop_ = false;        // under mutex_
    std::thread thread_;
};

}  // namespace sealkeep

#endif
