#pragma once

#include <array>
#include <string>

/// What both sides of the password handshake share. It is clear text: one line each way, ending in CR LF.
///
///     listening side:  PASSWORD\r\n
///     connecting side: (the password)\r\n
///     listening side:  OK\r\n, or ERROR\r\n and the prompt again
namespace handshake {

constexpr unsigned int lineSize = 256;      ///< bytes, the ending NUL included
constexpr unsigned int timeoutSeconds = 30; ///< for every received line

/// One received line. Wiped when it goes: it may hold a password.
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

/// Sends `password` and the line end with one send(2), as `sendLine`; the copy that it makes for that is wiped.
[[nodiscard]] bool sendSecret(int socketDescriptor, const std::string &password);

} // namespace handshake
