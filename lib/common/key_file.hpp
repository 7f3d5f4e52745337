// Loading the library's GLib key files (configuration, revocation and
// developer-mode files) from regular files only, without blocking.
#ifndef SEALKEEP_COMMON_KEY_FILE_HPP
#define SEALKEEP_COMMON_KEY_FILE_HPP

#include <glib.h>

namespace sealkeep {

// g_key_file_load_from_file with G_KEY_FILE_NONE, except that path must name
// a regular file of at most 64 MiB (a FIFO or a device is refused before
// anything is read). False when it cannot be read or parsed.
bool loadKeyFile(GKeyFile* keyFile, const char* path);

}  // namespace sealkeep

#endif
