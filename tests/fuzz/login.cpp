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
    char heard[256];
    const ssize_t length = ::recv(peer.get(), heard, sizeof heard, MSG_DONTWAIT);
    const std::string answer(heard, length > 0 ? static_cast<std::size_t>(length) : 0);
    if (listens) {
        assert(answer.starts_with("PASSWORD\r\n") && done == answer.ends_with("OK\r\n"));
        assert(!done || sent.find("secret") != sent.npos);
        assert(done || !sent.starts_with("secret\r\n"));
    } else {
        assert(answer.empty() || answer == "secret\r\n");
        assert(!done || (!answer.empty() && sent.find("OK") != sent.npos));
        assert(done || !sent.starts_with("PASSWORD\r\nOK\r\n"));
    }
    return 0;
}
