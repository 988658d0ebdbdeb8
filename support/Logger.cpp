#include "support/Logger.h"

#include "support/Descriptor.h"
#include "support/escape.h"
#include "support/guards.h"
#include "support/standardError.h"

#include <algorithm>
#include <cerrno>
#include <cstdarg>
#include <cstdio>
#include <memory>
#include <new>
#include <paths.h>
#include <string_view>
#include <sys/socket.h>
#include <sys/un.h>
#include <syslog.h>
#include <type_traits>

namespace KAV {

namespace {

/// Trivially destructible: threads may log while the process exits.
struct State {
    int threshold = Logger::PrintLevel::INFO_LEVEL;
    Logger::PrintMode mode = Logger::PRINT_STDERR;
    char identity[64] = {}; ///< openlog(3) keeps a pointer to it
};
constinit State state;
static_assert(std::is_trivially_destructible_v<State>);

bool isListening(const char *path, int socketType)
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
class LineBuffer {
public:
    explicit LineBuffer(std::size_t wanted)
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

int priorityOf(int level)
{
    if (level <= Logger::PrintLevel::ERROR_LEVEL)
        return LOG_ERR;
    return level <= Logger::PrintLevel::INFO_LEVEL ? LOG_INFO : LOG_DEBUG;
}

void emit(int level, const char *label, std::string_view text)
{
    text = text.substr(0, text.find_last_not_of("\r\n") + 1);
    const std::string_view name(label);
    LineBuffer line(name.size() + sizeof ": " + text.size() * longestEscape + sizeof "\n");
    char *end = line.data();
    for (const std::string_view part : {name, std::string_view(": "), text})
        end = escape(part, end, line.data() + line.size());

    const CancelShield shield;
    if (state.mode == Logger::PRINT_SYSLOG) {
        ::syslog(priorityOf(level), "%.*s", static_cast<int>(end - line.data()), line.data());
        return;
    }
    *end++ = '\n';
    writeToStandardError({line.data(), static_cast<std::size_t>(end - line.data())});
}

[[gnu::format(printf, 3, 0)]] void emitFormatted(int level, const char *label, const char *format, va_list values)
{
    va_list again;
    va_copy(again, values);
    const int length = std::vsnprintf(nullptr, 0, format, again);
    va_end(again);
    LineBuffer text(static_cast<std::size_t>(std::max(length, 0)) + 1);
    const int made = std::vsnprintf(text.data(), text.size(), format, values);
    emit(level, label, {text.data(), std::min(static_cast<std::size_t>(std::max(made, 0)), text.size() - 1)});
}

} // namespace

void Logger::setup(const PrintMode &mode) { state.mode = mode; }

bool Logger::setup(const PrintMode &mode, const std::string &identity, const int &option, const int &facility)
{
    const ErrnoKeeper keeper;
    if (mode == PRINT_SYSLOG) {
        if (!isListening(_PATH_LOG, SOCK_DGRAM) && !isListening(_PATH_LOG, SOCK_STREAM))
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
