#include "support/temp_dir.hpp"

#include <cstdlib>
#include <stdexcept>
#include <vector>

#include <glib.h>
#include <glib/gstdio.h>

namespace sealkeep::test {

namespace {

void removeTree(std::string const& path)
{
    GDir* dir = g_dir_open(path.c_str(), 0, nullptr);
    if (dir) {
        while (const char* name = g_dir_read_name(dir)) {
            std::string child = path + "/" + name;
            if (g_file_test(child.c_str(), G_FILE_TEST_IS_DIR) &&
                !g_file_test(child.c_str(), G_FILE_TEST_IS_SYMLINK))
                removeTree(child);
            else
                g_remove(child.c_str());
        }
        g_dir_close(dir);
    }
    g_rmdir(path.c_str());
}

}  // namespace

TempDir::TempDir()
{
    gchar* made = g_dir_make_tmp("sealkeep-test-XXXXXX", nullptr);
    if (!made)
        throw std::runtime_error("cannot create a temporary directory");
    path_ = made;
    g_free(made);
}

TempDir::~TempDir()
{
    removeTree(path_);
}

std::string TempDir::file(std::string const& name) const
{
    return path_ + "/" + name;
}

}  // namespace sealkeep::test
