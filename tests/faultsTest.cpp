#include "net/ClientThread.h"
#include "net/ServerThread.h"
#include "nmea/nmeaDataSubject.h"
#include "support/exitRequested.h"

#include "harness.h"

#include <atomic>
#include <cstring>
#include <poll.h>
#include <sys/socket.h>
#include <unistd.h>

// The calls below come here first (linker option --wrap), and fail once when they are told to.

namespace {

struct Fault {
    const char *call;
    int error;
    const char *line; ///< what the log must say
};
std::atomic<const Fault *> fault{nullptr};

bool fails(const char *call)
{
    const Fault *armed = fault;
    if (armed == nullptr || std::strcmp(armed->call, call) != 0 || !fault.compare_exchange_strong(armed, nullptr))
        return false;
    errno = armed->error;
    return true;
}

} // namespace

#define FAILING(result, failure, name, parameters, ...)                                                                \
    extern "C" result __real_##name parameters;                                                                        \
    extern "C" result __wrap_##name parameters { return fails(#name) ? failure : __real_##name(__VA_ARGS__); }

using Body = void *(*)(void *);
FAILING(int, -1, accept4, (int fd, sockaddr *address, socklen_t *size, int flags), fd, address, size, flags)
FAILING(ssize_t, -1, send, (int fd, const void *data, size_t size, int flags), fd, data, size, flags)
FAILING(ssize_t, -1, recv, (int fd, void *data, size_t size, int flags), fd, data, size, flags)
FAILING(int, errno, pthread_create, (pthread_t * t, const pthread_attr_t *a, Body b, void *o), t, a, b, o)
/// Thirty seconds of waiting become an instant here.
extern "C" void __wrap__ZN3KAV6Thread5sleepEj(unsigned int /*milliseconds*/) { std::this_thread::sleep_for(5ms); }
extern "C" time_t __wrap_time(time_t * /*result*/)
{
    return std::chrono::steady_clock::now().time_since_epoch() / 50ms;
}
/// What `time` is called on 32-bit machines, where time_t has 64 bits too.
extern "C" time_t __wrap___time64(time_t *result) { return __wrap_time(result); }

namespace {

/// Whether the stream reaches `peer`.
bool streams(Peer &peer)
{
    return eventually([&] {
               nmeaDataSubject::getInstance()->notify("$GPGGA,1\r\n");
               return peer.readUntil("$GPGGA,1\r\n", 10ms).find("$GPGGA") != std::string::npos || peer.closed;
           }) &&
           !peer.closed;
}

/// Lets each fault happen once, and looks that `works` holds again afterwards and that the log told the
/// story.
template <typename Works>
void surviveEach(const std::vector<Fault> &faults, Works works)
{
    for (const Fault &each : faults) {
        testing::internal::CaptureStderr();
        fault = &each;
        EXPECT_TRUE(eventually([&] { return works() && fault == nullptr; })) << each.call << ' ' << each.error;
        EXPECT_NE(testing::internal::GetCapturedStderr().find(each.line), std::string::npos) << each.line;
    }
}

/// A client that has answered the server's prompt, if there was one.
Peer loggedIn(std::uint16_t port)
{
    Peer peer(port);
    peer.readUntil("PASSWORD\r\n", 2s);
    peer.send("pw\r\n");
    return peer;
}

} // namespace

TEST(Faults, costAClientAtMostItsConnection)
{
    ServerThread server(0, "pw", 3);
    ASSERT_TRUE(eventually([] { return listeningPort(::getpid()) != 0; }));
    const std::uint16_t port = listeningPort(::getpid());
    const std::size_t before = count(::getpid(), "fd");
    // The send first: later on, handlers of earlier clients send as well.
    surviveEach({{"send", EPIPE, "ERROR: send() of [PASSWORD_PROMPT] failed with error code: 32 : Broken pipe\n"},
                 {"accept4", ECONNABORTED, "INFO: waiting"},
                 {"accept4", EMFILE, "INFO: waiting"},
                 {"pthread_create", EAGAIN, "ERROR: pthread_create() failed for thread 'navtwine client-handler"},
                 {"recv", ECONNRESET, "read_line_from_socket() failed or timed out\nERROR: failed to login.\n"}},
                [port] {
                    Peer peer = loggedIn(port);
                    return streams(peer);
                });
    Peer peer = loggedIn(port);
    EXPECT_TRUE(streams(peer));
    surviveEach({{"send", EAGAIN, "failed for client: "}, {"send", EINTR, ": error code = 4 : Interrupted"}},
                [&peer] { return streams(peer); });
    peer.socket.reset();
    EXPECT_TRUE(eventually([before] {
        nmeaDataSubject::getInstance()->notify("$GPGGA,1\r\n");
        return count(::getpid(), "fd") <= before;
    })) << "a connection stays open";
    exitRequested = 1;
    server.wait();
}

TEST(Faults, makeTheUplinkStartAgain)
{
    exitRequested = 0;
    std::uint16_t port = 0;
    const KAV::Descriptor listener = openOnFreePort(SOCK_STREAM, port);
    new ClientThread("127.0.0.1", port, 't', "secret");
    const std::string login = "ERROR: ClientThread::login to server failed. (see error message above for reason) : "
                              "retrying login in 30000 ms...\n";
    const std::string bad = "ERROR: client authentificate:did not receive [PASSWORD ";
    const std::pair<std::vector<const char *>, std::string> collectors[] = {
        {{"$GPGGA,1\r\n"}, bad + "PROMPT] from the server. Received data = $GPGGA,1\n" + login},
        {{"PASSWORD\r\n", "ERROR\r\n"}, bad + "OK] from the server. Received data = ERROR\n" + login},
        {{"PASSWORD\r\n", "ok\r\n"}, bad + "OK] from the server. Received data = ok\n" + login},
        {{}, "failed or timed out while listening for a [PASSWORD PROMPT] message\n" + login},
        {{"PASSWORD\n"}, "failed or timed out while listening for a [PASSWORD OK] message\n" + login},
    };
    for (const auto &[lines, log] : collectors) {
        Peer session = acceptFrom(listener);
        testing::internal::CaptureStderr();
        for (const char *const line : lines) {
            session.send(line);
            session.readUntil("secret\r\n", 200ms);
        }
        session.readUntil("never");
        EXPECT_TRUE(session.closed);
        acceptFrom(listener); // the next attempt: by now the log is complete
        EXPECT_NE(testing::internal::GetCapturedStderr().find(log), std::string::npos) << log;
    }
    surviveEach({{"recv", ECONNRESET, "[PASSWORD PROMPT] message\nERROR: ClientThread::login"},
                 {"send", EPIPE, "] failed : error code = 32 : Broken pipe\n"}},
                [&listener] {
                    EXPECT_TRUE(eventually([&listener] {
                        nmeaDataSubject::getInstance()->notify("$GPGGA,0\r\n"); // ends the session before this one
                        pollfd connecting{listener.get(), POLLIN, 0};
                        return ::poll(&connecting, 1, 10) == 1;
                    }));
                    Peer session = acceptFrom(listener);
                    session.send("PASSWORD\r\nOK\r\n");
                    return streams(session);
                });
}
