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
    std::string unstripped(bytes.data());
    std::string stripped = KAV::Text::strip(unstripped, {'\n', '\r'});
    const bool equal = stripped == text;
    wipe_string(unstripped);
    wipe_string(stripped);
    return equal;
}

bool sendLine(int socketDescriptor, const std::string &line)
{
    return ::send(socketDescriptor, line.data(), line.size(), 0) >= 0;
}

bool sendSecret(int socketDescriptor, const std::string &password)
{
    std::string line;
    line.reserve(password.size() + 2); // growing would leave a copy behind in freed memory
    line.append(password).append("\r\n");
    const bool sent = sendLine(socketDescriptor, line);
    wipe_string(line);
    return sent;
}

} // namespace handshake
