#include "net/handshake.h"

#include "support/Descriptor.h"

#include <gtest/gtest.h>
#include <sys/socket.h>

TEST(handshake, takesOneLineAtATime)
{
    const std::pair<std::string, std::string> cases[] = {
        {"\rabc\nnext", "PASSWORD\r\nOK\r\n"},
        {std::string(512, 'z') + "abc\n", "PASSWORD\r\nERROR\r\nPASSWORD\r\nERROR\r\nPASSWORD\r\nOK\r\n"},
    };
    for (const auto &[heard, answer] : cases) {
        int ends[2];
        ASSERT_EQ(::socketpair(AF_UNIX, SOCK_STREAM, 0, ends), 0);
        const KAV::Descriptor own(ends[0]), peer(ends[1]);
        ::send(peer.get(), heard.data(), heard.size(), 0);
        EXPECT_TRUE(handshake::admit(own.get(), "abc", 3));
        char said[99] = "";
        ::recv(peer.get(), said, sizeof said - 1, MSG_DONTWAIT);
        EXPECT_EQ(said, answer) << heard;
    }
}
