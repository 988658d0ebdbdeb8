// Input: what the peer sends, then which side of the login listens to it.
#include "net/ClientHandlerThread.h"
#include "net/ClientThread.h"
#include "support/exitRequested.h"

#include <cassert>
#include <cstring>
#include <fuzzer/FuzzedDataProvider.h>
#include <sys/socket.h>
#include <unistd.h>

static int ends[2]; ///< of the connection, the peer's first
static int now;     ///< seconds

extern "C" std::time_t __wrap_time(std::time_t *) { return now; }
extern "C" int __wrap_connect(int socket, const sockaddr *, socklen_t) { return ::dup2(ends[1], socket) < 0 ? -1 : 0; }
/// Without a thread: the body runs in the constructor, and is over when that returns.
extern "C" void __wrap__ZN3KAV6Thread5startEv(KAV::Thread *side)
{
    exitRequested = 0;
    now = 0;
    side->execute();
}
/// Both sides sleep first when they have nothing more to do.
extern "C" void __wrap__ZN3KAV6Thread5sleepEj(unsigned int)
{
    ++now;
    exitRequested = 1;
}

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t *data, std::size_t size)
{
    FuzzedDataProvider input(data, size);
    const bool listening = input.ConsumeBool();
    const std::string bytes = input.ConsumeRemainingBytesAsString();
    ::socketpair(AF_UNIX, SOCK_STREAM, 0, ends);
    ::send(ends[0], bytes.data(), bytes.size(), 0);
    ::shutdown(ends[0], SHUT_WR);
    KAV::Descriptor own(::dup(ends[1]));
    const int lowest = own.get();
    if (listening) {
        delete new ClientHandlerThread(std::move(own), "secret", 3);
    } else {
        own.reset(); // the uplink's socket will take its number
        delete new ClientThread("127.0.0.1", 1, 't', "secret");
    }
    char answers[99] = {};
    ::recv(ends[0], answers, sizeof answers - 1, MSG_DONTWAIT);
    const std::string heard = answers;
    if (listening) {
        assert(heard.starts_with("PASSWORD\r\n"));
        assert(heard.size() <= std::strlen("PASSWORD\r\nERROR\r\n") * 3);
        assert(bytes.find("secret") != bytes.npos || heard.find("OK") == heard.npos);
        assert(!bytes.starts_with("secret\r\n") || heard == "PASSWORD\r\nOK\r\n");
    } else {
        assert(heard.empty() || heard == "secret\r\n");
        assert(bytes.find("PASSWORD") != bytes.npos || heard.empty());
        assert(!bytes.starts_with("PASSWORD\r\n") || !heard.empty());
    }
    const int next = ::dup(ends[1]);
    assert(next == lowest); // none is left open
    ::close(next);
    ::close(ends[0]);
    ::close(ends[1]);
    return 0;
}
