#include "support/Logger.h"

#include "support/Descriptor.h"
#include "support/guards.h"

#include <algorithm>
#include <array>
#include <cerrno>
#include <chrono>
#include <climits>
#include <cstdarg>
#include <cstdint>
#include <cstdio>
#include <cstring>
#include <fcntl.h>
#include <memory>
#include <mutex>
#include <new>
#include <paths.h>
#include <poll.h>
#include <string_view>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/un.h>
#include <syslog.h>
#include <type_traits>
#include <unistd.h>
#include <utility>

namespace KAV {

namespace {

/// Trivially destructible: threads may log while the process exits.
struct State {
    int threshold = Logger::PrintLevel::INFO_LEVEL;
    Logger::PrintMode mode = Logger::PRINT_STDERR;
    char identity[64] = {}; ///< openlog(3) keeps a pointer to it
};
constinit State state;
constinit std::mutex stderrLock;
static_assert(std::is_trivially_destructible_v<State> && std::is_trivially_destructible_v<std::mutex>);

bool somebodyListensOn(const char *path, int socketType)
{
    const Descriptor probe(::socket(AF_UNIX, socketType | SOCK_CLOEXEC | SOCK_NONBLOCK, 0));
    sockaddr_un address{};
    address.sun_family = AF_UNIX;
    std::snprintf(address.sun_path, sizeof address.sun_path, "%s", path);
    if (!probe.isOpen())
        return false;
    // EAGAIN: there is a listener, but its queue is full.
    return ::connect(probe.get(), reinterpret_cast<const sockaddr *>(&address), sizeof address) == 0 || errno == EAGAIN;
}

/// A buffer of the wanted size or, out of memory, a small one for the beginning of the text.
class Room {
public:
    explicit Room(std::size_t wanted)
        : heap(wanted > sizeof small ? new (std::nothrow) char[wanted] : nullptr),
          bytes(heap || wanted <= sizeof small ? wanted : sizeof small)
    {
    }
    [[nodiscard]] char *data() { return heap ? heap.get() : small; }
    [[nodiscard]] std::size_t size() const { return bytes; }

private:
    char small[256] = {};
    std::unique_ptr<char[]> heap;
    std::size_t bytes;
};

/// The length in bytes of the first character of `text` if it is safe for a terminal, otherwise 0. A lone CR is not: a
/// peer's text could overwrite its own log line. REQUIRES: `text` is not empty.
std::size_t harmlessLength(std::string_view text)
{
    const auto at = [text](std::size_t index) { return static_cast<unsigned char>(text[index]); };
    if (at(0) < 0x80) {
        const bool endOfLine = text[0] == '\n' || (text[0] == '\r' && text.substr(1, 1) == "\n");
        return (at(0) >= 0x20 && at(0) != 0x7f) || text[0] == '\t' || endOfLine ? 1 : 0;
    }
    // UTF-8 (RFC 3629): no overlong forms, no surrogates, nothing beyond U+10FFFF.
    const std::size_t length = at(0) >= 0xf0 ? 4 : at(0) >= 0xe0 ? 3 : 2;
    constexpr std::array<std::uint32_t, 5> least{0, 0, 0xa0, 0x800, 0x10000}; // C1 controls are below 0xa0
    if (at(0) < 0xc2 || at(0) > 0xf4 || text.size() < length)
        return 0;
    std::uint32_t code = at(0) & (0x7fU >> length);
    for (std::size_t index = 1; index < length; ++index) {
        if ((at(index) & 0xc0U) != 0x80U)
            return 0;
        code = code << 6U | (at(index) & 0x3fU);
    }
    const bool surrogate = code >= 0xd800 && code <= 0xdfff;
    return code >= least[length] && code <= 0x10ffff && !surrogate ? length : 0;
}

/// Copies as much of `text` to `to` as fits, escaping bytes that are unsafe for a terminal as \xNN. Returns the end.
char *writeHarmless(std::string_view text, char *to, const char *end)
{
    constexpr std::size_t escaped = sizeof "\\xNN" - 1;
    while (!text.empty()) {
        const std::size_t length = harmlessLength(text);
        const std::size_t needed = length > 0 ? length : escaped;
        if (static_cast<std::size_t>(end - to) <= needed) // room for snprintf's NUL, or for the line end
            break;
        if (length > 0)
            std::memcpy(to, text.data(), length);
        else
            std::snprintf(to, escaped + 1, "\\x%02X", static_cast<unsigned int>(static_cast<unsigned char>(text[0])));
        to += needed;
        text.remove_prefix(std::max<std::size_t>(length, 1));
    }
    return to;
}

int priorityOf(int level)
{
    if (level <= Logger::PrintLevel::ERROR_LEVEL)
        return LOG_ERR;
    return level <= Logger::PrintLevel::INFO_LEVEL ? LOG_INFO : LOG_DEBUG;
}

/// Standard error, without blocking. A write to a terminal or pipe may block even after poll(2) reported room, and
/// O_NONBLOCK on the shared file description would affect other processes: so these are reopened for each line.
class LogStream {
public:
    LogStream() : own(isTerminalOrPipe() ? ::open("/proc/self/fd/2", O_WRONLY | O_NONBLOCK | O_NOCTTY | O_CLOEXEC) : -1)
    {
    }
    [[nodiscard]] int get() const { return own.isOpen() ? own.get() : STDERR_FILENO; }

private:
    static bool isTerminalOrPipe()
    {
        struct stat status {};
        return ::fstat(STDERR_FILENO, &status) == 0 && (S_ISCHR(status.st_mode) || S_ISFIFO(status.st_mode));
    }

