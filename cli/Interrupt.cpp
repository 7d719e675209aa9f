// The one signal handler of the command.
#include "cli/Interrupt.h"

#include <atomic>
#include <csignal>

namespace cli {

namespace {

std::atomic<bool> interrupted{false};
static_assert(std::atomic<bool>::is_always_lock_free, "set from a signal handler");

extern "C" void onInterrupt(int) {
    interrupted = true;
}

} // namespace

void catchInterrupt() {
    struct sigaction action {};
    action.sa_handler = onInterrupt;
    action.sa_flags = static_cast<int>(SA_RESETHAND | SA_RESTART);
    ::sigaction(SIGINT, &action, nullptr);
}

void checkInterrupt(std::uint64_t) {
    if (interrupted) {
        throw Interrupted();
    }
}

} // namespace cli
