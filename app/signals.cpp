#include "app/signals.h"

#include "support/exitRequested.h"

#include <array>
#include <csignal>

namespace {

extern "C" void onInterruptSignal(int /*signal*/) { requestExit(); }

extern "C" void onIgnoredSignal(int /*signal*/) {}

struct Reaction {
    int signal;
    void (*handler)(int);
};

constexpr std::array reactions{
    Reaction{SIGALRM, onIgnoredSignal},
    Reaction{SIGPIPE, onIgnoredSignal},
    Reaction{SIGHUP, onIgnoredSignal},
    Reaction{SIGINT, onInterruptSignal},
};

} // namespace

void installSignalHandlers()
{
    for (const auto &[signal, handler] : reactions) {
        struct sigaction action {};
        action.sa_handler = handler;
        sigemptyset(&action.sa_mask);
        ::sigaction(signal, &action, nullptr);
    }
}
