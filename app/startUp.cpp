#include "app/startUp.h"

#include "nmea/gpspipe.h"
#include "support/Descriptor.h"
#include "support/Logger.h"
#include "support/Thread.h"
#include "support/exitRequested.h"
#include "support/guards.h"

#include <array>
#include <cerrno>
#include <csignal>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <fcntl.h>
#include <malloc.h>
#include <memory>
#include <sys/resource.h>
#include <unistd.h>

namespace {

extern "C" void onInterruptSignal(int /*signal*/) { requestExit(); }

extern "C" void onIgnoredSignal(int /*signal*/) {}

struct Reaction {
    int signal;
    void (*handler)(int);
};

constexpr std::array reactions{
    Reaction{SIGALRM, onIgnoredSignal},
    Reaction{SIGPIPE, onIgnoredSignal},
    Reaction{SIGHUP, onIgnoredSignal},
    Reaction{SIGINT, onInterruptSignal},
};

/// Otherwise a client's socket could get the number of a closed standard stream, and receive log lines.
void openStandardStreams()
{
    KAV::Descriptor opened(::open("/dev/null", O_RDWR));
    while (opened.isOpen() && opened.get() <= STDERR_FILENO) {
        static_cast<void>(opened.release());
        opened.reset(::open("/dev/null", O_RDWR));
    }
}

/// The usual soft limit of 1,024 descriptors would limit the number of clients.
void raiseDescriptorLimit()
{
    rlimit limit{};
    if (::getrlimit(RLIMIT_NOFILE, &limit) == 0) {
        limit.rlim_cur = limit.rlim_max;
        ::setrlimit(RLIMIT_NOFILE, &limit);
    }
}

/// Cancels itself once to load the code that unwinds a cancelled thread (libgcc_s): if glibc had to load it while out
/// of memory, it would abort the process. The shield keeps the cancellation from taking effect.
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

void installSignalHandlers()
{
    for (const auto &[signal, handler] : reactions) {
        struct sigaction action {};
        action.sa_handler = handler;
        sigemptyset(&action.sa_mask);
        ::sigaction(signal, &action, nullptr);
    }
}

void prepareProcess()
{
    openStandardStreams();
    raiseDescriptorLimit();
    createExitEvent();
    beforeProcessEnds(endGpspipeForGood);
    const std::unique_ptr<Rehearsal> ended(KAV::startWorker<Rehearsal>());
    // Messages are small and short-lived; one arena per thread would only waste memory.
    ::mallopt(M_ARENA_MAX, 1);
}

void setUpLogger(const RunSettings &settings)
{
    if (settings.logToStderr) {
        KAV::Logger::setup(KAV::Logger::PRINT_STDERR);
    } else if (!KAV::Logger::setup(KAV::Logger::PRINT_SYSLOG, "navtwine", 0, 0)) {
        KAV::Logger::setup(KAV::Logger::PRINT_CONSOLE);
        KAV::Logger::printfError("Unable to log to Syslog");
    }
    KAV::Logger::setPrintLevel(settings.logLevel, false);
}

void daemonizeOrExit(const char *program)
{
    if (::daemon(1, 0) == 0)
        return;
    std::fprintf(stderr, "%s failed to daemonize: errno = %d : %s\n", program, errno, std::strerror(errno));
    std::exit(1);
}
