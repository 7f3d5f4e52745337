// Processes that die or overlap on a trust database: a forked child runs a
// scenario and is killed with SIGKILL at a chosen event of its SQLite
// connection (the start of a statement, a step of the virtual machine, a
// change to a file), and the file it leaves is judged; children started
// together work on one file at once.
#ifndef SEALKEEP_TESTS_SUPPORT_KILL_SWEEP_HPP
#define SEALKEEP_TESTS_SUPPORT_KILL_SWEEP_HPP

#include <functional>
#include <string>

#include <sys/types.h>

#include "support/database_fixture.hpp"

namespace sealkeep::test {

// The kills are of processes, not of the machine: what a killed process
// leaves is what it wrote, whatever the file system makes of its syncs. So
// the files may live in memory; this points TMPDIR at /dev/shm when the
// system offers it, unless the caller chose a TMPDIR. Call before making
// any TrustFiles.
void keepTestFilesInMemory();

// How a child process ended.
struct Outcome {
    bool killed = false;  // by SIGKILL, that is by its own kill switch
    int exitCode = -1;    // when it exited
    std::string errors;   // its standard error
};

// Runs body in a forked child whose standard error goes to errorsPath; the
// child's exit code is body's result. An alarm ends a hung child after 30
// seconds.
pid_t startChild(std::function<int()> const& body, std::string const& errorsPath);
Outcome waitChild(pid_t pid, std::string const& errorsPath);

// The events a child counts on its connections, to be killed at one.
enum class Trigger {
    Statement,   // the start of every statement run
    Progress,    // progress-handler calls, between virtual machine instructions
    FileChange,  // every write, truncation, sync and deletion of a file
};

// One way of interrupting a process: what it does (prepare runs in the
// child before counting starts, work runs counted), and how the file is
// judged after it died and after the work is done again.
struct Scenario {
    std::function<void(TrustFiles const&)> setUp;  // in the parent, before each run
    std::function<void(TrustFiles const&)> prepare;
    std::function<void(TrustFiles const&)> work;
    std::function<void(TrustFiles const&)> checkAfterKill;
    std::function<void(TrustFiles const&)> completeAndCheck;
};

// Deletes the database file of files and its rollback journal.
void removeDatabase(TrustFiles const& files);

// Runs the scenario once unkilled to count its events, then kills it at
// evenly spread events (about `points` of them, the first and the last
// included), from a fresh setUp each time, checking the file after every
// kill. Stops at the first failure.
void sweep(Scenario const& scenario, Trigger trigger, long points);

}  // namespace sealkeep::test

#endif
