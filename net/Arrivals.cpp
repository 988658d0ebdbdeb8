#include "net/Arrivals.h"

#include "net/reserve.h"
#include "nmea/shortage.h"
#include "support/Logger.h"
#include "support/Thread.h"
#include "support/exitRequested.h"
#include "support/guards.h"

#include <array>
#include <cerrno>
#include <chrono>
#include <malloc.h>
#include <poll.h>
#include <sys/socket.h>

using KAV::Descriptor;
using namespace std::chrono_literals;

namespace {

/// Milliseconds without a new client before freed memory (3 KiB per client that left) is returned to the system.
/// Nothing else wakes an idle server.
constexpr int trimAfter = 30'000;

constexpr int retryPause = 1000; ///< milliseconds; retry interval while the cause of a failure persists

/// Clients that connect in one instant come less than `gatherStep` apart. Until they pause for that long, no handler is
/// created: its thread would compete for the processor while the backlog overflows.
constexpr int gatherStep = 5; ///< milliseconds

/// Upper limits of the clients accepted in a row and of the time this takes, in case they never stop coming.
constexpr std::size_t mostTaken = 1024;
constexpr auto gatherTime = 100ms;

/// True when `accept` would probably fail again immediately.
bool isPersistent(int error) { return error != EINTR && error != EAGAIN && error != ECONNABORTED; }

bool isClientWaiting(int listener, int milliseconds)
{
    std::array<pollfd, 2> waiting{{{listener, POLLIN, 0}, {exitEvent(), POLLIN, 0}}};
    const int ready = ::poll(waiting.data(), waiting.size(), milliseconds);
    if (ready > 0 && (waiting[0].revents & POLLIN) != 0)
        return true;
    if (ready != 0 && exitRequested == 0)
        KAV::Thread::sleep(retryPause); // poll returns immediately on a listener in error
    return false;
}

/// Waits for a free descriptor. False when an exit was requested first.
bool awaitDescriptor()
{
    for (bool reported = false; exitRequested == 0; reported = true) {
        if (isDescriptorFree())
            return true;
        if (!reported)
            KAV_LOG_ERRNO("no client is accepted until a descriptor is free: error code: %d : %s\n");
        reportShortage();
        KAV::Thread::sleep(retryPause);
    }
    return false;
}

} // namespace

Descriptor Arrivals::next()
{
    if (!taken.empty())
        takeUntilPause(0);
    else if (awaitClient() && takeOne())
        takeUntilPause(gatherStep);
    else
        return {};
    Descriptor connection = std::move(taken.front());
    taken.erase(taken.begin());
    return connection;
}

bool Arrivals::awaitClient() const
{
    while (exitRequested == 0) {
        if (isClientWaiting(listener.get(), exitEvent() < 0 ? retryPause : trimAfter))
            return awaitDescriptor();
        ::malloc_trim(0);
    }
    return false;
}

/// Accepts clients until none comes for `pause` milliseconds, or one cannot be taken.
void Arrivals::takeUntilPause(int pause)
{
    const auto end = std::chrono::steady_clock::now() + gatherTime;
    while (taken.size() < mostTaken && std::chrono::steady_clock::now() < end) {
        if (!isClientWaiting(listener.get(), pause) || !isDescriptorFree())
            return;
        if (!takeOne())
            return;
    }
}

/// Accepts one client. False when none is waiting, `accept` failed, or memory is exhausted: then the client stays in
/// the backlog.
bool Arrivals::takeOne()
{
    if (!KAV::ifMemoryAllows([this] { taken.emplace_back(); })) {
        if (taken.empty()) {
            KAV_LOG(ERROR, "out of memory: no client is accepted\n");
            KAV::Thread::sleep(retryPause);
        }
        return false;
    }
    taken.back().reset(::accept4(listener.get(), nullptr, nullptr, SOCK_CLOEXEC));
    if (taken.back().isOpen())
        return true;
    taken.pop_back();
    if (taken.empty() && isPersistent(errno))
        KAV::Thread::sleep(retryPause);
    return false;
}
