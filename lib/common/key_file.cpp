// Key files read whole through the non-blocking opener, then parsed by GLib.
#include "common/key_file.hpp"

#include <vector>

#include "common/open_file.hpp"

namespace sealkeep {

namespace {

// Far beyond any configuration, developer-mode or revocation file (a key id
// line takes about 70 bytes): bounds what a hostile file costs.
constexpr std::size_t keyFileLimit = 64u << 20;

}  // namespace

bool loadKeyFile(GKeyFile* keyFile, const char* path)
{
    std::vector<char> content;
    if (!readRegularFile(path, keyFileLimit, content))
        return false;
    return g_key_file_load_from_data(keyFile, content.data(), content.size(), G_KEY_FILE_NONE, nullptr);
}

}  // namespace sealkeep
