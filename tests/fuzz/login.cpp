// Input: what the peer sends, then which side of the login listens to it.
#include "net/ClientHandlerThread.h"
#include "net/ClientThread.h"
#include "support/Text.h"
#include "support/exitRequested.h"

#include <cassert>
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

/// The lines of `bytes`, the longest cut, without what ends them.
static std::vector<std::string> linesOf(const std::string &bytes)
{
    std::vector<std::string> lines;
    for (std::size_t begin = 0;;) {
        const std::size_t end = std::min(bytes.find('\n', begin), begin + 255);
        if (end >= bytes.size())
            return lines;
        lines.push_back(KAV::Text::strip(bytes.substr(begin, end - begin).c_str(), {'\r', '\n'}));
        begin = end + 1;
    }
}

static std::string serversAnswersTo(const std::vector<std::string> &lines)
{
    std::string answers = "PASSWORD\r\n";
    for (std::size_t attempt = 0; attempt < std::min<std::size_t>(lines.size(), 3); ++attempt) {
        if (lines[attempt] == "secret")
            return answers + "OK\r\n";
        answers += attempt < 2 ? "ERROR\r\nPASSWORD\r\n" : "ERROR\r\n";
    }
    return answers;
}

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t *data, std::size_t size)
{
    FuzzedDataProvider input(data, size);
    const bool listening = input.ConsumeBool();
    const std::string bytes = input.ConsumeRemainingBytesAsString();
    const std::vector<std::string> lines = linesOf(bytes);
    ::socketpair(AF_UNIX, SOCK_STREAM, 0, ends);
    ::send(ends[0], bytes.data(), bytes.size(), 0);
    ::shutdown(ends[0], SHUT_WR);
    KAV::Descriptor own(::dup(ends[1]));
    const int lowest = own.get();
    std::string expected;
    if (listening) {
        expected = serversAnswersTo(lines);
        delete new ClientHandlerThread(std::move(own), "secret", 3);
    } else {
        own.reset(); // the uplink's socket will take its number
        expected = !lines.empty() && lines[0] == "PASSWORD" ? "secret\r\n" : "";
        delete new ClientThread("127.0.0.1", 1, 't', "secret");
    }
    char heard[99] = {};
    ::recv(ends[0], heard, sizeof heard - 1, MSG_DONTWAIT);
    assert(heard == expected);
    const int next = ::dup(ends[1]);
    assert(next == lowest); // none is left open
    ::close(next);
    ::close(ends[0]);
    ::close(ends[1]);
    return 0;
}
