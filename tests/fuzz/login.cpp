// Input: what the peer sends, then which side of the login listens to it.
#include "net/ClientHandlerThread.h"
#include "net/ClientThread.h"
#include "support/exitRequested.h"

static int ends[2], now; ///< of the connection, the peer's first; seconds

extern "C" std::time_t __wrap_time(std::time_t *) { return now; }
extern "C" int __wrap_connect(int fd, const sockaddr *, socklen_t) { return ::dup2(ends[1], fd) < 0 ? -1 : 0; }
/// Without a thread: the body runs in the constructor, and is over when that returns.
extern "C" void __wrap__ZN3KAV6Thread5startEv(KAV::Thread *side)
{
    exitRequested = now = 0;
    side->execute();
}
/// Both sides sleep first when they have nothing more to do.
extern "C" void __wrap__ZN3KAV6Thread5sleepEj(unsigned int)
{
    ++now;
    exitRequested = 1;
}

static void check(FuzzedDataProvider input)
{
    const bool listening = input.ConsumeBool();
    const std::string bytes = input.ConsumeRemainingBytesAsString();
    std::vector<std::string> lines;
    for (std::size_t at = 0, end; (end = std::min(bytes.find('\n', at), at + 255)) < bytes.size(); at = end + 1)
        lines.push_back(KAV::Text::strip(bytes.substr(at, end - at).c_str(), {'\r', '\n'}));
    std::string answers = "PASSWORD\r\n";
    for (std::size_t n = 0; n < std::min<std::size_t>(lines.size(), 3) && !answers.ends_with("OK\r\n"); ++n)
        answers += lines[n] == "secret" ? "OK\r\n" : n == 2 ? "ERROR\r\n" : "ERROR\r\nPASSWORD\r\n";

    ::socketpair(AF_UNIX, SOCK_STREAM, 0, ends);
    ::send(ends[0], bytes.data(), bytes.size(), 0);
    ::shutdown(ends[0], SHUT_WR);
    const int lowest = ::dup(ends[1]);
    const int next = ::dup(ends[1]);
    ::close(next); // what a leak would take
    if (listening) {
        delete new ClientHandlerThread(KAV::Descriptor(lowest), "secret", 3);
    } else {
        ::close(lowest); // the uplink's socket will take its number
        delete new ClientThread("127.0.0.1", 1, 't', "secret");
    }
    char heard[99] = {};
    ::recv(ends[0], heard, sizeof heard - 1, MSG_DONTWAIT);
    assert(heard == (listening ? answers : !lines.empty() && lines[0] == "PASSWORD" ? "secret\r\n" : ""));
    assert(::close(lowest) + ::close(next) == -2 && ::close(ends[0]) + ::close(ends[1]) == 0); // none is left open
}
