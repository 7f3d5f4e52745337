// Child processes that share a database file with the test.
#include "support/database_processes.hpp"

#include <csignal>
#include <cstdio>
#include <cstdlib>
#include <cerrno>
#include <stdexcept>

#include <fcntl.h>
#include <poll.h>
#include <sqlite3.h>
#include <sys/socket.h>
#include <sys/wait.h>
#include <unistd.h>

#include "support/files.hpp"

namespace sealkeep::test {

pid_t startChild(std::function<int()> const& body, std::string const& errorsPath)
{
    fflush(nullptr);
    pid_t pid = fork();
    if (pid < 0)
        throw std::runtime_error("fork failed");
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

StartGate::StartGate()
{
    if (pipe(pipe_) != 0)
        throw std::runtime_error("pipe failed");
}

StartGate::~StartGate()
{
    open();
}

bool StartGate::wait()
{
    // The end of file comes once every copy of the write end, this one
    // included, is closed: that is, when the parent opens the gate.
    close(pipe_[1]);
    pipe_[1] = -1;
    char go;
    return read(pipe_[0], &go, 1) == 0;
}

void StartGate::open()
{
    for (int& end : pipe_) {
        if (end >= 0)
            close(end);
        end = -1;
    }
}

namespace {

// Waits until the parent writes to (or closes) release, or holdMs pass.
void awaitRelease(int release, int holdMs)
{
    pollfd wanted{release, POLLIN, 0};
    while (poll(&wanted, 1, holdMs) < 0 && errno == EINTR) {
    }
}

// The child's part of LockHolder: 0 when the lock was taken, held and given
// back; the readiness byte is written only once the lock is held.
int holdLock(std::string const& path, std::string const& beginSql, int holdMs, int ready,
             int release)
{
    sqlite3* db = nullptr;
    int code = 1;
    if (sqlite3_open_v2(path.c_str(), &db, SQLITE_OPEN_READWRITE | SQLITE_OPEN_CREATE, nullptr) ==
            SQLITE_OK &&
        sqlite3_exec(db, beginSql.c_str(), nullptr, nullptr, nullptr) == SQLITE_OK) {
        const char byte = 1;
        if (write(ready, &byte, 1) == 1) {
            awaitRelease(release, holdMs);
            code = sqlite3_exec(db, "COMMIT", nullptr, nullptr, nullptr) == SQLITE_OK ? 0 : 2;
        }
    }
    sqlite3_close(db);
    return code;
}

}  // namespace

LockHolder::LockHolder(std::string const& path, std::string const& beginSql, int holdMs)
{
    int ready[2], release[2];
    if (pipe(ready) != 0)
        throw std::runtime_error("pipe failed");
    if (socketpair(AF_UNIX, SOCK_STREAM, 0, release) != 0) {
        close(ready[0]);
        close(ready[1]);
        throw std::runtime_error("socketpair failed");
    }
    fflush(nullptr);
    pid_ = fork();
    if (pid_ < 0)
        throw std::runtime_error("fork failed");
    if (pid_ == 0) {
        alarm(30);
        close(ready[0]);
        close(release[1]);
        _exit(holdLock(path, beginSql, holdMs, ready[1], release[0]));
    }
    close(ready[1]);
    close(release[0]);
    release_ = release[1];
    char byte = 0;
    const bool held = read(ready[0], &byte, 1) == 1;
    close(ready[0]);
    if (!held) {
        finish();
        throw std::runtime_error("the lock holder could not take its lock");
    }
}

LockHolder::~LockHolder()
{
    finish();
}

bool LockHolder::finish()
{
    if (!finished_) {
        // A byte, not only the end of file, since children forked meanwhile
        // hold copies of this end; no SIGPIPE when the child has already
        // let go on its own.
        const char byte = 1;
        send(release_, &byte, 1, MSG_NOSIGNAL);
        close(release_);
        int status = 0;
        waitpid(pid_, &status, 0);
        finished_ = true;
        clean_ = WIFEXITED(status) && WEXITSTATUS(status) == 0;
    }
    return clean_;
}

bool preferFilesInMemory()
{
    if (access("/dev/shm", W_OK) == 0)
        setenv("TMPDIR", "/dev/shm", 0);
    return true;
}

void removeDatabaseFiles(std::string const& databasePath)
{
    std::remove(databasePath.c_str());
    std::remove((databasePath + "-journal").c_str());
}

}  // namespace sealkeep::test
