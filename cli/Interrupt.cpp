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
    for (int const number : {SIGINT, SIGTERM, SIGHUP}) {
        struct sigaction before {};
        ::sigaction(number, nullptr, &before);
        if (before.sa_handler == SIG_IGN) {
            continue; // whoever started this wants it to go on
        }
        struct sigaction action {};
        action.sa_handler = onInterrupt;
        action.sa_flags = static_cast<int>(SA_RESETHAND | SA_RESTART);
        ::sigaction(number, &action, nullptr);
    }
}

void checkInterrupt(std::uint64_t) {
    if (interrupted) {
        throw Interrupted();
    }
}

} // namespace cli
