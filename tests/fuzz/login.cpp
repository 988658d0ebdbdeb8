// Input: what the peer of a login sends. Both sides read it the same way.
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
    int ends[2];
    ::socketpair(AF_UNIX, SOCK_STREAM, 0, ends);
    const KAV::Descriptor own(ends[0]);
    ::send(ends[1], data, size, 0);
    KAV::Descriptor(ends[1]).reset();
    const std::string sent(reinterpret_cast<const char *>(data), size);
    const std::size_t end = sent.find('\n');
    handshake::Line line;
    const bool received = line.receive(own.get());
    assert(received == (size >= handshake::lineSize || end != sent.npos));
    if (received) {
        const std::string expected = sent.substr(0, std::min<std::size_t>(end, handshake::lineSize - 1)).c_str();
        assert(line.raw() == expected);
        assert(!line.is("secret") || expected.find("secret") != expected.npos);
        assert(line.is("secret") || expected != "secret\r");
    }
    return 0;
}
