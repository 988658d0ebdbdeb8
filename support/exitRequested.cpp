#include "support/exitRequested.h"

#include "support/guards.h"

#include <sys/eventfd.h>

namespace {

constinit std::atomic<int> event{-1};

} // namespace

constinit std::atomic<int> exitRequested{0};

void requestExit()
{
    exitRequested = 1;
    wakeExitWaiters();
}

void wakeExitWaiters()
{
    const KAV::ErrnoKeeper keeper;
    ::eventfd_write(event, 1);
}

void createExitEvent() { event = ::eventfd(0, EFD_CLOEXEC | EFD_NONBLOCK); }

int exitEvent() { return event; }
