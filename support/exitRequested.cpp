#include "support/exitRequested.h"

#include "support/Thread.h"
#include "support/guards.h"

#include <poll.h>
#include <sys/eventfd.h>
#include <unistd.h>

namespace {

constexpr unsigned int lookPause = 1000; ///< milliseconds between two looks at the flag, where there is no event

constinit std::atomic<int> event{-1};
using Act = void (*)();
constinit Act lastAct = nullptr; ///< set before any thread that may end the process starts

} // namespace

constinit std::atomic<int> exitRequested{0};

void requestExit()
{
    const KAV::ErrnoKeeper keeper;
    exitRequested = 1;
    ::eventfd_write(event, 1);
}

void awaitExit()
{
    pollfd waiting{event, POLLIN, 0};
    while (exitRequested == 0) {
        if (event < 0 || ::poll(&waiting, 1, -1) < 0)
            KAV::Thread::sleep(lookPause);
    }
}

void createExitEvent() { event = ::eventfd(0, EFD_CLOEXEC | EFD_NONBLOCK); }

int exitEvent() { return event; }

void beforeProcessEnds(void (*act)()) { lastAct = act; }

void endProcess(int status)
{
    const KAV::CancelShield shield; // a cancellation must not interrupt this
    if (lastAct != nullptr)
        lastAct();
    ::_exit(status);
}
