#include "support/Logger.h"

#include "support/CancelShield.h"
#include "support/Descriptor.h"
#include "support/ErrnoKeeper.h"

#include <algorithm>
#include <cerrno>
#include <climits>
#include <cstdarg>
#include <cstdio>
#include <mutex>
#include <paths.h>
#include <poll.h>
#include <string_view>
#include <sys/socket.h>
#include <sys/un.h>
#include <syslog.h>
#include <type_traits>
#include <unistd.h>

namespace KAV {

namespace {

/// Trivially destructible on purpose: threads log until the last instant of the process.
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
    // EAGAIN: somebody listens and is busy.
    return ::connect(probe.get(), reinterpret_cast<const sockaddr *>(&address), sizeof address) == 0 || errno == EAGAIN;
}

[[gnu::format(printf, 1, 0)]] std::string format(const char *format, va_list values)
{
    va_list again;
    va_copy(again, values);
    const int length = std::vsnprintf(nullptr, 0, format, again);
    va_end(again);
    std::string text(length > 0 ? static_cast<std::size_t>(length) : 0, '\0');
    std::vsnprintf(text.data(), text.size() + 1, format, values);
    return text;
}

bool isHarmless(char byte)
{
    const auto code = static_cast<unsigned char>(byte);
    return (code >= 0x20 && code < 0x7f) || code >= 0xa0 || byte == '\r' || byte == '\n' || byte == '\t';
}

/// What a peer sent may stand in a message and must not drive the terminal that shows it.
void appendPrintable(std::string &line, const std::string &text)
{
    for (const char byte : text) {
        if (isHarmless(byte)) {
            line += byte;
            continue;
        }
        char code[sizeof "\\xNN"];
        std::snprintf(code, sizeof code, "\\x%02X", static_cast<unsigned int>(static_cast<unsigned char>(byte)));
        line += code;
    }
}

int priorityOf(int level)
{
    if (level <= Logger::PrintLevel::ERROR_LEVEL)
        return LOG_ERR;
    return level <= Logger::PrintLevel::INFO_LEVEL ? LOG_INFO : LOG_DEBUG;
}

/// Whole lines, whatever the other threads write: a pipe keeps only short ones apart by itself (pipe(7)). A reader
/// that takes nothing must hold nobody up: the line is lost then, and the next ones are not waited for.
void writeToStderr(std::string_view line)
{
    constexpr int patience = 100; // milliseconds
    static constinit bool stalled = false;
    const std::lock_guard alone(stderrLock);
    while (!line.empty()) {
        pollfd reader{STDERR_FILENO, POLLOUT, 0};
        stalled = ::poll(&reader, 1, stalled ? 0 : patience) <= 0;
        const ssize_t written =
            stalled ? -1 : ::write(STDERR_FILENO, line.data(), std::min<std::size_t>(line.size(), PIPE_BUF));
        if (written <= 0)
            return;
        line.remove_prefix(static_cast<std::size_t>(written));
    }
}

void emit(int level, const char *label, std::string text)
{
    text.erase(text.find_last_not_of("\r\n") + 1);
    std::string line = std::string(label) + ": ";
    appendPrintable(line, text);

    const CancelShield shield;
    if (state.mode == Logger::PRINT_SYSLOG) {
        ::syslog(priorityOf(level), "%s", line.c_str());
        return;
    }
    line += '\n';
    writeToStderr(line);
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
        ::openlog(state.identity, option, facility);
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
    emit(level, label, KAV::format(format, values));
    va_end(values);
}

void Logger::printfError(const char *format, ...)
{
    const ErrnoKeeper keeper;
    va_list values;
    va_start(values, format);
    emit(PrintLevel::ERROR_LEVEL, PrintLevel::ERROR_LABEL, KAV::format(format, values));
    va_end(values);
}

} // namespace KAV
