#include "app/startUp.h"

#include "nmea/gpspipe.h"
#include "support/Descriptor.h"
#include "support/Logger.h"
#include "support/exitRequested.h"

#include <array>
#include <cerrno>
#include <csignal>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <exception>
#include <execinfo.h>
#include <fcntl.h>
#include <malloc.h>
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

/// Loads the code that unwinds a cancelled thread (libgcc_s): if glibc had to load it while out of memory, it would
/// abort the process. backtrace(3) uses the same code.
void loadUnwinder()
{
    void *frame = nullptr;
    ::backtrace(&frame, 1);
}

/// Last resort for an exception that nothing catches: during start-up, lack of memory. A supervisor can try again.
[[noreturn]] void endOnException()
{
    KAV_LOG(ERROR, "out of memory, or an unexpected error: the program ends\n");
    endProcess(EXIT_FAILURE);
}

/// Runs before the constructors of other files, which need memory as well.
[[gnu::constructor(101)]] void installLastResort() { std::set_terminate(endOnException); }

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
    loadUnwinder();
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
