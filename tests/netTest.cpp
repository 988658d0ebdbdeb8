#include "harness.h"

#include <deque>

const std::string toCollector = " --client --client-remote-host 127.0.0.1 --client-port ";

TEST(Login, letsClientsInWithThePasswordOnly)
{
    const std::string prompt = "PASSWORD\r\n";
    const std::string wrong = "ERROR\r\n" + prompt;
    const std::string longest(255, 's');
    const struct {
        std::string password, answers, transcript, log;
        bool in;
    } cases[] = {
        {"abc", "abc\r\n", prompt + "OK\r\n", "INFO: successfully logged in!\n", true},
        {"abc", "\rabc\r\n", prompt + "OK\r\n", "INFO: successfully logged in!\n", true},
        {"abc", "ab\r\nabc\r\n", prompt + wrong + "OK\r\n", "INFO: successfully logged in!\n", true},
        {"abc", "abcd\r\nab\r\n\r\n", prompt + wrong + wrong + "ERROR\r\n", "ERROR: failed to login.\n", false},
        {"abc", std::string(700, 'z') + "\n", prompt + wrong + wrong + "ERROR\r\n", "ERROR: failed to login.\n", false},
        {"abc", "abc", prompt, "ERROR: read_line_from_socket() failed or timed out\nERROR: failed to login.\n", false},
        {longest, longest + "\r\n", prompt + "OK\r\n", "INFO: successfully logged in!\n", true},
        {longest + "s", longest + "s\r\n", prompt + wrong + wrong, "ERROR: failed to login.\n", false},
        {"", "", "", "INFO: A remote client is trying to connect.\n", true},
    };
    std::deque<Program> programs; // at the same time
    std::deque<Peer> peers;
    for (const auto &row : cases)
        programs.emplace_back(
            Start{.arguments = server + "--server-passwd '" + row.password + "'", .gpspipe = stream, .faults = ""});
    for (const Program &program : programs)
        peers.emplace_back(program.port);
    std::this_thread::sleep_for(1s); // ten of the thirty seconds that an answer may take
    for (std::size_t row = 0; row < programs.size(); ++row)
        peers[row].send(cases[row].answers);
    for (std::size_t row = 0; row < programs.size(); ++row) {
        const auto &[password, answers, transcript, log, in] = cases[row];
        const std::string heard = peers[row].readUntil(in ? "$GPGGA" : "never");
        EXPECT_EQ(heard.substr(0, heard.find('$')), transcript) << answers;
        EXPECT_EQ(peers[row].closed, !in) << answers;
        EXPECT_TRUE(programs[row].says(log)) << answers;
        EXPECT_TRUE(in || programs[row].says("INFO: The remote client is disconnected.\n"));
    }
}

TEST(Login, isTriedAgainByTheUplink)
{
    const Listener collector;
    Program program(
        {.arguments = "-e --interval 1 --gga --client-passwd secret" + toCollector + std::to_string(collector.number),
         .gpspipe = R"(n=1000; while printf '$GPGGA,%d\n' $n; do n=$((n+1)); sleep 0.5; done)",
         .faults = ""});
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
                                 "retrying login in 30000 ms...\n[sleep 30000]\n"));
    }
    for (const char *const session : {"first", "second"}) {
        Peer accepted = collector.accept();
        accepted.send("PASSWORD\r\nOK\r\n");
        std::string heard = accepted.readUntil("$GPGGA,");
        heard += accepted.readUntil("never", 3s);
        std::string expected = "secret\r\n";
        for (int n = std::atoi(&heard[heard.find(',') + 1]); expected.size() < heard.size(); ++n)
            expected += "$GPGGA," + std::to_string(n) + '\n';
        EXPECT_EQ(heard, expected) << session;
        EXPECT_THAT(heard, HasSubstr("$GPGGA,")) << session;
    }
    for (const char *const peerIsGone : {"[setsockopt 6 18 300000]", "[setsockopt 6 4 120]", "[setsockopt 6 5 30]",
                                         "[setsockopt 6 6 6]", "[setsockopt 1 9 1]"})
        EXPECT_THAT(program.output(), HasSubstr(peerIsGone)); // tcp(7): no other end can be seen within five minutes
}

