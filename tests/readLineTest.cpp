#include "net/read_line_from_socket.h"

#include "harness.h"

TEST(read_line_from_socket, takesOneLineAndNothingBehindIt)
{
    const std::string fits(255, 'p');
    const std::tuple<std::string, int, std::string, std::string> cases[] = {
        {"OK\r\nnext", 4, "OK\r", "next"}, {"\n", 1, "", ""},        {fits + "\n", 256, fits, ""},
        {fits + "q\n", 256, fits, "\n"},   {"half", -1, "half", ""},
    };
    const Listener listener;
    for (const auto &[sent, result, line, rest] : cases) {
        Peer peer(listener.number);
        Peer reader = listener.accept();
        peer.send(sent);
        char buffer[256];
        EXPECT_EQ(read_line_from_socket(reader.socket.get(), buffer, sizeof buffer, 0), result) << sent;
        EXPECT_EQ(buffer, line);
        peer.socket.reset();
        EXPECT_EQ(reader.readUntil("never"), rest) << sent;
    }
}

TEST(read_line_from_socket, waitsForAPeerThatClosedWithoutSpinning)
{
    const Listener listener;
    static_cast<void>(Peer(listener.number));
    const Peer reader = listener.accept();
    char buffer[8];
    const std::time_t start = std::time(nullptr);
    const std::clock_t before = std::clock();
    EXPECT_EQ(read_line_from_socket(reader.socket.get(), buffer, sizeof buffer, 2), -1);
    EXPECT_GT(std::time(nullptr) - start, 2);
    EXPECT_LT(std::clock() - before, CLOCKS_PER_SEC / 2);
}
