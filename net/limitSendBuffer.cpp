#include "net/limitSendBuffer.h"

#include <sys/socket.h>

namespace {

constexpr int sendBufferBytes = 16 * 1024; // the kernel doubles it for its own book-keeping

} // namespace

void limitSendBuffer(int socketDescriptor)
{
    // A kernel that refuses keeps its default, and the connection works all the same.
    static_cast<void>(::setsockopt(socketDescriptor, SOL_SOCKET, SO_SNDBUF, &sendBufferBytes, sizeof sendBufferBytes));
}
