// A navtwine for tests, whose clock runs ten times as fast and whose system calls fail on request: the linker puts
// these functions in front of the C library's (option --wrap).
//
// The environment's FAULTS names what fails, as THREAD:CALL:AFTER:ERRNO with spaces between. CALL fails once in the
// threads with THREAD in their names, after AFTER calls that succeed; with errno 0 it takes all but the last byte.
// Several faults of one call come in turn. AFTER -1: it fails as long as there is a file "failing" in the current
// folder. For example,
//
//     FAULTS="serial:write:2:5 handler:operator_new:-1:12" faulty_navtwine -e --server --serial /dev/ttyS0 --gga
//
// lets the third write to the serial line fail with EIO, and all allocations in the threads of clients with ENOMEM
// while the file is there. Tests write names such as EIO, which tests/harness.py replaces.
//
// The linker, not a library for LD_PRELOAD: so the same program runs under qemu-user, valgrind and sanitizers, and the
// product's own functions can be replaced, too. Every call has the same wrapper, FAILING below, which hands seven words
// on to the real call: whatever a call takes fits into these, and more than it takes does no harm.

#include <algorithm>
#include <array>
#include <cerrno>
#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <mutex>
#include <new>
#include <pthread.h>
#include <string_view>
#include <termios.h>
#include <unistd.h>

using namespace std::chrono_literals;

struct Fault {
    char thread[16]; ///< a part of its name
    char call[32];   ///< a part of the symbol: "setsockopt" is "__setsockopt64" on 32-bit machines
    int after;
    int error;
};
static std::array<Fault, 64> faults;

[[gnu::constructor]] static void readFaults()
{
    ::pthread_setname_np(::pthread_self(), "faulty_navtwine"); // which would be an emulator's name otherwise
    const char *text = std::getenv("FAULTS");
    int length = 0;
    for (Fault &row : faults)
        if (std::sscanf(text, " %15[^:]:%31[^:]:%d:%d%n", row.thread, row.call, &row.after, &row.error, &length) == 4)
            text += length;
}

/// Whether this call of `symbol` is to fail; `errno` then says how.
static bool fails(std::string_view symbol)
{
    static constinit std::mutex lock;
    char name[16];
    ::pthread_getname_np(::pthread_self(), name, sizeof name);
    const std::lock_guard alone(lock);
    const auto next = std::find_if(faults.begin(), faults.end(), [&](const Fault &fault) {
        return fault.call[0] != '\0' && symbol.find(fault.call) != symbol.npos && std::strstr(name, fault.thread);
    });
    const bool lasts = next != faults.end() && next->after < 0;
    if (next == faults.end() || (lasts ? ::access("failing", F_OK) != 0 : next->after-- > 0))
        return false;
    ::dprintf(STDERR_FILENO, "[%s fails]\n", next->call);
    errno = next->error;
    next->call[0] = lasts ? next->call[0] : '\0';
    return true;
}

/// Small requests go well: what is short enough for a string's own room does not get here either.
void *operator new(std::size_t size)
{
    if (size >= 24 && fails("operator_new"))
        throw std::bad_alloc();
    return std::calloc(1, size);
}
void operator delete(void *memory) noexcept { std::free(memory); }
void operator delete(void *memory, std::size_t size) noexcept
{
    if (::memmem(memory, size, "secret", 6) != nullptr) // in every password of the tests
        ::dprintf(STDERR_FILENO, "[a password stays in freed memory]\n");
    std::free(memory);
}

// NOLINTBEGIN(bugprone-reserved-identifier, performance-no-int-to-ptr): the linker makes these names, and a call may be
// given an address.

// Whatever the calls take and return fits into registers, or is handed on from the caller's stack.
using Word = long;

/// The logger's calls are not counted: they would change with every new line of the log.
static bool isLoggers(std::string_view symbol, Word first)
{
    if (symbol == "poll")
        return *reinterpret_cast<const int *>(first) == STDERR_FILENO;
    return static_cast<int>(first) == STDERR_FILENO && (symbol == "write" || symbol.find("fstat") != symbol.npos);
}