    const Descriptor own;
};

/// Waits until `stream` is writable; false when `deadline` passes first.
bool isWritable(int stream, std::chrono::steady_clock::time_point deadline)
{
    pollfd reader{stream, POLLOUT, 0};
    int ready = 0;
    do {
        const auto left =
            std::chrono::duration_cast<std::chrono::milliseconds>(deadline - std::chrono::steady_clock::now());
        ready = ::poll(&reader, 1, static_cast<int>(std::max<std::int64_t>(left.count(), 0)));
    } while (ready < 0 && errno == EINTR);
    return ready > 0;
}

/// Writes whole lines; needs a lock, since pipe writes are atomic only up to PIPE_BUF bytes (pipe(7)). If the reader
/// stalls, the line is lost, and later lines do not wait until it reads again.
void writeToStderr(std::string_view line)
{
    constexpr std::chrono::milliseconds patience{100};
    static constinit bool stalled = false;
    static constinit bool cut = false; ///< the last line was written without its end
    const std::lock_guard alone(stderrLock);
    const LogStream stream;
    const auto deadline = std::chrono::steady_clock::now() + (stalled ? std::chrono::milliseconds{0} : patience);
    std::size_t missing = line.size();
    while (missing > 0) {
        stalled = !isWritable(stream.get(), deadline);
        if (stalled)
            break;
        const std::string_view next = cut ? "\n" : line.substr(line.size() - missing, PIPE_BUF);
        const ssize_t written = ::write(stream.get(), next.data(), next.size());
        if (written < 0 && errno == EINTR)
            continue;
        if (written <= 0)
            break;
        if (!std::exchange(cut, false))
            missing -= static_cast<std::size_t>(written);
    }
    cut = cut || (missing > 0 && missing < line.size());
}

void emit(int level, const char *label, std::string_view text)
{
    text = text.substr(0, text.find_last_not_of("\r\n") + 1);
    const std::string_view name(label);
    Room line(name.size() + sizeof ": " + text.size() * (sizeof "\\xNN" - 1) + sizeof "\n");
    char *end = writeHarmless(name, line.data(), line.data() + line.size());
    end = writeHarmless(": ", end, line.data() + line.size());
    end = writeHarmless(text, end, line.data() + line.size());

    const CancelShield shield;
    if (state.mode == Logger::PRINT_SYSLOG) {
        ::syslog(priorityOf(level), "%.*s", static_cast<int>(end - line.data()), line.data());
        return;
    }
    *end++ = '\n';
    writeToStderr({line.data(), static_cast<std::size_t>(end - line.data())});
}

[[gnu::format(printf, 3, 0)]] void emitFormatted(int level, const char *label, const char *format, va_list values)
{
    va_list again;
    va_copy(again, values);
    const int length = std::vsnprintf(nullptr, 0, format, again);
    va_end(again);
    Room text(static_cast<std::size_t>(std::max(length, 0)) + 1);
    const int made = std::vsnprintf(text.data(), text.size(), format, values);
    emit(level, label, {text.data(), std::min(static_cast<std::size_t>(std::max(made, 0)), text.size() - 1)});
}

} // namespace

void Logger::setup(const PrintMode &mode) { state.mode = mode; }

bool Logger::setup(const PrintMode &mode, const std::string &identity, const int &option, const int &facility)
{
    const ErrnoKeeper keeper;
    if (mode == PRINT_SYSLOG) {
        if (!somebodyListensOn(_PATH_LOG, SOCK_DGRAM) && !somebodyListensOn(_PATH_LOG, SOCK_STREAM))
            return false;
        std::snprintf(state.identity, sizeof state.identity, "%s", identity.c_str());
        ::openlog(state.identity, option, facility != 0 ? facility : LOG_DAEMON); // 0 is LOG_KERN
    }
    state.mode = mode;
    return true;
}

void Logger::setPrintLevel(int level, bool /*reserved*/) { state.threshold = level; }

bool Logger::isPrintable(int level) { return level <= state.threshold; }

void Logger::printfGeneric(int level, const char *label, const char *format, ...)
{
    const ErrnoKeeper keeper;
    va_list values;
    va_start(values, format);
    emitFormatted(level, label, format, values);
    va_end(values);
}

void Logger::printfError(const char *format, ...)
{
    const ErrnoKeeper keeper;
    va_list values;
    va_start(values, format);
    emitFormatted(PrintLevel::ERROR_LEVEL, PrintLevel::ERROR_LABEL, format, values);
    va_end(values);
}

} // namespace KAV
