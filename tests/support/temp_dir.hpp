// A fresh directory under $TMPDIR (or /tmp) per test, removed with all its
// contents when the object goes away.
#ifndef SEALKEEP_TESTS_SUPPORT_TEMP_DIR_HPP
#define SEALKEEP_TESTS_SUPPORT_TEMP_DIR_HPP

#include <string>

namespace sealkeep::test {

class TempDir {
public:
    TempDir();
    ~TempDir();
    TempDir(TempDir const&) = delete;
    TempDir& operator=(TempDir const&) = delete;

    std::string const& path() const { return path_; }
    // path() + "/" + name
    std::string file(std::string const& name) const;

private:
    std::string path_;
};

}  // namespace sealkeep::test

#endif
