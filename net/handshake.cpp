#include "net/handshake.h"

#include "net/read_line_from_socket.h"
#include "support/Text.h"
#include "support/wipe_string.h"

#include <cstring>
#include <sys/socket.h>

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
    line.reserve(password.size() + 2); // growing would leave a copy behind in freed memory
    line.append(password).append("\r\n");
    return sendLine(socketDescriptor, line);
}

} // namespace handshake
