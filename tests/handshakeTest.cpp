#include "net/ClientHandlerThread.h"
#include "net/read_line_from_socket.h"
#include "nmea/nmeaDataSubject.h"

#include "harness.h"

#include <ctime>
#include <sys/socket.h>
#include <tuple>

/// Both ends of a connection; the first goes to the code under test.
static std::pair<int, Peer> connectedPair()
{
    int ends[2];
    EXPECT_EQ(::socketpair(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0, ends), 0);
    return {ends[0], Peer(ends[1])};
}

TEST(read_line_from_socket, takesOneLineAndNothingBehindIt)
{
    const std::string fits(255, 'p');
    const std::tuple<std::string, int, std::string, std::string> cases[] = {
        {"OK\r\nnext", 4, "OK\r", "next"}, {"\n", 1, "", ""},        {fits + "\n", 256, fits, ""},
        {fits + "q\n", 256, fits, "\n"},   {"half", -1, "half", ""},
    };
    for (const auto &[sent, result, line, rest] : cases) {
        auto [fd, peer] = connectedPair();
        Peer reader(fd);
        peer.send(sent);
        char buffer[256];
        EXPECT_EQ(read_line_from_socket(fd, buffer, sizeof buffer, 0), result) << sent;
        EXPECT_EQ(buffer, line);
        peer.socket.reset();
        EXPECT_EQ(reader.readUntil("never"), rest) << sent;
    }
}

TEST(read_line_from_socket, waitsForAPeerThatClosedWithoutSpinning)
{
    auto [fd, peer] = connectedPair();
    const KAV::Descriptor owned(fd);
    peer.socket.reset();
    char buffer[8];
    const std::time_t start = std::time(nullptr);
    const std::clock_t before = std::clock();
    EXPECT_EQ(read_line_from_socket(fd, buffer, sizeof buffer, 2), -1);
    EXPECT_GT(std::time(nullptr) - start, 2);
    EXPECT_LT(std::clock() - before, CLOCKS_PER_SEC / 2);
}

TEST(ClientHandlerThread, logsInAsTheListeningSide)
{
    const std::string prompt = "PASSWORD\r\n";
    const std::string wrong = "ERROR\r\n" + prompt;
    const std::string last = "ERROR\r\n";
    const std::string longest(255, 's');
    const std::tuple<std::string, std::string, std::string, bool> cases[] = {
        {"abc", "abc\r\n", prompt + "OK\r\n", true},
        {"abc", "abc\n", prompt + "OK\r\n", true},
        {"abc", "ab\r\nabc\r\n", prompt + wrong + "OK\r\n", true},
        {"abc", "abcd\r\nab\r\n\r\nabc\r\n", prompt + wrong + wrong + last, false},
        {"abc", std::string(700, 'z') + "\n", prompt + wrong + wrong + last, false},
        {longest, longest + "\r\n", prompt + "OK\r\n", true},
        {longest + "s", longest + "s\r\n", prompt + wrong + wrong, false},
        {"", "", "", true},
    };
    for (const auto &[password, answers, transcript, in] : cases) {
        auto [fd, peer] = connectedPair();
        new ClientHandlerThread(fd, password, 3);
        peer.send(answers);
        std::string received;
        EXPECT_TRUE(eventually([&, &client = peer, &expected = transcript] {
            received += client.readUntil(expected, 20ms);
            return received.size() >= expected.size();
        }));
        EXPECT_EQ(received, transcript) << answers;
        const auto streams = [&client = peer] {
            nmeaDataSubject::getInstance()->notify("$GPGGA\r\n");
            return !client.readUntil("$GPGGA\r\n", 20ms).empty();
        };
        EXPECT_EQ(eventually(streams, in ? 30s : 0s), in) << answers;
    }
}
