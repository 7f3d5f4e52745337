// Signal handlers that hold an interruption until no package is being
// written.
#include "interruptions.hpp"

#include <atomic>
#include <csignal>
#include <initializer_list>

namespace sealkeep::cli {
namespace {

std::atomic<int> writesInProgress{0};
std::atomic<int> pendingSignal{0};
static_assert(std::atomic<int>::is_always_lock_free, "used from a signal handler");

// The signal's own default action: the command ends as it would have.
void honour(int signal)
{
    std::signal(signal, SIG_DFL);
    std::raise(signal);
}

extern "C" void holdInterruption(int signal)
{
    pendingSignal.store(signal);
    if (writesInProgress.load() == 0)
        honour(signal);
}

}  // namespace

void handleInterruptions()
{
    std::signal(SIGXFSZ, SIG_IGN);
    struct sigaction action {};
    action.sa_handler = holdInterruption;
    sigemptyset(&action.sa_mask);
    action.sa_flags = SA_RESTART;
    for (int signal : {SIGINT, SIGTERM, SIGHUP})
        sigaction(signal, &action, nullptr);
}

bool interruptionPending()
{
    return pendingSignal.load() != 0;
}

WriteInProgress::WriteInProgress()
{
    ++writesInProgress;
}

WriteInProgress::~WriteInProgress()
{
    if (--writesInProgress == 0 && pendingSignal.load() != 0)
        honour(pendingSignal.load());
}

}  // namespace sealkeep::cli
