// Killing children at counted events of their SQLite connections.
#include "support/kill_sweep.hpp"

#include <csignal>
#include <cstdio>
#include <cstdlib>
#include <memory>
#include <stdexcept>
#include <vector>

#include <fcntl.h>
#include <sys/wait.h>
#include <unistd.h>

#include <sqlite3.h>

#include "support/counting_vfs.hpp"
#include "support/files.hpp"
#include "support/sqlite_file.hpp"

namespace sealkeep::test {

namespace {

// How a child process ended.
struct Outcome {
    bool killed = false;  // by SIGKILL, that is by its own kill switch
    int exitCode = -1;    // when it exited
    std::string errors;   // its standard error
};

// Runs body in a forked child whose standard error goes to errorsPath. The
// child cannot outlive a hang: an alarm ends it after 30 seconds.
pid_t startChild(std::function<int()> const& body, std::string const& errorsPath)
{
    fflush(nullptr);
    pid_t pid = fork();
    if (pid == 0) {
        alarm(30);
        int errors = open(errorsPath.c_str(), O_WRONLY | O_CREAT | O_TRUNC, 0600);
        if (errors >= 0)
            dup2(errors, 2);
        int code = body();
        fflush(nullptr);
        _exit(code);
    }
    return pid;
}

Outcome waitChild(pid_t pid, std::string const& errorsPath)
{
    int status = 0;
    waitpid(pid, &status, 0);
    Outcome outcome;
    outcome.killed = WIFSIGNALED(status) && WTERMSIG(status) == SIGKILL;
    if (WIFEXITED(status))
        outcome.exitCode = WEXITSTATUS(status);
    if (fileExists(errorsPath))
        outcome.errors = readText(errorsPath);
    return outcome;
}

void removeDatabase(TrustFiles const& files)
{
    files.removeFile(files.databasePath());
    files.removeFile(files.databasePath() + "-journal");
}

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

void keepTestFilesInMemory()
{
    if (access("/dev/shm", W_OK) == 0)
        setenv("TMPDIR", "/dev/shm", 0);
}

std::vector<ChildResult> runTogether(std::vector<std::function<int()>> const& bodies,
                                     std::string const& errorsPrefix)
{
    auto errorsPath = [&](std::size_t i) { return errorsPrefix + std::to_string(i) + ".txt"; };
    // Every child waits for the end of file on the gate, which comes once
    // every copy of its write end is closed: the parent's last.
    int gate[2];
    if (pipe(gate) != 0)
        throw std::runtime_error("pipe failed");
    std::vector<pid_t> children;
    for (std::size_t i = 0; i < bodies.size(); ++i) {
        children.push_back(startChild(
            [&, i] {
                close(gate[1]);
                char go;
                if (read(gate[0], &go, 1) != 0)
                    return 2;
                return bodies[i]();
            },
            errorsPath(i)));
    }
    close(gate[1]);
    close(gate[0]);
    std::vector<ChildResult> results;
    for (std::size_t i = 0; i < children.size(); ++i) {
        Outcome outcome = waitChild(children[i], errorsPath(i));
        ChildResult result;
        result.exitCode = outcome.exitCode;
        result.errors = outcome.errors;
        results.push_back(result);
    }
    return results;
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
        removeDatabase(files);
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
