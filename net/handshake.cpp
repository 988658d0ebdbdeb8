#include "net/handshake.h"

#include "support/Text.h"
#include "support/Thread.h"
#include "support/wipe_string.h"

#include <cerrno>
#include <cstring>
#include <ctime>
#include <poll.h>
#include <sys/socket.h>

namespace {

constexpr int pollStep = 1000; ///< milliseconds

enum class Look { tookByte, nothingYet, failed };

/// Waits up to one poll step for one byte.
Look takeByte(int socketDescriptor, char &byte)
{
    pollfd waiting{socketDescriptor, POLLIN, 0};
    const int ready = ::poll(&waiting, 1, pollStep);
    if (ready < 0)
        return Look::failed;
    if (ready == 0)
        return Look::nothingYet;
    if ((waiting.revents & POLLIN) != 0) {
        const ssize_t taken = ::recv(socketDescriptor, &byte, 1, MSG_DONTWAIT);
        if (taken == 1)
            return Look::tookByte;
        if (taken < 0 && errno != EINTR && errno != EAGAIN)
            return Look::failed;
    }
    // A socket at end of file, or in error, stays ready: without this pause the loop would spin.
    KAV::Thread::sleep(pollStep);
    return Look::nothingYet;
}

} // namespace

int read_line_from_socket(int socketDescriptor, char *buffer, unsigned int bufferSize, unsigned int timeoutSeconds)
{
    std::memset(buffer, 0, bufferSize);
    const std::time_t start = std::time(nullptr);
    unsigned int count = 0;
    do {
        char byte = 0;
        const Look look = takeByte(socketDescriptor, byte);
        if (look == Look::failed)
            return -1;
        if (look == Look::tookByte) {
            if (count >= bufferSize - 1)
                return static_cast<int>(bufferSize);
            if (byte == '\n')
                return static_cast<int>(count + 1);
            buffer[count++] = byte;
        }
    } while (static_cast<unsigned int>(std::time(nullptr) - start) <= timeoutSeconds);
    return -1;
}

namespace handshake {

Line::~Line() { ::explicit_bzero(bytes.data(), bytes.size()); }

bool Line::receive(int socketDescriptor)
{
    return read_line_from_socket(socketDescriptor, bytes.data(), lineSize, timeoutSeconds) >= 0;
}

bool Line::is(const std::string &text) const
{
    const WipedString received(bytes.data());
    std::string stripped = KAV::Text::strip(received, {'\n', '\r'});
    const bool equal = stripped == text;
    wipe_string(stripped);
    return equal;
}

bool sendLine(int socketDescriptor, const std::string &line)
{
    return ::send(socketDescriptor, line.data(), line.size(), 0) >= 0;
}

bool sendSecret(int socketDescriptor, const std::string &password)
{
    WipedString line;
    line.reserve(password.size() + 2); // reallocation would leave a copy in freed memory
    line.append(password).append("\r\n");
    return sendLine(socketDescriptor, line);
}

} // namespace handshake