TEST(Clients, thatStopReadingGetTheNewestLater)
{
    Program program({.arguments = server + "--gsv",
                     .gpspipe = R"sh(timeout 5 yes "$(printf '$GPGSV,30,%d,%0480d\n' $(seq -f '%g 0' 30))"
                                     touch passed; exec yes '$GPGGA,new')sh"});
    Peer sleeper(program.port);
    EXPECT_TRUE(eventually([&] { return fs::exists(program.folder / "passed"); })) << "the stream waits for one client";
    const std::string woken = sleeper.readUntil("new");
    EXPECT_NE(woken.find("new"), std::string::npos);
    EXPECT_LT(woken.size(), 500'000U) << "the kernel's backlog came first";
}

/// Six fit into the kernel's queue; the seventh `accept` finds it empty, and only then the first handler is made.
TEST(Server, takesAllThatWaitBeforeItMakesAHandler)
{
    Program program({.arguments = server, .faults = "server-thr: accept4 6 EAGAIN"});
    EXPECT_TRUE(program.says("waiting for client connections...\n"));
    ::kill(program.pid, SIGSTOP);
    ASSERT_EQ(::waitpid(program.pid, nullptr, WUNTRACED), program.pid); // all its threads have stopped
    std::deque<Peer> clients;
    while (clients.size() < 6)
        clients.emplace_back(program.port);
    ::kill(program.pid, SIGCONT);
    std::string expected = "[accept4 fails]\n";
    for (std::size_t client = 0; client < clients.size(); ++client)
        expected += "INFO: A remote client is trying to connect.\nINFO: waiting for client connections...\n";
    EXPECT_TRUE(program.says(expected));
}

/// How many processors the program wants, whether it gets them or not.
static double processorsWanted(const Program &program, std::chrono::seconds interval)
{
    const auto wanted = [&program] {
        double all = 0;
        for (const auto &thread : fs::directory_iterator(program.proc("task"))) {
            double running = 0;
            double waiting = 0;
            std::ifstream(thread.path() / "schedstat") >> running >> waiting;
            all += (running + waiting) / 1e9;
        }
        return all;
    };
    const double before = wanted();
    EXPECT_GT(before, 0) << "the kernel does not tell";
    std::this_thread::sleep_for(interval);
    return (wanted() - before) / static_cast<double>(interval.count());
}

/// Descriptors are kept for gpspipe, which is started again and again; the log tells of the episode once.
TEST(Server, acceptsNobodyWhileDescriptorsAreOut)
{
    Program program({.arguments = server,
                     .gpspipe = "echo '$GPGGA,1'; until rm end; do sleep 0.1; done 2>&-",
                     .before = "ulimit -n 40"});
    const std::string complaint = "ERROR: no client is accepted until a descriptor is free: error code: 24 : Too many";
    std::deque<Peer> clients;
    while (clients.size() < 40 && countOf(complaint, program.output()) == 0) {
        clients.emplace_back(program.port);
        EXPECT_TRUE(eventually([&] {
            return countOf("is trying to connect", program.output()) == std::ssize(clients) ||
                   countOf(complaint, program.output()) > 0;
        }));
    }
    EXPECT_LT(processorsWanted(program, 3s), 0.5);
    EXPECT_EQ(countOf(complaint, program.output()), 1);
    EXPECT_FALSE(clients.back().isReady(0s));
    clients.front().readUntil("never", 10ms);
    program.touch("end");
    EXPECT_TRUE(clients.front().hears("$GPGGA")) << "no descriptor is left for gpspipe";
    clients.pop_front();
    program.touch("end");
    EXPECT_TRUE(clients.back().hears("$GPGGA"));
}

class AnyServerCall : public testing::TestWithParam<const char *> {};

/// Nothing arrives, a client hung up during its login, and the server's call fails as long as it may.
TEST_P(AnyServerCall, failsWithoutKeepingAProcessorBusy)
{
    const Listener collector;
    const SerialLine line;
    Program program({.arguments = server + "--server-passwd secret --serial " + line.device() + toCollector +
                                  std::to_string(collector.number),
                     .faults = std::string("server-thr: ") + GetParam() + " -1 ENOMEM"});
    EXPECT_TRUE(program.says("has successful logged into remote server") && program.says("RS485 configurating"));
    Peer(program.port).readUntil("PASSWORD\r\n");
    program.touch("failing");
    const Peer client(program.port);
    EXPECT_TRUE(program.says(std::string("[") + GetParam() + " fails]\n"));
    EXPECT_LT(processorsWanted(program, 3s), 0.5);
}
INSTANTIATE_TEST_SUITE_P(Server, AnyServerCall, testing::Values("accept4", "poll"));

TEST(Consumers, allReceiveTheSameMessages)
{
    const Listener collector;
    SerialLine line;
    Program program(
        {.arguments =
             server +
             "--gsv --loglevel 50 --id-prefix S --id 7 --server-passwd secret --client-passwd secret --serial " +
             line.device() + toCollector + std::to_string(collector.number),
         .gpspipe = R"(until [ -e quiet ]; do echo '$GPGGA,early'; sleep 0.2; done; until [ -e go ]; do sleep 0.1; done
                       for i in 0 1 2 3 4 5 6 7 8 9; do
                       printf '$GPGGA,%d\r\n$GPGSV,1,1,%d\r\n$GPRMC,off\r\n' $i $i; sleep 0.5; done
                       while :; do echo '$GPGGA'; sleep 0.5; done)"});
    Peer uplink = collector.accept();
    Peer client(program.port);
    EXPECT_EQ(client.readUntil("\n"), "PASSWORD\r\n");
    EXPECT_TRUE(line.hears("early"));
    program.touch("quiet");
    line.readUntil("never", 1500ms);
    uplink.send("PASSWORD\r\n");
    EXPECT_EQ(uplink.readUntil("\n"), "secret\r\n");
    uplink.send("OK\r\n");
    client.send("secret\r\n");
    EXPECT_EQ(client.readUntil("\n"), "OK\r\n");
    EXPECT_TRUE(program.says("has successful logged into remote server"));
    EXPECT_TRUE(program.says("successfully logged in!\n"));
    program.touch("go");

    std::string expected;
    for (const char number : std::string("0123456789"))
        expected += std::string("S7$GPGGA,") + number + "\r\nS7$GPGSV,1,1," + number + "\r\n";
    for (Peer *const consumer : std::initializer_list<Peer *>{&client, &uplink, &line})
        EXPECT_THAT(consumer->readUntil("S7$GPGSV,1,1,9\r\n"), StartsWith(expected)) << "nothing from before the login";
    for (const char *const text : {"INFO: connect_to_host() : remote server ip addr: 127.0.0.1\n",
                                   "INFO: connect_to_host() : connect() succeeded with",
                                   "INFO: ClientThread::This client has successful logged into remote server.\n",
                                   "DEBUG: ClientThread::nmeaSend:S7$GP", "DEBUG: ClientHandlerThread:nmeaSend:S7$GP"})
        EXPECT_TRUE(program.says(text)) << text;
    std::string published = program.output();
    if (NAVTWINE_EMULATOR[0] == ' ') // an emulator's own command line keeps what it was started with
        published += contentOf(program.proc("cmdline"));
    EXPECT_THAT(published, Not(HasSubstr("secret")));
    char everyAddress[64];
    std::snprintf(everyAddress, sizeof everyAddress, " 00000000:%04X 00000000:0000 0A ", program.port);
    EXPECT_THAT(contentOf("/proc/net/tcp"), HasSubstr(everyAddress));
}
