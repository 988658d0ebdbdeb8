#include "support/exitRequested.h"

#include "support/ErrnoKeeper.h"

#include <sys/eventfd.h>

namespace {

constinit std::atomic<int> event{-1};

} // namespace

constinit std::atomic<int> exitRequested{0};

void requestExit()
{
    const KAV::ErrnoKeeper keeper;
    exitRequested = 1;
    exitRequested.notify_all(); // of a lock-free atomic: allowed in a handler ([support.signal])
    ::eventfd_write(event, 1);
}

void makeExitEvent() { event = ::eventfd(0, EFD_CLOEXEC | EFD_NONBLOCK); }

int exitEvent() { return event; }
