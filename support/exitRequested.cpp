#include "support/exitRequested.h"

#include "support/guards.h"

#include <sys/eventfd.h>
#include <unistd.h>

namespace {

constinit std::atomic<int> event{-1};
using Act = void (*)();
constinit Act lastAct = nullptr; ///< set before any thread that may end the process starts

} // namespace

constinit std::atomic<int> exitRequested{0};

void requestExit()
{
    const KAV::ErrnoKeeper keeper;
    exitRequested = 1;
    exitRequested.notify_all();
    ::eventfd_write(event, 1);
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
