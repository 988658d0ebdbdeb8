#include "net/ClientHandlerThread.h"
#include "net/ClientThread.h"
#include "net/ServerThread.h"
#include "nmea/nmeaDataSubject.h"
#include "support/exitRequested.h"

#include "harness.h"

#include <atomic>

// The calls below come here first (linker option --wrap), and fail once when they are told to.

struct Fault {
    std::string call;
    int error;
    std::string line; ///< what the log must say
};
static std::atomic<const Fault *> fault{nullptr};

static bool fails(const char *call)
{
    const Fault *armed = fault;
    if (armed == nullptr || armed->call != call || !fault.compare_exchange_strong(armed, nullptr))
        return false;
    errno = armed->error;
    return true;
}

#define FAILING(result, failure, name, parameters, ...)                                                                \
    extern "C" result __real_##name parameters;                                                                        \
    extern "C" result __wrap_##name parameters { return fails(#name) ? failure : __real_##name(__VA_ARGS__); }

FAILING(int, -1, accept4, (int fd, sockaddr *address, socklen_t *size, int flags), fd, address, size, flags)
FAILING(ssize_t, -1, send, (int fd, const void *data, size_t size, int flags), fd, data, size, flags)
FAILING(ssize_t, -1, recv, (int fd, void *data, size_t size, int flags), fd, data, size, flags)
FAILING(int, errno, pthread_create, (pthread_t * t, const pthread_attr_t *a, void *(*b)(void *), void *o), t, a, b, o)
/// Seconds pass twenty times as fast, and thirty seconds of waiting become an instant here.
extern "C" void __wrap__ZN3KAV6Thread5sleepEj(unsigned int) { std::this_thread::sleep_for(5ms); }
extern "C" time_t __wrap_time(time_t *) { return std::chrono::steady_clock::now().time_since_epoch() / 50ms; }
/// What `time` is called on 32-bit machines, where time_t has 64 bits too.
extern "C" time_t __wrap___time64(time_t *) { return __wrap_time(nullptr); }

/// Every test ends with an exit request, after which every thread must close what it has open.
struct Connections : testing::Test {
    Connections() { exitRequested = 0; }
    ~Connections() override
    {
        exitRequested = 1;
        EXPECT_TRUE(eventually([this] { return countOf("/proc/self/fd") <= descriptors; }));
    }
    /// Whether the stream reaches `peer`, instead of the end of its connection.
    static bool streams(Peer &peer)
    {
        EXPECT_TRUE(eventually([&] {
            nmeaDataSubject::getInstance()->notify("$GPGGA,1\r\n");
            return !peer.readUntil("$GPGGA,1\r\n", 10ms).empty() || peer.closed;
        }));
        return !peer.closed;
    }
    /// Lets each fault happen once; `works` must hold again afterwards, and the log have told the story.
    static void surviveEach(const std::vector<Fault> &faults, const std::function<bool()> &works)
    {
        for (const Fault &each : faults) {
            testing::internal::CaptureStderr();
            fault = &each;
            EXPECT_TRUE(eventually([&] { return works() && fault == nullptr; })) << each.call << ' ' << each.error;
            EXPECT_THAT(testing::internal::GetCapturedStderr(), HasSubstr(each.line));
        }
    }

    const std::ptrdiff_t descriptors = countOf("/proc/self/fd");
};

