#include "net/awaitConnection.h"

#include "support/Descriptor.h"
#include "support/Logger.h"
#include "support/Thread.h"
#include "support/exitRequested.h"

#include <array>
#include <cerrno>
#include <cstring>
#include <malloc.h>
#include <poll.h>
#include <sys/resource.h>
#include <sys/socket.h>

namespace {

/// Milliseconds without a new client after which the system gets back the holes that clients leave in the heap, 3 KiB
/// each. Nothing else wakes the server while nobody connects: it would cost, all the years long.
constexpr int quietStep = 30'000;

constexpr int pause = 1000; ///< milliseconds until the next look at what may last

/// Two for the pipe of the next gpspipe, two for the uplink's socket and its resolver.
constexpr rlim_t reservedDescriptors = 4;

bool isConnectionWaiting(int listener)
{
    std::array<pollfd, 2> waiting{{{listener, POLLIN, 0}, {exitEvent(), POLLIN, 0}}};
    const int ready = ::poll(waiting.data(), waiting.size(), exitEvent() < 0 ? pause : quietStep);
    if (ready > 0 && (waiting[0].revents & POLLIN) != 0)
        return true;
    if (ready != 0 && exitRequested == 0)
        KAV::Thread::sleep(pause); // an error on the listener is reported at once, again and again
    return false;
}

/// Takes what `accept` would take, a socket and the lowest free number, and gives it back. 0, or an error code.
int probeForDescriptor()
{
    const KAV::Descriptor probe(::socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0));
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
        KAV::Thread::sleep(pause);
    }
    return false;
}

} // namespace

bool awaitConnection(int listener)
{
    while (exitRequested == 0) {
        if (isConnectionWaiting(listener))
            return awaitDescriptor();
        ::malloc_trim(0);
    }
    return false;
}
