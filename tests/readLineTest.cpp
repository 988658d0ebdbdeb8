#include "net/read_line_from_socket.h"

#include "harness.h"

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
