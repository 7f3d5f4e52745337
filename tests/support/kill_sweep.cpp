// Killing children at counted events of their SQLite connections.
#include "support/kill_sweep.hpp"

#include <csignal>
#include <memory>
#include <vector>

#include <unistd.h>

#include <sqlite3.h>

#include "support/counting_vfs.hpp"
#include "support/files.hpp"
#include "support/sqlite_file.hpp"

namespace sealkeep::test {

namespace {

// The kill switch lives in the child: armed means counting; killAt 0 never
// kills. The process is killed before the event takes effect.
struct KillSwitch {
    bool armed = true;
    long events = 0;
    long killAt = 0;
};
KillSwitch killSwitch;

void countEvent()
{
    if (!killSwitch.armed)
        return;
    if (++killSwitch.events == killSwitch.killAt)
        kill(getpid(), SIGKILL);
}

int countStatement(unsigned, void*, void*, void*)
{
    countEvent();
    return 0;
}

int countProgress(void*)
{
    countEvent();
    return 0;
}

std::function<void(sqlite3*)> installTrigger(Trigger trigger)
{
    return [trigger](sqlite3* db) {
        if (trigger == Trigger::Statement)
            sqlite3_trace_v2(db, SQLITE_TRACE_STMT, countStatement, nullptr);
        else if (trigger == Trigger::Progress)
            sqlite3_progress_handler(db, 1, countProgress, nullptr);
    };
}

// Runs the scenario in a child that kills itself at event killAt. A child
// that finishes writes the number of events it counted to
// "child-events.txt", which tells a run with killAt 0 how many there are.
Outcome runScenarioChild(Scenario const& scenario, TrustFiles const& files, Trigger trigger,
                         long killAt)
{
    const std::string errorsPath = files.file("child-errors.txt");
    const std::string countPath = files.file("child-events.txt");
    pid_t pid = startChild(
        [&] {
            ConnectionHook hook(installTrigger(trigger));
            std::unique_ptr<CountingVfs> vfs;
            if (trigger == Trigger::FileChange)
                vfs = std::make_unique<CountingVfs>(countEvent);
            killSwitch = KillSwitch{false, 0, killAt};
            scenario.prepare(files);
            killSwitch.armed = true;
            scenario.work(files);
            writeText(countPath, std::to_string(killSwitch.events));
            return 0;
        },
        errorsPath);
    return waitChild(pid, errorsPath);
}

}  // namespace

std::vector<Outcome> runTogether(std::vector<std::function<int()>> const& bodies,
                                 std::string const& errorsPrefix)
{
    auto errorsPath = [&](std::size_t i) { return errorsPrefix + std::to_string(i) + ".txt"; };
    StartGate gate;
    std::vector<pid_t> children;
    for (std::size_t i = 0; i < bodies.size(); ++i)
        children.push_back(
            startChild([&, i] { return gate.wait() ? bodies[i]() : 2; }, errorsPath(i)));
    gate.open();
    std::vector<Outcome> outcomes;
    for (std::size_t i = 0; i < children.size(); ++i)
        outcomes.push_back(waitChild(children[i], errorsPath(i)));
    return outcomes;
}

void sweep(Scenario const& scenario, Trigger trigger, long points)
{
    TrustFiles files;
    scenario.setUp(files);
    Outcome dryRun = runScenarioChild(scenario, files, trigger, 0);
    ASSERT_EQ(0, dryRun.exitCode) << dryRun.errors;
    const long events = std::stol(readText(files.file("child-events.txt")));
    ASSERT_GT(events, 0);
    const long stride = (events + points - 1) / points;

    std::vector<long> killPoints;
    for (long killAt = 1; killAt < events; killAt += stride)
        killPoints.push_back(killAt);
    killPoints.push_back(events);

    for (long killAt : killPoints) {
        SCOPED_TRACE("killed at event " + std::to_string(killAt) + " of " + std::to_string(events));
        removeDatabaseFiles(files.databasePath());
        scenario.setUp(files);
        Outcome outcome = runScenarioChild(scenario, files, trigger, killAt);
        ASSERT_TRUE(outcome.killed) << "exit " << outcome.exitCode << ": " << outcome.errors;
        scenario.checkAfterKill(files);
        scenario.completeAndCheck(files);
        if (testing::Test::HasFailure())
            return;
    }
}

}  // namespace sealkeep::test
