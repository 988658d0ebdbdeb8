#include "net/handshake.h"

#include "support/Descriptor.h"

#include <gtest/gtest.h>
#include <sys/socket.h>

TEST(handshake, goesByThePassword)
{
    const struct {
        bool listens;
        std::string heard, said;
        bool done;
    } cases[] = {
        {true, "\rabc\nnext", "PASSWORD\r\nOK\r\n", true},
        {true, std::string(512, 'z') + "abc\n", "PASSWORD\r\nERROR\r\nPASSWORD\r\nERROR\r\nPASSWORD\r\nOK\r\n", true},
        {true, "ab\r\nabcd\nABC\nabc\n", "PASSWORD\r\nERROR\r\nPASSWORD\r\nERROR\r\nPASSWORD\r\nERROR\r\n", false},
        {false, "PASSWORD\r\nOK\r\n", "abc\r\n", true},
        {false, "password\r\n", "", false},
    };
    for (const auto &row : cases) {
        int ends[2];
        ASSERT_EQ(::socketpair(AF_UNIX, SOCK_STREAM, 0, ends), 0);
        const KAV::Descriptor own(ends[0]), peer(ends[1]);
        ::send(peer.get(), row.heard.data(), row.heard.size(), 0);
        EXPECT_EQ(row.listens ? handshake::admit(own.get(), "abc", 3) : handshake::logIn(own.get(), "abc"), row.done);
        char said[99] = "";
        ::recv(peer.get(), said, sizeof said - 1, MSG_DONTWAIT);
        EXPECT_EQ(said, row.said) << row.heard;
    }
}
