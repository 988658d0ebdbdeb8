#include "support/exitRequested.h"

#include "support/guards.h"

#include <sys/eventfd.h>
#include <unistd.h>

namespace {

constinit std::atomic<int> event{-1};
using Act = void (*)();
constinit Act lastAct = nullptr; ///< written before any thread starts that may end the process

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
    const KAV::CancelShield shield; // nobody may stop this end half-way
    if (lastAct != nullptr)
        lastAct();
    ::_exit(status);
}