/// Tells what a call was given, where its effect cannot be seen from outside.
static void tell(std::string_view symbol, Word b, Word c, Word d)
{
    const auto numberAt = [](Word address) { return *reinterpret_cast<const int *>(address); };
    if (symbol.find("ioctl") != symbol.npos)
        ::dprintf(STDERR_FILENO, "[rs485 %d]\n", numberAt(c));
    if (symbol.find("setsockopt") != symbol.npos)
        ::dprintf(STDERR_FILENO, "[setsockopt %d %d %d]\n", int(b), int(c), numberAt(d));
    if (symbol == "listen" || symbol == "tcflush")
        ::dprintf(STDERR_FILENO, "[%s %d]\n", symbol.data(), int(b));
    if (symbol == "malloc_trim")
        ::dprintf(STDERR_FILENO, "[malloc_trim]\n");
    if (symbol == "pthread_create") {
        std::size_t size = 0; // 248 KiB; with sanitizers 1024
        ::pthread_attr_getstacksize(reinterpret_cast<const pthread_attr_t *>(b), &size);
        if (size > 1024UL * 1024)
            ::dprintf(STDERR_FILENO, "[a large stack]\n");
    }
    constexpr tcflag_t frame = CSIZE | PARENB | PARODD;
    if (symbol == "tcsetattr")
        ::dprintf(STDERR_FILENO, "[line %o]\n", reinterpret_cast<const termios *>(c)->c_cflag & frame);
}

/// The third argument of a call: a time-out of several seconds passes ten times as fast.
static Word hastened(std::string_view symbol, Word third)
{
    return symbol == "poll" && static_cast<int>(third) > 1000 ? third / 10 : third;
}

static Word failureOf(std::string_view symbol)
{
    if (symbol == "pthread_create")
        return errno;
    return symbol == "fgets" || symbol == "popen" ? 0 : -1;
}

#define FAILING(symbol)                                                                                                \
    extern "C" [[gnu::weak]] Word __real_##symbol(Word, Word, Word, Word, Word, Word, Word);                           \
    extern "C" Word __wrap_##symbol(Word a, Word b, Word c, Word d, Word e, Word f, Word g)                            \
    {                                                                                                                  \
        tell(#symbol, b, c, d);                                                                                        \
        const bool ofLogger = isLoggers(#symbol, a);                                                                   \
        const bool faulty = !ofLogger && fails(#symbol);                                                               \
        if (faulty && errno != 0)                                                                                      \
            return failureOf(#symbol);                                                                                 \
        c = faulty ? c - 1 : hastened(#symbol, c); /* the size, where there is one */                                  \
        const Word result = __real_##symbol(a, b, c, d, e, f, g);                                                      \
        errno = ofLogger ? EDOM : errno; /* which the logger is to give back as it was */                              \
        return result;                                                                                                 \
    }
#include "failingCalls.inc" // made of the list in CMakeLists.txt

/// What goes to the system log stands on standard error instead, with what decides where it would be filed. As long as
/// there is a file "stalled-log" in the current folder, it takes nothing.
extern "C" void __wrap_openlog(const char *identity, int, int facility)
{
    ::dprintf(STDERR_FILENO, "[openlog %s %d]\n", identity, facility);
}
extern "C" void __wrap_syslog(int priority, const char *, int size, const char *text)
{
    while (::access("stalled-log", F_OK) == 0)
        ::sleep(1);
    ::dprintf(STDERR_FILENO, "[syslog %d]%.*s\n", priority, size, text);
}
/// What `syslog` is called where functions are fortified.
extern "C" void __wrap___syslog_chk(int priority, int, const char *format, int size, const char *text)
{
    __wrap_syslog(priority, format, size, text);
}

/// Nothing sleeps for longer than a second.
extern "C" void __real__ZN3KAV6Thread5sleepEj(unsigned int milliseconds);
extern "C" void __wrap__ZN3KAV6Thread5sleepEj(unsigned int milliseconds)
{
    if (milliseconds > 1000)
        ::dprintf(STDERR_FILENO, "[sleep %u]\n", milliseconds);
    __real__ZN3KAV6Thread5sleepEj(std::min(milliseconds, 1000U));
}
extern "C" time_t __wrap_time(time_t *) { return std::chrono::steady_clock::now().time_since_epoch() / 100ms; }
/// What `time` is called on 32-bit machines, where time_t has 64 bits too.
extern "C" time_t __wrap___time64(time_t *) { return __wrap_time(nullptr); }

// NOLINTEND(bugprone-reserved-identifier, performance-no-int-to-ptr)
