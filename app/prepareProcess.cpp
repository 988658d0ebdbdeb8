#include "app/prepareProcess.h"

#include "support/CancelShield.h"
#include "support/Descriptor.h"
#include "support/Thread.h"
#include "support/exitRequested.h"
#include "support/startWorker.h"

#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <fcntl.h>
#include <malloc.h>
#include <memory>
#include <sys/resource.h>
#include <unistd.h>

namespace {

/// Started with a standard stream closed, its number would go to a client's socket, and log lines into it.
void openStandardStreams()
{
    KAV::Descriptor opened(::open("/dev/null", O_RDWR));
    while (opened.isOpen() && opened.get() <= STDERR_FILENO) {
        static_cast<void>(opened.release());
        opened.reset(::open("/dev/null", O_RDWR));
    }
}

/// The usual soft limit of 1,024 would be the end of "any number of clients".
void raiseDescriptorLimit()
{
    rlimit limit{};
    if (::getrlimit(RLIMIT_NOFILE, &limit) == 0) {
        limit.rlim_cur = limit.rlim_max;
        ::setrlimit(RLIMIT_NOFILE, &limit);
    }
}

/// The first cancellation of a thread loads what unwinds it (libgcc_s), and glibc ends the process when there is no
/// memory for that: once, therefore, while there is some. Held off, it unwinds nothing.
class Rehearsal : public KAV::Thread {
public:
    Rehearsal() : KAV::Thread("navtwine rehearsal", true) { KAV::Thread::start(); }
    ~Rehearsal() override { KAV::Thread::wait(); }
    void execute() override
    {
        const KAV::CancelShield shield;
        KAV::Thread::cancel();
    }
};

} // namespace

void prepareProcess()
{
    openStandardStreams();
    raiseDescriptorLimit();
    makeExitEvent();
    const std::unique_ptr<Rehearsal> ended(KAV::startWorker<Rehearsal>());
    // Messages are small and brief: an arena a thread costs memory with nothing to show for it.
    ::mallopt(M_ARENA_MAX, 1);
}

void daemonizeOrExit(const char *program)
{
    if (::daemon(1, 0) == 0)
        return;
    std::fprintf(stderr, "%s failed to daemonize: errno = %d : %s\n", program, errno, std::strerror(errno));
    std::exit(1);
}
