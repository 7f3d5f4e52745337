// Running commands and functions in child processes, for interoperability
// checks with real tools and for behaviour that only shows in a fresh process
// (library start-up) or that must be stopped from outside (calls that never
// return).
#ifndef SEALKEEP_TESTS_SUPPORT_PROCESS_HPP
#define SEALKEEP_TESTS_SUPPORT_PROCESS_HPP

#include <functional>
#include <string>
#include <vector>

namespace sealkeep::test {

struct CommandResult {
    int exitCode = -1;   // -1 when the child did not exit normally
    std::string output;  // standard output
    std::string errors;  // standard error
};

// Runs argv[0] (looked up in PATH) with the given arguments and extra
// environment entries ("NAME=value").
CommandResult runCommand(std::vector<std::string> const& argv,
                         std::vector<std::string> const& extraEnvironment = {});
// Runs a shell command line with /bin/sh -c.
CommandResult runShell(std::string const& commandLine);

struct ChildResult {
    bool timedOut = false;
    int exitCode = -1;  // when it exited
    std::string errors;
};

// Runs body in a forked child with its standard error captured; the child's
// exit code is body's result. A child still running after timeoutMs is
// killed and reported as timed out.
ChildResult runInChild(std::function<int()> const& body, int timeoutMs);

// Resets this process's peak resident memory to what is resident now, so that
// peakResidentKib() measures what follows.
void resetPeakResident();
// The peak resident memory of this process in KiB (VmHWM), -1 if unknown.
long peakResidentKib();
// The resident memory of this process now, in KiB (VmRSS), -1 if unknown.
long residentKib();

}  // namespace sealkeep::test

#endif
