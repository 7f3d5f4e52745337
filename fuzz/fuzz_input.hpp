// Shared set-up of the fuzz targets: every target verifies against the same
// small CA file. (The library's messages on hostile input are silenced by
// running with -close_fd_mask=2, which keeps libFuzzer's and the
// sanitizers' own reports.)
#ifndef SEALKEEP_FUZZ_FUZZ_INPUT_HPP
#define SEALKEEP_FUZZ_FUZZ_INPUT_HPP

#include <cstdio>
#include <cstdlib>
#include <string>

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

}  // namespace sealkeep::fuzz

#endif
