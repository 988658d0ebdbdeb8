// A navtwine for tests, whose clock runs ten times as fast and whose system calls fail on request: the linker puts
// these functions in front of the C library's (option --wrap), and tools/CMakeLists.txt reads their names out of this
// file.
//
// The environment's FAULT names what fails, such as "server-thr: accept4 2 EINTR EAGAIN poll ENOMEM": in the thread
// whose name has "server-thr" in it, accept4 goes well twice, then it fails with EINTR and at once again with EAGAIN,
// and the first poll fails. "short" in place of an error is a short count; -1 in place of 2 lets a call fail as long as
// there is a file "failing" in the current folder.

#include <algorithm>
#include <array>
#include <cctype>
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
#include <thread>
#include <unistd.h>

using namespace std::chrono_literals;

/// Under valgrind or an emulator the main thread would bear that one's name.
[[maybe_unused]] static const int named = ::pthread_setname_np(::pthread_self(), "faulty_navtwine");

struct Fault {
    const char *thread; ///< a part of its name
    const char *call;   ///< a part of the symbol: "setsockopt" is "__setsockopt64" on 32-bit machines
    int after;
    int error;
    bool isOver;
};

/// 0 for "short", -1 for what is no error's name.
static int errorOf(std::string_view word)
{
    int code = word == "short" ? 0 : 133;
    while (code > 0 && (::strerrorname_np(code) == nullptr || word != ::strerrorname_np(code)))
        --code;
    return code > 0 || word == "short" ? code : -1;
}

static std::array<Fault, 64> readFaults()
{
    std::array<Fault, 64> faults{};
    Fault next{};
    const char *const text = std::getenv("FAULT");
    std::size_t count = 0;
    for (char *word = std::strtok(::strdup(text != nullptr ? text : ""), " "); word; word = std::strtok(nullptr, " ")) {
        char &last = word[std::strlen(word) - 1];
        if (errorOf(word) >= 0) {
            next.error = errorOf(word);
            faults[count++] = next;
            next.after = 0;
        } else if (last == ':') {
            last = '\0';
            next.thread = word;
        } else if (word[0] == '-' || std::isdigit(word[0]) != 0) {
            next.after = std::atoi(word);
        } else {
            next.call = word;
        }
    }
    return faults;
}

/// Whether this call of `symbol` is to fail; `errno` then says how.
static bool fails(std::string_view symbol)
{
    static constinit std::mutex lock;
    static std::array<Fault, 64> faults = readFaults();
    char thread[16];
    ::pthread_getname_np(::pthread_self(), thread, sizeof thread);
    const std::lock_guard alone(lock);
    Fault *next = faults.data();
    while (next->call != nullptr &&
           (next->isOver || symbol.find(next->call) == symbol.npos || std::strstr(thread, next->thread) == nullptr))
        ++next;
    const bool lasts = next->after < 0;
    if (next->call == nullptr || (lasts ? ::access("failing", F_OK) != 0 : next->after-- > 0))
        return false;
    next->isOver = !lasts;
    ::dprintf(STDERR_FILENO, "[%s fails]\n", next->call);
    errno = next->error;
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

// NOLINTBEGIN(bugprone-reserved-identifier): the linker makes these names.

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
    if (symbol == "tcflush")
        ::dprintf(STDERR_FILENO, "[tcflush %d]\n", int(b));
    if (symbol == "tcsetattr") {
        const tcflag_t flags = reinterpret_cast<const termios *>(c)->c_cflag;
        ::dprintf(STDERR_FILENO, "[line %s%s%s]\n", (flags & CSIZE) == CS7 ? "CS7" : "CS8",
                  (flags & PARENB) != 0 ? " PARENB" : "", (flags & PARODD) != 0 ? " PARODD" : "");
    }
}

static Word failureOf(std::string_view symbol)
{
    if (symbol == "pthread_create")
        return errno;
    return symbol == "fgets" || symbol == "opendir" || symbol == "popen" ? 0 : -1;
}

#define FAILING(symbol)                                                                                                \
    extern "C" [[gnu::weak]] Word __real_##symbol(Word, Word, Word, Word, Word, Word, Word);                           \
    extern "C" Word __wrap_##symbol(Word a, Word b, Word c, Word d, Word e, Word f, Word g)                            \
    {                                                                                                                  \
        tell(#symbol, b, c, d);                                                                                        \
        const bool faulty = !isLoggers(#symbol, a) && fails(#symbol);                                                  \
        if (faulty && errno != 0)                                                                                      \
            return failureOf(#symbol);                                                                                 \
        return __real_##symbol(a, b, faulty ? c / 2 : c, d, e, f, g); /* the size, where there is one */               \
    }
#include "failingCalls.h" // made of the list in CMakeLists.txt

/// What goes to the system log stands on standard error instead, with what decides where it would be filed. As long as
/// there is a file "stalled-log" in the current folder, it takes nothing.
extern "C" void __wrap_openlog(const char *identity, int, int facility)
{
    ::dprintf(STDERR_FILENO, "[openlog %s %d]\n", identity, facility);
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

// NOLINTEND(bugprone-reserved-identifier)
