#pragma once

#include <cerrno>
#include <cstdint>
#include <cstring>
#include <string>

namespace KAV {

/// The process-wide log; static operations only.
///
/// Thread: `setup` and `setPrintLevel`: main, before any other thread starts; the rest: any thread at any time, even
/// while the process exits. Errors: a message that cannot be delivered is lost; nothing is thrown. All operations
/// preserve `errno`.
class Logger {
public:
    Logger() = delete;

    /// Where messages go.
    enum PrintMode {
        PRINT_CONSOLE = 1, ///< standard error, because there is no system log
        PRINT_SYSLOG = 3,  ///< the system log (syslog(3))
        PRINT_STDERR = 6,  ///< standard error, at the user's request
    };

    /// Levels, on the scale of the threshold (1 to 100; a level passes if it is not above the threshold), and their
    /// labels.
    struct PrintLevel {
        static constexpr std::int32_t ERROR_LEVEL = 10;
        static constexpr std::int32_t INFO_LEVEL = 30;
        static constexpr std::int32_t DEBUG_LEVEL = 50;
        static constexpr const char *ERROR_LABEL = "ERROR";
        static constexpr const char *INFO_LABEL = "INFO";
        static constexpr const char *DEBUG_LABEL = "DEBUG";
    };

    /// Selects a destination that needs no setup.
    static void setup(const PrintMode &mode);

    /// Selects `mode`, for the system log with the arguments of openlog(3): `identity` is copied, and `facility` 0
    /// selects LOG_DAEMON. False, with nothing changed, when nothing listens on the system log's socket.
    static bool setup(const PrintMode &mode, const std::string &identity, const int &option, const int &facility);

    /// Sets the threshold. The flag is reserved and has no effect.
    static void setPrintLevel(int level, bool reserved);

    /// True when a message of this level passes the threshold.
    [[nodiscard]] static bool isPrintable(int level);

    /// Emits one message, in one piece, at this level's severity. Trailing line ends are replaced by exactly one. LF,
    /// TAB, a CR before an LF and valid UTF-8 characters other than control codes pass unchanged; any other byte is
    /// escaped as \xNN. Out of memory, a long message is truncated. REQUIRES: `isPrintable(level)`.
    [[gnu::format(printf, 3, 4)]] static void printfGeneric(int level, const char *label, const char *format, ...);

    /// Emits one message as an error, regardless of the threshold.
    [[gnu::format(printf, 1, 2)]] static void printfError(const char *format, ...);
};

} // namespace KAV

/// Logs at ERROR, INFO or DEBUG: KAV_LOG(ERROR, "format", values...). Evaluates the values only if the level passes.
#define KAV_LOG(LEVEL, ...)                                                                                            \
    do {                                                                                                               \
        if (KAV::Logger::isPrintable(KAV::Logger::PrintLevel::LEVEL##_LEVEL))                                          \
            KAV::Logger::printfGeneric(KAV::Logger::PrintLevel::LEVEL##_LEVEL, KAV::Logger::PrintLevel::LEVEL##_LABEL, \
                                       __VA_ARGS__);                                                                   \
    } while (false)

/// Logs a failed call at ERROR level; the last two values of the format, %d and %s, are `errno` and its text:
/// KAV_LOG_ERRNO("connect() failed with error code: %d : %s\n").
#define KAV_LOG_ERRNO(...) KAV_LOG(ERROR, __VA_ARGS__, errno, std::strerror(errno))
