#include "net/socketOptions.h"

#include <netinet/in.h>
#include <netinet/tcp.h>
#include <sys/socket.h>

namespace {

constexpr int sendBufferBytes = 16 * 1024; // the kernel doubles it for its own bookkeeping

constexpr int deadAfter = 300;    // seconds
constexpr int quietBefore = 120;  // seconds before the first probe of an idle connection
constexpr int probeInterval = 30; // seconds
constexpr int probes = (deadAfter - quietBefore) / probeInterval;

void set(int socketDescriptor, int level, int option, int value)
{
    ::setsockopt(socketDescriptor, level, option, &value, sizeof value);
}

} // namespace

void limitSendBuffer(int socketDescriptor) { set(socketDescriptor, SOL_SOCKET, SO_SNDBUF, sendBufferBytes); }

void disableNagle(int socketDescriptor) { set(socketDescriptor, IPPROTO_TCP, TCP_NODELAY, 1); }

void giveUpDeadPeer(int socketDescriptor)
{
    set(socketDescriptor, IPPROTO_TCP, TCP_USER_TIMEOUT, deadAfter * 1000); // milliseconds
    set(socketDescriptor, IPPROTO_TCP, TCP_KEEPIDLE, quietBefore);
    set(socketDescriptor, IPPROTO_TCP, TCP_KEEPINTVL, probeInterval);
    set(socketDescriptor, IPPROTO_TCP, TCP_KEEPCNT, probes);
    set(socketDescriptor, SOL_SOCKET, SO_KEEPALIVE, 1);
}
