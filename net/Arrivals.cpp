#include "net/Arrivals.h"

#include "support/Logger.h"
#include "support/Thread.h"
#include "support/exitRequested.h"
#include "support/ifMemoryAllows.h"

#include <array>
#include <cerrno>
#include <cstring>
#include <malloc.h>
#include <poll.h>
#include <sys/resource.h>
#include <sys/socket.h>
#include <utility>

using KAV::Descriptor;

namespace {

/// Milliseconds without a new client after which the holes that clients left in the heap, 3 KiB each, go back to the
/// system. Nothing else wakes the server while nobody connects.
constexpr int trimAfter = 30'000;

constexpr int retryPause = 1000; ///< milliseconds; retry interval while a failure persists

/// Clients taken and not handed out: a bound to one look, should more come without end.
constexpr std::size_t mostTaken = 1024;

/// Two for the pipe of the next gpspipe, two for the uplink's socket and its resolver.
constexpr rlim_t reservedDescriptors = 4;

/// True when `accept` is likely to fail in the same way at once again.
bool isPersistent(int error) { return error != EINTR && error != EAGAIN && error != ECONNABORTED; }

/// Waits for a client, for at most `trimAfter`.
bool isClientWaiting(int listener)
{
    std::array<pollfd, 2> waiting{{{listener, POLLIN, 0}, {exitEvent(), POLLIN, 0}}};
    const int ready = ::poll(waiting.data(), waiting.size(), exitEvent() < 0 ? retryPause : trimAfter);
    if (ready > 0 && (waiting[0].revents & POLLIN) != 0)
        return true;
    if (ready != 0 && exitRequested == 0)
        KAV::Thread::sleep(retryPause); // an error on the listener is reported at once, again and again
    return false;
}

/// Takes what `accept` would take, a socket and the lowest free number, and gives it back. 0, or an error code.
int probeForDescriptor()
{
    const Descriptor probe(::socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0));
    if (!probe.isOpen())
        return errno;
    rlimit limit{};
    if (::getrlimit(RLIMIT_NOFILE, &limit) != 0)
        return 0;
    return static_cast<rlim_t>(probe.get()) + reservedDescriptors < limit.rlim_cur ? 0 : EMFILE;
}

/// False when an exit was requested before a descriptor was free.
bool awaitDescriptor()
{
    for (bool reported = false; exitRequested == 0; reported = true) {
        const int error = probeForDescriptor();
        if (error == 0)
            return true;
        if (!reported)
            KAV_LOG(ERROR, "no client is accepted until a descriptor is free: error code: %d : %s\n", error,
                    std::strerror(error));
        KAV::Thread::sleep(retryPause);
    }
    return false;
}

} // namespace

Descriptor Arrivals::next()
{
    if (taken.empty() && !(awaitClient() && takeOne()))
        return {};
    while (taken.size() < mostTaken && exitRequested == 0 && probeForDescriptor() == 0 && takeOne()) {
    }
    Descriptor connection = std::move(taken.front());
    taken.erase(taken.begin());
    return connection;
}

bool Arrivals::awaitClient() const
{
    while (exitRequested == 0) {
        if (isClientWaiting(listener))
            return awaitDescriptor();
        ::malloc_trim(0);
    }
    return false;
}

/// False when nobody waits any more, or `accept` failed otherwise. A client for whom there is no memory goes on
/// waiting.
bool Arrivals::takeOne()
{
    if (!KAV::ifMemoryAllows([this] { taken.emplace_back(); })) {
        if (taken.empty()) {
            KAV_LOG(ERROR, "out of memory: no client is accepted\n");
            KAV::Thread::sleep(retryPause);
        }
        return false;
    }
    taken.back().reset(::accept4(listener, nullptr, nullptr, SOCK_CLOEXEC));
    if (taken.back().isOpen())
        return true;
    taken.pop_back();
    if (taken.empty() && isPersistent(errno))
        KAV::Thread::sleep(retryPause);
    return false;
}
