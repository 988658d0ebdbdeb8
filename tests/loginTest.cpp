#include "harness.h"

TEST(Login, letsClientsInWithThePasswordOnly)
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
    for (const auto &[password, answers, transcript, in] : cases) {
        Program program("--server --server-port $PORT -e --interval 1 --gga --server-passwd '" + password + "'",
                        "while echo '$GPGGA,1'; do sleep 0.2; done");
        Peer peer(program.port);
        peer.send(answers);
        const std::string heard = peer.readUntil(in ? "$GPGGA" : "never");
        EXPECT_EQ(heard.substr(0, heard.find('$')), transcript) << answers;
        EXPECT_EQ(peer.closed, !in) << answers;
    }
}

TEST(Login, isTriedAgainByTheUplink)
{
    const Listener collector;
    Program program("--client --client-remote-host 127.0.0.1 --client-passwd secret -e --interval 1 --gga "
                    "--client-port " +
                        std::to_string(collector.number),
                    R"(n=1000; while printf '$GPGGA,%d\n' $n; do n=$((n+1)); sleep 0.5; done)");
    const std::pair<std::string, std::string> failures[] = {
        {"$GPGGA,1\r\n", "did not receive [PASSWORD PROMPT] from the server. Received data = $GPGGA,1\n"},
        {"PASSWORD\r\nERROR\r\n", "did not receive [PASSWORD OK] from the server. Received data = ERROR\n"},
        {"PASSWORD\r\nok\r\n", "did not receive [PASSWORD OK] from the server. Received data = ok\n"},
        {"", "read_line_from_socket() failed or timed out while listening for a [PASSWORD PROMPT] message\n"},
        {"PASSWORD\n", "read_line_from_socket() failed or timed out while listening for a [PASSWORD OK] message\n"},
    };
    for (const auto &[lines, log] : failures) {
        const Peer session = collector.accept();
        session.send(lines);
        EXPECT_TRUE(program.says("ERROR: client authentificate:" + log +
                                 "ERROR: ClientThread::login to server failed. (see error message above for reason) : "
                                 "retrying login in 30000 ms...\n"));
    }
    for (const char *const session : {"first", "second"}) {
        Peer uplink = collector.accept();
        uplink.send("PASSWORD\r\nOK\r\n");
        std::string stream = uplink.readUntil("$GPGGA,");
        stream += uplink.readUntil("never", 3s);
        std::string expected = "secret\r\n";
        for (int n = std::atoi(&stream[stream.find(',') + 1]); expected.size() < stream.size(); ++n)
            expected += "$GPGGA," + std::to_string(n) + '\n';
        EXPECT_EQ(stream, expected) << session;
        EXPECT_THAT(stream, HasSubstr("$GPGGA,")) << session;
    }
}
