#include "net/handshake.h"

#include "support/Descriptor.h"

#include <gtest/gtest.h>
#include <sys/socket.h>

struct handshakeTest : testing::Test {
    handshakeTest()
    {
        int ends[2];
        EXPECT_EQ(::socketpair(AF_UNIX, SOCK_STREAM, 0, ends), 0);
        own.reset(ends[0]);
        peer.reset(ends[1]);
    }
    void hear(const std::string &text) { EXPECT_EQ(::send(peer.get(), text.data(), text.size(), 0), text.size()); }
    std::string said()
    {
        char text[512];
        const ssize_t length = ::recv(peer.get(), text, sizeof text, MSG_DONTWAIT);
        return {text, static_cast<std::size_t>(std::max<ssize_t>(length, 0))};
    }
    KAV::Descriptor own;
    KAV::Descriptor peer;
};

TEST_F(handshakeTest, admitsPeersThatKnowThePassword)
{
    const std::string prompt = "PASSWORD\r\n";
    const std::string wrong = "ERROR\r\n" + prompt;
    const struct {
        std::string password;
        std::string answers;
        std::string said;
    } cases[] = {
        {"abc", "abc\r\nnext", prompt + "OK\r\n"},
        {"abc", "\rabc\n", prompt + "OK\r\n"},
        {"abc", "ab\r\nabcd\r\nabc\r\n", prompt + wrong + wrong + "OK\r\n"},
        {"abc", "ABC\r\n\r\nxabc\r\nabc\r\n", prompt + wrong + wrong + "ERROR\r\n"},
        {"abc", std::string(700, 'z') + "\n", prompt + wrong + wrong + "ERROR\r\n"}, // pieces of 255 bytes
        {std::string(255, 's'), std::string(255, 's') + "\n", prompt + "OK\r\n"},
    };
    for (const auto &[password, answers, transcript] : cases) {
        hear(answers);
        EXPECT_EQ(handshake::admit(own.get(), password, 3), transcript.ends_with("OK\r\n")) << answers;
        EXPECT_EQ(said(), transcript);
        char rest[256];
        ::recv(own.get(), rest, sizeof rest, MSG_DONTWAIT);
    }
}

TEST_F(handshakeTest, logsInWhereItIsAskedTo)
{
    const std::string refused = "ERROR: client authentificate:did not receive [PASSWORD ";
    const std::string received = "] from the server. Received data = ";
    const struct {
        std::string heard;
        std::string said;
        std::string logged;
    } cases[] = {
        {"PASSWORD\r\nOK\r\n", "secret\r\n", ""},
        {"PASSWORD\r\nERROR\r\n", "secret\r\n", refused + "OK" + received + "ERROR\n"},
        {"PASSWORD\r\nok\r\n", "secret\r\n", refused + "OK" + received + "ok\n"},
        {"password\x9b\r\n", "", refused + "PROMPT" + received + "password\\x9B\n"},
    };
    for (const auto &[heard, answer, logged] : cases) {
        hear(heard);
        testing::internal::CaptureStderr();
        EXPECT_EQ(handshake::logIn(own.get(), "secret"), logged.empty());
        EXPECT_EQ(testing::internal::GetCapturedStderr(), logged);
        EXPECT_EQ(said(), answer) << heard;
    }
}
