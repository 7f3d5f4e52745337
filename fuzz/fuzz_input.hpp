// Shared set-up of the fuzz targets: the library's messages are expected on
// hostile input and only slow the fuzzer down, and every target verifies
// against the same small CA file.
#ifndef SEALKEEP_FUZZ_FUZZ_INPUT_HPP
#define SEALKEEP_FUZZ_FUZZ_INPUT_HPP

#include <cstdio>
#include <cstdlib>
#include <string>

#include <fcntl.h>
#include <unistd.h>

namespace sealkeep::fuzz {

inline void silenceStandardError()
{
    int devNull = open("/dev/null", O_WRONLY);
    if (devNull >= 0) {
        dup2(devNull, 2);
        close(devNull);
    }
}

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
