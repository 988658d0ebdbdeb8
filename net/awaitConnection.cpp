#include "net/awaitConnection.h"

#include "support/Descriptor.h"
#include "support/Logger.h"
#include "support/Thread.h"
#include "support/exitRequested.h"

#include <cerrno>
#include <cstring>
#include <malloc.h>
#include <poll.h>
#include <sys/resource.h>
#include <sys/socket.h>

namespace {

constexpr int waitStep = 1000; ///< milliseconds between two looks at `exitRequested`

/// Clients that have left leave holes in the heap, 3 KiB each: after so many quiet steps the system gets them
/// back.
constexpr unsigned int trimSteps = 30;

/// Two for the pipe of the next gpspipe, two for the uplink's socket and its resolver.
constexpr rlim_t reservedDescriptors = 4;

bool isConnectionWaiting(int listener)
{
    pollfd waiting{listener, POLLIN, 0};
    const int ready = ::poll(&waiting, 1, waitStep);
    if (ready > 0 && (waiting.revents & POLLIN) != 0)
        return true;
    if (ready != 0)
        KAV::Thread::sleep(waitStep); // an error on the listener is reported at once, again and again
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
        KAV::Thread::sleep(waitStep);
    }
    return false;
}

} // namespace

bool awaitConnection(int listener)
{
    for (unsigned int quiet = 1; exitRequested == 0; ++quiet) {
        if (isConnectionWaiting(listener))
            return awaitDescriptor();
        if (quiet % trimSteps == 0)
            ::malloc_trim(0);
    }
    return false;
}
