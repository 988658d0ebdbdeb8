#include "net/ClientHandlerThread.h"
#include "net/ClientThread.h"
#include "nmea/nmeaDataSubject.h"
#include "support/exitRequested.h"

#include "harness.h"

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
    session.send("PASSWORD\r\nOK\r\n");
    EXPECT_TRUE(streams(session));
    session.readUntil("never", 100ms);
    nmeaDataSubject::getInstance()->notify("once");
    EXPECT_EQ(session.readUntil("once"), "once") << "registered again";
}
