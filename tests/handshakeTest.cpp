#include "net/handshake.h"

#include "support/Descriptor.h"

#include <functional>
#include <gtest/gtest.h>
#include <sys/socket.h>

/// What one side answers to a peer that says all it has to say at once.
static std::string answer(const std::string &heard, const std::function<void(int)> &side)
{
    int ends[2];
    EXPECT_EQ(::socketpair(AF_UNIX, SOCK_STREAM, 0, ends), 0);
    const KAV::Descriptor own(ends[0]);
    const KAV::Descriptor peer(ends[1]);
    EXPECT_EQ(::send(peer.get(), heard.data(), heard.size(), 0), heard.size());
    side(own.get());
    char text[512];
    const ssize_t length = ::recv(peer.get(), text, sizeof text, MSG_DONTWAIT);
    return {text, static_cast<std::size_t>(std::max<ssize_t>(length, 0))};
}

TEST(handshake, admitsPeersThatKnowThePassword)
{
    const struct {
        std::string password, heard, said;
    } cases[] = {
        {"abc", "\rabc\nnext", "OK\r\n"},
        {"abc", "ab\r\nabcd\r\nabc\r\n", "ERROR\r\nPASSWORD\r\nERROR\r\nPASSWORD\r\nOK\r\n"},
        {"abc", "ABC\r\n\r\nxabc\r\nabc\r\n", "ERROR\r\nPASSWORD\r\nERROR\r\nPASSWORD\r\nERROR\r\n"},
        {"zz", std::string(514, 'z') + "\n", "ERROR\r\nPASSWORD\r\nERROR\r\nPASSWORD\r\nOK\r\n"}, // 256 bytes at once
        {std::string(255, 's'), std::string(255, 's') + "\n", "OK\r\n"},
    };
    for (const auto &row : cases) {
        bool admitted = false;
        EXPECT_EQ(answer(row.heard, [&](int own) { admitted = handshake::admit(own, row.password, 3); }),
                  "PASSWORD\r\n" + row.said);
        EXPECT_EQ(admitted, row.said.ends_with("OK\r\n")) << row.heard;
    }
}

TEST(handshake, logsInWhereItIsAskedTo)
{
    const std::string refused = "ERROR: client authentificate:did not receive [PASSWORD ";
    const std::string received = "] from the server. Received data = ";
    const std::tuple<std::string, std::string, std::string> cases[] = {
        {"PASSWORD\r\nOK\r\n", "secret\r\n", ""},
        {"PASSWORD\r\nok\r\n", "secret\r\n", refused + "OK" + received + "ok\n"},
        {"password\x9b\r\n", "", refused + "PROMPT" + received + "password\\x9B\n"},
    };
    for (const auto &[heard, said, logged] : cases) {
        bool loggedIn = false;
        testing::internal::CaptureStderr();
        EXPECT_EQ(answer(heard, [&](int own) { loggedIn = handshake::logIn(own, "secret"); }), said) << heard;
        EXPECT_EQ(testing::internal::GetCapturedStderr(), logged);
        EXPECT_EQ(loggedIn, logged.empty()) << heard;
    }
}
