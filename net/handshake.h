#pragma once

#include <array>
#include <string>

/// Reads one line from a connected socket into `buffer`, byte by byte, so that nothing after the line is consumed.
///
/// Returns the number of bytes read, including the "\n", if one arrived; the buffer then holds the bytes before it,
/// including any "\r", terminated by NUL. Returns `bufferSize` if `bufferSize` - 1 bytes were stored and one more
/// arrived, which is lost. Returns -1 after more than `timeoutSeconds` (also if the peer closed meanwhile), and if poll
/// or recv failed. Blocks for at most a little over `timeoutSeconds` (whole seconds of time()).
/// Thread: the socket's own. REQUIRES: `bufferSize` is at least 1.
int read_line_from_socket(int socketDescriptor, char *buffer, unsigned int bufferSize, unsigned int timeoutSeconds);

/// Shared by both sides of the password handshake: lines of clear text, terminated by CR LF:
///
///     listening side:  PASSWORD\r\n
///     connecting side: (the password)\r\n
///     listening side:  OK\r\n, or ERROR\r\n and the prompt again
namespace handshake {

constexpr unsigned int lineSize = 256;      ///< bytes, including the terminating NUL
constexpr unsigned int timeoutSeconds = 30; ///< per received line

/// One received line. Wiped on destruction, since it may contain a password.
class Line {
public:
    Line() = default;
    Line(const Line &) = delete;
    Line &operator=(const Line &) = delete;
    ~Line();

    /// Reads the peer's next line; false on a time-out or a failed connection.
    [[nodiscard]] bool receive(int socketDescriptor);
    /// True when the line, stripped of CR and LF, equals `text`.
    [[nodiscard]] bool is(const std::string &text) const;
    /// The line as received, without its "\n".
    [[nodiscard]] const char *raw() const { return bytes.data(); }

private:
    std::array<char, lineSize> bytes{};
};

/// Sends `line` with one send(2); false, with `errno` set, if that failed. A short send counts as success.
[[nodiscard]] bool sendLine(int socketDescriptor, const std::string &line);

/// Like `sendLine`, for `password` plus the line end; the copy that this needs is wiped.
[[nodiscard]] bool sendSecret(int socketDescriptor, const std::string &password);

} // namespace handshake
