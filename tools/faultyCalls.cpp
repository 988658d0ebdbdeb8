// A system for bad days: these calls stand in front of the C library's (linker option --wrap) in a navtwine that is
// built for tests. The one that the environment's FAULT names, "THREAD|CALL|SKIPPED|ERRNO", fails once, with a short
// count when ERRNO is 0.

#include <algorithm>
#include <atomic>
#include <cerrno>
#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <new>
#include <pthread.h>
#include <string_view>
#include <thread>
#include <unistd.h>

using namespace std::chrono_literals;

/// Under valgrind or an emulator the main thread would bear that one's name.
[[maybe_unused]] static const int named = ::pthread_setname_np(::pthread_self(), "faulty_navtwine");

static char faultyThread[16] = {};
static char faultyCall[32] = {};

/// Whether FAULT means this thread's calls of `symbol`. Only a part of the symbol is named: "setsockopt" is
/// "__setsockopt64" on 32-bit machines.
static bool isMeant(std::string_view symbol)
{
    char thread[sizeof faultyThread];
    ::pthread_getname_np(::pthread_self(), thread, sizeof thread);
    return faultyCall[0] != '\0' && symbol.find(faultyCall) != symbol.npos && std::string_view(thread) == faultyThread;
}

/// Whether this call of `symbol` is the one. The logger's look at standard error is not counted.
static bool fails(std::string_view symbol, long first = -1)
{
    static std::atomic<int> skipped = 0;
    static const int error = [] {
        int skip = 0;
        int code = 0;
        if (const char *const fault = std::getenv("FAULT"))
            std::sscanf(fault, "%15[^|]|%31[^|]|%d|%d", faultyThread, faultyCall, &skip, &code);
        skipped = skip;
        return code;
    }();
    const bool isLogger = symbol.find("fstat") != symbol.npos && first == STDERR_FILENO;
    if (!isMeant(symbol) || isLogger || skipped-- != 0)
        return false;
    ::dprintf(STDERR_FILENO, "[%s fails]\n", faultyCall);
    errno = error;
    return true;
}

/// The one call that fails for a while: as long as there is a file "out-of-memory" in the current folder. Small
/// requests go well: what is short enough for a string's own room does not get here either.
void *operator new(std::size_t size)
{
    if (size >= 24 && isMeant("operator new") && ::access("out-of-memory", F_OK) == 0) {
        ::dprintf(STDERR_FILENO, "[operator new fails]\n");
        throw std::bad_alloc();
    }
    return std::malloc(size);
}
void operator delete(void *memory) noexcept { std::free(memory); }
void operator delete(void *memory, std::size_t) noexcept { std::free(memory); }

// NOLINTBEGIN(bugprone-reserved-identifier): the linker makes these names.

// Whatever the calls take and return fits into registers, or is handed on from the caller's stack.
using Word = long;
#define FAILING(symbol, failure)                                                                                       \
    extern "C" [[gnu::weak]] Word __real_##symbol(Word, Word, Word, Word, Word, Word, Word);                           \
    extern "C" Word __wrap_##symbol(Word a, Word b, Word size, Word d, Word e, Word f, Word g)                         \
    {                                                                                                                  \
        const bool faulty = fails(#symbol, a);                                                                         \
        if (faulty && errno != 0)                                                                                      \
            return failure;                                                                                            \
        return __real_##symbol(a, b, faulty ? size / 2 : size, d, e, f, g);                                            \
    }
FAILING(accept4, -1);
FAILING(bind, -1);
FAILING(connect, -1);
FAILING(eventfd, -1);
FAILING(fgets, 0);
FAILING(gethostbyname2_r, -1);
FAILING(fstat64, -1);
FAILING(__fstat64_time64, -1);
FAILING(getrlimit64, -1);
FAILING(ioctl, -1);
FAILING(__ioctl_time64, -1);
FAILING(listen, -1);
FAILING(open64, -1);
FAILING(opendir, 0);
FAILING(poll, -1);
FAILING(popen, 0);
FAILING(pthread_create, errno);
FAILING(recv, -1);
FAILING(send, -1);
FAILING(setrlimit64, -1);
FAILING(setsockopt, -1);
FAILING(__setsockopt64, -1);
FAILING(socket, -1);
FAILING(tcgetattr, -1);
FAILING(tcsetattr, -1);
FAILING(write, -1);

/// Says which queue is flushed.
extern "C" int __real_tcflush(int port, int queue);
extern "C" int __wrap_tcflush(int port, int queue)
{
    ::dprintf(STDERR_FILENO, "[tcflush %d]\n", queue);
    return fails("tcflush") ? -1 : __real_tcflush(port, queue);
}

/// What goes to the system log stands on standard error instead, with what decides where it would be filed. As long as
/// there is a file "stalled-log" in the current folder, it takes nothing.
extern "C" void __wrap_openlog(const char *, int, int facility)
{
    ::dprintf(STDERR_FILENO, "[openlog %d]\n", facility);
}
extern "C" void __wrap_syslog(int priority, const char *, int size, const char *text)
{
    while (::access("stalled-log", F_OK) == 0)
        std::this_thread::sleep_for(10ms);
    ::dprintf(STDERR_FILENO, "[syslog %d]%.*s\n", priority, size, text);
}
/// What `syslog` is called where functions are fortified.
extern "C" void __wrap___syslog_chk(int priority, int, const char *format, int size, const char *text)
{
    __wrap_syslog(priority, format, size, text);
}

/// Nothing sleeps for longer than a second here, and time passes ten times as fast.
extern "C" void __real__ZN3KAV6Thread5sleepEj(unsigned int milliseconds);
extern "C" void __wrap__ZN3KAV6Thread5sleepEj(unsigned int milliseconds)
{
    __real__ZN3KAV6Thread5sleepEj(std::min(milliseconds, 1000U));
}
extern "C" time_t __wrap_time(time_t *) { return std::chrono::steady_clock::now().time_since_epoch() / 100ms; }
/// What `time` is called on 32-bit machines, where time_t has 64 bits too.
extern "C" time_t __wrap___time64(time_t *) { return __wrap_time(nullptr); }

// NOLINTEND(bugprone-reserved-identifier)
