// Input: what the peer of a login sends; its length decides on which side of the dialogue the peer is.
#include "net/handshake.h"
#include "support/Descriptor.h"

#include <cassert>
#include <cstdint>
#include <ctime>
#include <sys/socket.h>

static int now; ///< seconds

extern "C" std::time_t __wrap_time(std::time_t *) { return now; }
/// The reader sleeps when the peer has nothing more to say.
extern "C" void __wrap__ZN3KAV6Thread5sleepEj(unsigned int) { now += 100; }

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t *data, std::size_t size)
{
    const std::string sent(reinterpret_cast<const char *>(data), size);
    const bool listens = size % 2 == 0;
    int ends[2];
    ::socketpair(AF_UNIX, SOCK_STREAM, 0, ends);
    const KAV::Descriptor own(ends[0]);
    const KAV::Descriptor peer(ends[1]);
    ::send(peer.get(), sent.data(), sent.size(), 0);
    ::shutdown(peer.get(), SHUT_WR);
    const bool done = listens ? handshake::admit(own.get(), "secret", 3) : handshake::logIn(own.get(), "secret");
    assert(!done || sent.find(listens ? "secret" : "OK") != sent.npos);
    assert(done || !sent.starts_with(listens ? "secret\r\n" : "PASSWORD\r\nOK\r\n"));
    return 0;
}
