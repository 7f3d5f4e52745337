#include "support/process.hpp"

#include <cerrno>
#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <fstream>
#include <stdexcept>
#include <string>
#include <thread>

#include <fcntl.h>
#include <poll.h>
#include <signal.h>
#include <sys/wait.h>
#include <unistd.h>

extern char** environ;

namespace sealkeep::test {

namespace {

// Reads both pipes until they close, so that neither child stream can fill.
void drain(int outFd, int errFd, std::string& out, std::string& err)
{
    pollfd fds[2] = {{outFd, POLLIN, 0}, {errFd, POLLIN, 0}};
    int open = (outFd >= 0) + (errFd >= 0);
    if (outFd < 0)
        fds[0].fd = -1;
    if (errFd < 0)
        fds[1].fd = -1;
    char buffer[8192];
    while (open > 0) {
        if (poll(fds, 2, -1) < 0) {
            if (errno == EINTR)
                continue;
            break;
        }
        for (int i = 0; i < 2; ++i) {
            if (fds[i].fd < 0 || !(fds[i].revents & (POLLIN | POLLHUP | POLLERR)))
                continue;
            ssize_t n = read(fds[i].fd, buffer, sizeof buffer);
            if (n > 0) {
                (i == 0 ? out : err).append(buffer, static_cast<size_t>(n));
            } else {
                close(fds[i].fd);
                fds[i].fd = -1;
                --open;
            }
        }
    }
}

int exitCodeOf(int status)
{
    return WIFEXITED(status) ? WEXITSTATUS(status) : -1;
}

}  // namespace

CommandResult runCommand(std::vector<std::string> const& argv,
                         std::vector<std::string> const& extraEnvironment)
{
    int outPipe[2], errPipe[2];
    if (pipe(outPipe) != 0 || pipe(errPipe) != 0)
        throw std::runtime_error("pipe failed");
    fflush(nullptr);
    pid_t pid = fork();
    if (pid < 0)
        throw std::runtime_error("fork failed");
    if (pid == 0) {
        dup2(outPipe[1], 1);
        dup2(errPipe[1], 2);
        close(outPipe[0]);
        close(errPipe[0]);
        int devNull = open("/dev/null", O_RDONLY);
        if (devNull >= 0)
            dup2(devNull, 0);
        for (auto const& entry : extraEnvironment)
            putenv(const_cast<char*>(entry.c_str()));
        std::vector<char*> args;
        for (auto const& arg : argv)
            args.push_back(const_cast<char*>(arg.c_str()));
        args.push_back(nullptr);
        execvp(args[0], args.data());
        fprintf(stderr, "cannot run %s: %s\n", args[0], strerror(errno));
        _exit(127);
    }
    close(outPipe[1]);
    close(errPipe[1]);
    CommandResult result;
    drain(outPipe[0], errPipe[0], result.output, result.errors);
    int status = 0;
    waitpid(pid, &status, 0);
    result.exitCode = exitCodeOf(status);
    return result;
}

CommandResult runShell(std::string const& commandLine)
{
    return runCommand({"/bin/sh", "-c", commandLine});
}

ChildResult runInChild(std::function<int()> const& body, int timeoutMs)
{
    int errPipe[2];
    if (pipe(errPipe) != 0)
        throw std::runtime_error("pipe failed");
    fflush(nullptr);
    pid_t pid = fork();
    if (pid < 0)
        throw std::runtime_error("fork failed");
    if (pid == 0) {
        dup2(errPipe[1], 2);
        close(errPipe[0]);
        int code = body();
        fflush(nullptr);
        _exit(code);
    }
    close(errPipe[1]);
    fcntl(errPipe[0], F_SETFL, O_NONBLOCK);

    ChildResult result;
    auto deadline = std::chrono::steady_clock::now() + std::chrono::milliseconds(timeoutMs);
    int status = 0;
    char buffer[4096];
    for (;;) {
        ssize_t n;
        while ((n = read(errPipe[0], buffer, sizeof buffer)) > 0)
            result.errors.append(buffer, static_cast<size_t>(n));
        pid_t done = waitpid(pid, &status, WNOHANG);
        if (done == pid)
            break;
        if (std::chrono::steady_clock::now() >= deadline) {
            kill(pid, SIGKILL);
            waitpid(pid, &status, 0);
            result.timedOut = true;
            break;
        }
        std::this_thread::sleep_for(std::chrono::milliseconds(10));
    }
    ssize_t n;
    while ((n = read(errPipe[0], buffer, sizeof buffer)) > 0)
        result.errors.append(buffer, static_cast<size_t>(n));
    close(errPipe[0]);
    if (!result.timedOut)
        result.exitCode = exitCodeOf(status);
    return result;
}

void resetPeakResident()
{
    std::ofstream("/proc/self/clear_refs") << "5";
}

namespace {

// A "Name:   value kB" line of /proc/self/status, in KiB; -1 if missing.
long statusKib(std::string const& name)
{
    std::ifstream status("/proc/self/status");
    std::string line;
    while (std::getline(status, line))
        if (line.rfind(name + ":", 0) == 0)
            return std::stol(line.substr(name.size() + 1));
    return -1;
}

}  // namespace

long peakResidentKib()
{
    return statusKib("VmHWM");
}

long residentKib()
{
    return statusKib("VmRSS");
}

}  // namespace sealkeep::test
