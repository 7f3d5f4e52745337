// Processes that share a database file with the test: children forked to
// run a piece of the library and judged by how they ended, a start gate that
// releases several of them at the same moment, and a process that holds a
// lock on the file for a set time.
#ifndef SEALKEEP_TESTS_SUPPORT_DATABASE_PROCESSES_HPP
#define SEALKEEP_TESTS_SUPPORT_DATABASE_PROCESSES_HPP

#include <functional>
#include <string>

#include <sys/types.h>

namespace sealkeep::test {

// How a child process ended.
struct Outcome {
    bool killed = false;  // by SIGKILL
    int exitCode = -1;    // when it exited
    std::string errors;   // its standard error
};

// Runs body in a forked child whose standard error goes to errorsPath; the
// child's exit code is body's result. The child cannot outlive a hang: an
// alarm ends it after 30 seconds.
pid_t startChild(std::function<int()> const& body, std::string const& errorsPath);
Outcome waitChild(pid_t pid, std::string const& errorsPath);

// Lets children forked after it was made start together: each calls wait(),
// which returns once the parent has called open().
class StartGate {
public:
    StartGate();
    ~StartGate();
    StartGate(StartGate const&) = delete;
    StartGate& operator=(StartGate const&) = delete;

    // In a child: blocks until the gate opens; false when it broke instead.
    bool wait();
    // In the parent, after forking every child.
    void open();

private:
    int pipe_[2] = {-1, -1};
};

// A child process that opens its own connection to path, runs beginSql (a
// transaction that takes a lock: "BEGIN EXCLUSIVE", or a read transaction
// such as "BEGIN; SELECT COUNT(1) FROM sqlite_master") and keeps the lock
// until finish() tells it to let go, or for holdMs at most, before it ends
// the transaction. The constructor returns once the lock is held. A test
// that must see the lock held throughout calls finish() when it is done, so
// that a slow machine cannot have the lock go away in the middle.
class LockHolder {
public:
    LockHolder(std::string const& path, std::string const& beginSql, int holdMs);
    // Same as finish().
    ~LockHolder();
    LockHolder(LockHolder const&) = delete;
    LockHolder& operator=(LockHolder const&) = delete;

    // Has the child let go of the lock now and waits for it; true when it
    // held the lock and ended cleanly.
    bool finish();

private:
    pid_t pid_ = -1;
    // The write end of the pipe on which the child waits to let go.
    int release_ = -1;
    bool finished_ = false;
    bool clean_ = false;
};

// Has temporary directories made in memory (/dev/shm) when the system offers
// it and the caller chose no TMPDIR, which makes runs that create many
// database files fast; the file's fate on a crash of the machine is not what
// such tests judge. Returns true, for use as a static initializer.
bool preferFilesInMemory();

// Deletes the database file and its journal.
void removeDatabaseFiles(std::string const& databasePath);

}  // namespace sealkeep::test

#endif
