#include "net/handshake.h"

#include "nmea/shortage.h"
#include "support/Logger.h"
#include "support/Text.h"
#include "support/Thread.h"
#include "support/wipe_string.h"

#include <array>
#include <cerrno>
#include <cstring>
#include <ctime>
#include <poll.h>
#include <sys/socket.h>

namespace {

constexpr int pollStep = 1000;           ///< milliseconds
constexpr unsigned int lineSize = 256;   ///< bytes, including the terminating NUL
constexpr unsigned int lineTimeout = 30; ///< seconds, per received line

enum class ReadResult { byte, nothingYet, failed };

/// Waits up to one poll step for one byte.
ReadResult takeByte(int socketDescriptor, char &byte)
{
    pollfd waiting{socketDescriptor, POLLIN, 0};
    const int ready = ::poll(&waiting, 1, pollStep);
    if (ready < 0)
        return ReadResult::failed;
    if (ready == 0)
        return ReadResult::nothingYet;
    if ((waiting.revents & POLLIN) != 0) {
        const ssize_t taken = ::recv(socketDescriptor, &byte, 1, MSG_DONTWAIT);
        if (taken == 1)
            return ReadResult::byte;
        if (taken < 0 && errno != EINTR && errno != EAGAIN)
            return ReadResult::failed;
        if (taken == 0 && isShort()) // the peer has closed its side, and others need what it holds
            return ReadResult::failed;
    }
    // A socket at end of file, or in error, stays ready: without this pause the loop would spin.
    KAV::Thread::sleep(pollStep);
    return ReadResult::nothingYet;
}

/// One received line. Wiped on destruction, since it may contain a password.
class Line {
public:
    Line() = default;
    Line(const Line &) = delete;
    Line &operator=(const Line &) = delete;
    ~Line() { ::explicit_bzero(bytes.data(), bytes.size()); }

    /// Reads the peer's next line; false on a time-out or a failed connection.
    [[nodiscard]] bool receive(int socketDescriptor)
    {
        return read_line_from_socket(socketDescriptor, bytes.data(), lineSize, lineTimeout) >= 0;
    }

    /// True when the line, stripped of CR and LF, equals `text`.
    [[nodiscard]] bool is(const std::string &text) const
    {
        const WipedString received(bytes.data());
        std::string stripped = KAV::Text::strip(received, {'\n', '\r'});
        const bool equal = stripped == text;
        wipe_string(stripped);
        return equal;
    }

    /// The line as received, without its "\n".
    [[nodiscard]] const char *raw() const { return bytes.data(); }

private:
    std::array<char, lineSize> bytes{};
};

/// One send(2); false, with `errno` set, if that failed. A short send counts as success.
bool sendLine(int socketDescriptor, const std::string &line)
{
    return ::send(socketDescriptor, line.data(), line.size(), 0) >= 0;
}

/// Like `sendLine`, for the password and the line end; the copy that this needs is wiped.
bool sendSecret(int socketDescriptor, const std::string &password)
{
    WipedString line;
    line.reserve(password.size() + 2); // reallocation would leave a copy in freed memory
    line.append(password).append("\r\n");
    return sendLine(socketDescriptor, line);
}

} // namespace

int read_line_from_socket(int socketDescriptor, char *buffer, unsigned int bufferSize, unsigned int timeoutSeconds)
{
    std::memset(buffer, 0, bufferSize);
    const std::time_t start = std::time(nullptr);
    unsigned int count = 0;
    do {
        char byte = 0;
        const ReadResult result = takeByte(socketDescriptor, byte);
        if (result == ReadResult::failed)
            return -1;
        if (result == ReadResult::byte) {
            if (count >= bufferSize - 1)
                return static_cast<int>(bufferSize);
            if (byte == '\n')
                return static_cast<int>(count + 1);
            buffer[count++] = byte;
        }
    } while (static_cast<unsigned int>(std::time(nullptr) - start) <= timeoutSeconds);
    return -1;
}

bool handshake::admit(int socketDescriptor, const std::string &password, unsigned int maxAttempts)
{
    for (unsigned int failed = 0; maxAttempts == 0 || failed < maxAttempts; ++failed) {
        if (!sendLine(socketDescriptor, "PASSWORD\r\n")) {
            KAV_LOG_ERRNO("send() of [PASSWORD_PROMPT] failed with error code: %d : %s\n");
            return false;
        }
        Line answer;
        if (!answer.receive(socketDescriptor)) {
            KAV_LOG(ERROR, "read_line_from_socket() failed or timed out\n");
            return false;
        }
        if (answer.is(password)) {
            if (sendLine(socketDescriptor, "OK\r\n")) {
                KAV_LOG(INFO, "successfully logged in!\n");
                return true;
            }
            KAV_LOG_ERRNO("send() of [PASSWORD_OK] failed with error code: %d : %s\n");
        } else if (!sendLine(socketDescriptor, "ERROR\r\n")) {
            KAV_LOG_ERRNO("send() of [PASSWORD_WRONG] failed with error code: %d : %s\n");
        }
    }
    return false;
}

bool handshake::logIn(int socketDescriptor, const std::string &password)
{
    Line line;
    if (!line.receive(socketDescriptor)) {
        KAV_LOG(ERROR, "client authentificate:read_line_from_socket() failed or timed out while listening for a "
                       "[PASSWORD PROMPT] message\n");
        return false;
    }
    if (!line.is("PASSWORD")) {
        KAV_LOG(ERROR, "client authentificate:did not receive [PASSWORD PROMPT] from the server. Received data = %s\n",
                line.raw());
        return false;
    }
    if (!sendSecret(socketDescriptor, password)) {
        KAV_LOG_ERRNO("client authentificate:send() of [PASSWORD SECRET] failed : error code = %d : %s\n");
        return false;
    }
    if (!line.receive(socketDescriptor)) {
        KAV_LOG(ERROR, "client authentificate:read_line_from_socket() failed or timed out while listening for a "
                       "[PASSWORD OK] message\n");
        return false;
    }
    if (!line.is("OK")) {
        KAV_LOG(ERROR, "client authentificate:did not receive [PASSWORD OK] from the server. Received data = %s\n",
                line.raw());
        return false;
    }
    return true;
}
