#pragma once

#include <array>
#include <string>

/// Reads one line from a connected socket into `buffer`, byte by byte, so that nothing behind the line is
/// taken.
///
/// Returns the number of bytes taken, "\n" included, when a "\n" arrived: the buffer then holds the bytes
/// before it, "\r" included, ending in NUL. Returns `bufferSize` when `bufferSize` - 1 bytes were stored and
/// one more arrived: that one is lost, the buffer holds the others. Returns -1 when more than `timeoutSeconds`
/// have passed (also for a peer that closed meanwhile), and when poll or recv failed. `bufferSize` in bytes, at
/// least 1. Blocks for at most a little over `timeoutSeconds` (whole seconds of time()); sleeps whenever there
/// is nothing to take. Thread: the socket's own.
int read_line_from_socket(int socketDescriptor, char *buffer, unsigned int bufferSize, unsigned int timeoutSeconds);

/// What both sides of the password handshake share. It is clear text, lines that end in CR LF:
///
///     listening side:  PASSWORD\r\n
///     connecting side: (the password)\r\n
///     listening side:  OK\r\n, or ERROR\r\n and the prompt again
namespace handshake {

constexpr unsigned int lineSize = 256;      ///< bytes, the ending NUL included
constexpr unsigned int timeoutSeconds = 30; ///< for every received line

/// One received line. Wiped at the end of its life, since it may hold a password.
class Line {
public:
    Line() = default;
    Line(const Line &) = delete;
    Line &operator=(const Line &) = delete;
    ~Line();

    /// Reads the next line of the peer; false when it did not come in time or the connection failed.
    [[nodiscard]] bool receive(int socketDescriptor);
    /// True when the line, without CR and LF at its ends, is `text`.
    [[nodiscard]] bool is(const std::string &text) const;
    /// The line as it came, without its "\n".
    [[nodiscard]] const char *raw() const { return bytes.data(); }

private:
    std::array<char, lineSize> bytes{};
};

/// Sends `line` with one send(2); false, with `errno` set, when it failed. A short send counts as success.
[[nodiscard]] bool sendLine(int socketDescriptor, const std::string &line);

/// Sends `password` and the line end with one send(2), like `sendLine`; the copy that this needs is wiped.
[[nodiscard]] bool sendSecret(int socketDescriptor, const std::string &password);

} // namespace handshake
