// Shared set-up of the fuzz targets: every target verifies against the same
// small CA file, and targets that read files get the input as an in-memory
// file. (The library's messages on hostile input are silenced by running with
// -close_fd_mask=2, which keeps libFuzzer's and the sanitizers' own reports.)
//
// Every target ends each input with OpenSSL's error queue cleared: errors
// left there are allocations that would outlive the input and make
// libFuzzer's leak detection report them.
#ifndef SEALKEEP_FUZZ_FUZZ_INPUT_HPP
#define SEALKEEP_FUZZ_FUZZ_INPUT_HPP

#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <string>

#include <openssl/err.h>
#include <sys/mman.h>
#include <unistd.h>

namespace sealkeep::fuzz {

// A CA file named by $SEALKEEP_FUZZ_CA, else an empty store.
inline const std::string& caPath()
{
    static const std::string path = [] {
        const char* given = getenv("SEALKEEP_FUZZ_CA");
        if (given)
            return std::string(given);
        char name[] = "/tmp/sealkeep-fuzz-ca-XXXXXX";
        int fd = mkstemp(name);
        if (fd >= 0)
            close(fd);
        return std::string(name);
    }();
    return path;
}

// Clears OpenSSL's error queue when an input is done, on every path.
struct ClearErrorsOnExit {
    ~ClearErrorsOnExit() { ERR_clear_error(); }
};

// A file beside the CA file ("ca.pem" -> "ca.key", ...), written by
// make_fuzz_seeds; empty when no CA file was given.
inline std::string besideCa(const char* name)
{
    const std::string& ca = caPath();
    auto slash = ca.rfind('/');
    return getenv("SEALKEEP_FUZZ_CA") && slash != std::string::npos ? ca.substr(0, slash + 1) + name : std::string();
}

// The input as a file without a name on disk, reachable by path while the
// object lives.
class InputFile {
public:
    InputFile(const uint8_t* data, size_t size) : fd_(memfd_create("fuzz-input", 0))
    {
        if (fd_ >= 0 && write(fd_, data, size) != static_cast<ssize_t>(size)) {
            close(fd_);
            fd_ = -1;
        }
        if (fd_ >= 0)
            path_ = "/proc/self/fd/" + std::to_string(fd_);
    }
    ~InputFile()
    {
        if (fd_ >= 0)
            close(fd_);
    }
    InputFile(InputFile const&) = delete;
    InputFile& operator=(InputFile const&) = delete;

    bool valid() const { return fd_ >= 0; }
    const char* path() const { return path_.c_str(); }

private:
    int fd_;
    std::string path_;
};

}  // namespace sealkeep::fuzz

#endif
