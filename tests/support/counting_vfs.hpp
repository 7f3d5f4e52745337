// An SQLite VFS for tests that must stop a process in the middle of SQLite's
// file protocol (between the journal writes, the database writes, the syncs
// and the journal deletion of a commit): it forwards everything to the
// default VFS and calls a function before each change to a file.
#ifndef SEALKEEP_TESTS_SUPPORT_COUNTING_VFS_HPP
#define SEALKEEP_TESTS_SUPPORT_COUNTING_VFS_HPP

namespace sealkeep::test {

// While it lives, the VFS is the default one, so that every connection
// opened meanwhile, the library's included, uses it; beforeChange runs
// before every write, truncation, sync and deletion. One at a time; meant
// for a child process that is then killed or exits.
class CountingVfs {
public:
    explicit CountingVfs(void (*beforeChange)());
    ~CountingVfs();
    CountingVfs(CountingVfs const&) = delete;
    CountingVfs& operator=(CountingVfs const&) = delete;
};

}  // namespace sealkeep::test

#endif
