// Processes that die or overlap on a trust database: a forked child runs a
// scenario and is killed with SIGKILL at a chosen event of its SQLite
// connection (the start of a statement, a step of the virtual machine, a
// change to a file), and the file it leaves is judged; children started
// together work on one file at once.
#ifndef SEALKEEP_TESTS_SUPPORT_KILL_SWEEP_HPP
#define SEALKEEP_TESTS_SUPPORT_KILL_SWEEP_HPP

#include <functional>
#include <string>
#include <vector>

#include "support/database_fixture.hpp"
#include "support/database_processes.hpp"

namespace sealkeep::test {

// Runs every body in a forked child of its own, releasing them all at the
// same moment, and waits for them. Child i's standard error goes to the file
// errorsPrefix + i + ".txt". The outcomes are in the order of bodies; a child
// that hangs is ended by an alarm after 30 seconds and shows exit code -1.
// The kills are of processes, not of the machine, so the files may live in
// memory: see preferFilesInMemory().
std::vector<Outcome> runTogether(std::vector<std::function<int()>> const& bodies,
                                 std::string const& errorsPrefix);

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

// Runs the scenario once unkilled to count its events, then kills it at
// evenly spread events (about `points` of them, the first and the last
// included), from a fresh setUp each time, checking the file after every
// kill. Stops at the first failure.
void sweep(Scenario const& scenario, Trigger trigger, long points);

}  // namespace sealkeep::test

#endif