TEST_F(Connections, logClientsIn)
{
    const std::string prompt = "PASSWORD\r\n";
    const std::string wrong = "ERROR\r\n" + prompt;
    const std::string longest(255, 's');
    const std::tuple<std::string, std::string, std::string, bool> cases[] = {
        {"abc", "abc\r\n", prompt + "OK\r\n", true},
        {"abc", "ab\r\nabc\r\n", prompt + wrong + "OK\r\n", true},
        {"abc", "abcd\r\nab\r\n\r\n", prompt + wrong + wrong + "ERROR\r\n", false},
        {"abc", std::string(700, 'z') + "\n", prompt + wrong + wrong + "ERROR\r\n", false},
        {longest, longest + "\r\n", prompt + "OK\r\n", true},
        {longest + "s", longest + "s\r\n", prompt + wrong + wrong, false},
        {"", "", "", true},
    };
    const Listener listener;
    for (const auto &[password, answers, transcript, in] : cases) {
        Peer peer(listener.number);
        new ClientHandlerThread(listener.accept().socket.release(), password, 3);
        peer.send(answers);
        EXPECT_EQ(transcript.empty() ? "" : peer.readUntil(transcript), transcript) << answers;
        EXPECT_EQ(streams(peer), in) << answers;
    }
}

TEST_F(Connections, costAFaultAtMostOneClient)
{
    const Port port;
    ServerThread server(port.number, "pw", 3);
    // The send first: later on, handlers of earlier clients send as well.
    surviveEach({{"send", EPIPE, "ERROR: send() of [PASSWORD_PROMPT] failed with error code: 32 : Broken pipe\n"},
                 {"accept4", ECONNABORTED, "INFO: waiting"},
                 {"accept4", EMFILE, "INFO: waiting"},
                 {"pthread_create", EAGAIN, "ERROR: pthread_create() failed for thread 'navtwine client-handler"},
                 {"recv", ECONNRESET, "ERROR: failed to login.\n"}},
                [&port] {
                    Peer peer = loggedIn(port.number, "pw\r\n");
                    return streams(peer);
                });
    Peer peer = loggedIn(port.number, "pw\r\n");
    EXPECT_TRUE(streams(peer));
    surviveEach({{"send", EAGAIN, "failed for client: "}, {"send", EINTR, ": error code = 4 : Interrupted"}},
                [&peer] { return streams(peer); });
    exitRequested = 1;
    server.wait();
}

TEST_F(Connections, ofTheUplinkStartAgain)
{
    const Listener listener;
    new ClientThread("127.0.0.1", listener.number, 't', "secret");
    const std::pair<std::string, std::string> collectors[] = {
        {"$GPGGA,1\r\n", "did not receive [PASSWORD PROMPT] from the server. Received data = $GPGGA,1\n"},
        {"PASSWORD\r\nERROR\r\n", "did not receive [PASSWORD OK] from the server. Received data = ERROR\n"},
        {"PASSWORD\r\nok\r\n", "did not receive [PASSWORD OK] from the server. Received data = ok\n"},
        {"", "read_line_from_socket() failed or timed out while listening for a [PASSWORD PROMPT] message\n"},
        {"PASSWORD\n", "read_line_from_socket() failed or timed out while listening for a [PASSWORD OK] message\n"},
    };
    Peer session = listener.accept();
    for (const auto &[lines, log] : collectors) {
        testing::internal::CaptureStderr();
        session.send(lines);
        session = listener.accept(); // the next attempt: by now the log is complete
        EXPECT_THAT(testing::internal::GetCapturedStderr(),
                    HasSubstr("ERROR: client authentificate:" + log +
                              "ERROR: ClientThread::login to server failed. (see error message above for reason) : "
                              "retrying login in 30000 ms...\n"));
    }
    surviveEach({{"recv", ECONNRESET, "[PASSWORD PROMPT] message\nERROR: ClientThread::login"},
                 {"send", EPIPE, "] failed : error code = 32 : Broken pipe\n"}},
                [&] {
                    nmeaDataSubject::getInstance()->notify("$GPGGA,0\r\n"); // ends the session before this one
                    if (!listener.isReady(10ms))
                        return false;
                    session = listener.accept();
                    session.send("PASSWORD\r\nOK\r\n");
                    return streams(session);
                });
    session.readUntil("never", 100ms);
    nmeaDataSubject::getInstance()->notify("once");
    EXPECT_EQ(session.readUntil("once"), "once") << "registered again";
}
