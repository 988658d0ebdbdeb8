#include "harness.h"

#include <termios.h>

const std::string server = "--server --server-port $PORT -e --interval 1 --gga --gsv ";

TEST(Program, endsAtOnceWithoutWork)
{
    const auto usage = testing::AllOf(
        StartsWith("\nusage: navtwine [OPTIONS]\n\nOPTIONS:\n --[no-]daemonize\n"),
        testing::EndsWith("\n --loglevel [1-100 default 30] \n -e  use stderr for log (default: disabled)\n\n"));
    const std::string lifecycle = "INFO: Starting executable: " NAVTWINE_PROGRAM "\nINFO: execution complete\n";
    const std::tuple<const char *, int, testing::Matcher<std::string>> cases[] = {
        {"", 0, usage},
        {"--server --id -h", 0, usage},
        {"--help -e", 0, usage},
        {"--baud 09600 --stopbits 7", 1, "Invalid baud value 09600[ABORTING EXECUTION]\n"},
        {"--stopbits two", 1, "Invalid stop value two[ABORTING EXECUTION]\n"},
        {"--datalength 9", 1, "Invalid datalength value 9[ABORTING EXECUTION]\n"},
        {"--client-protocol sctp", 1, "Unknown protocol SCTP[ABORTING EXECUTION]\n"},
        {"--gga --serial '' -e", 0, lifecycle},
        {"--gga --serial ''", 0, fs::exists("/dev/log") ? "" : "ERROR: Unable to log to Syslog\n" + lifecycle},
        {"-e --serial /dev/none", 1, HasSubstr("ERROR: failed to open /dev/none: errno: 2\n")},
    };
    for (const auto &[arguments, status, output] : cases) {
        Program program(arguments, "touch started");
        EXPECT_EQ(program.wait(), status) << arguments;
        EXPECT_THAT(program.output(), output) << arguments;
        EXPECT_FALSE(status == 0 && fs::exists(program.folder / "started")) << arguments;
    }
}

class AnyGpspipe : public testing::TestWithParam<const char *> {};

/// However gpspipe behaves: the other signals change nothing, and SIGINT ends everything in time.
TEST_P(AnyGpspipe, endsWithTheProgram)
{
    Program program(server, std::string("echo $$ > pid\n") + GetParam());
    const Peer client(program.port);
    EXPECT_TRUE(eventually([&] { return program.gpspipe() != 0; }));
    for (const int ignored : {SIGHUP, SIGPIPE, SIGALRM})
        EXPECT_EQ(program.signal(ignored, 200ms), -1) << "ended by signal " << ignored;
    EXPECT_EQ(program.interrupt(), 0);
    EXPECT_THAT(program.output(), HasSubstr("INFO: execution complete\n"));
    EXPECT_TRUE(eventually([&] { return ::kill(program.gpspipe(), 0) != 0; })) << "gpspipe stays behind";
}

INSTANTIATE_TEST_SUITE_P(Program, AnyGpspipe,
                         testing::Values("exec sleep 1000", "exit 1", "exec yes '$GPGGA,1'", "exec cat /dev/urandom",
                                         "exec cat /dev/zero", "trap '' INT TERM HUP; while :; do sleep 1; done"));

TEST(Program, startsGpspipeAgainWithoutOurSockets)
{
    Port collector(SOCK_DGRAM);
    Program program(server + "--client --client-protocol udp --client-remote-host 127.0.0.1 --client-port " +
                        std::to_string(collector.number) + " --client-passwd unused",
                    R"sh(echo "\$GPGGA,$* $(ls -l /proc/$$/fd | grep -c socket)")sh");
    Peer client(program.port);
    EXPECT_THAT(client.readUntil("\n$GPGGA,-r 0\n"), StartsWith("$GPGGA,-r 0\n$GPGGA,-r 0\n"));
    EXPECT_THAT(collector.readUntil("\n"), StartsWith("$GPGGA,-r 0\n"));
}

TEST(Program, leavesStrangersAlone)
{
    Program program(server, "setsid sh -c 'echo $$ >pid; exec sleep 1000' & exec sleep 1000");
    EXPECT_TRUE(eventually([&] { return program.gpspipe() != 0; })); // not gpspipe, which has the same pipe
    EXPECT_EQ(program.interrupt(), 0);
    const fs::path stranger = fs::path("/proc") / std::to_string(program.gpspipe()) / "cmdline";
    EXPECT_NE(contentOf(stranger), "") << "of another process group"; // a zombie has none
    ::kill(program.gpspipe(), SIGKILL);
}

TEST(Program, daemonizes)
{
    Program program("--server --server-port $PORT --daemonize", "echo $$ > pid; exec sleep 1000");
    EXPECT_EQ(program.wait(), 0);
    ASSERT_TRUE(eventually([&] { return program.gpspipe() != 0; }));
    const pid_t daemon = ::getsid(program.gpspipe()); // which leads the session of its own that it made
    ASSERT_TRUE(daemon > 1 && daemon != ::getsid(0));
    static_cast<void>(Peer(program.port));
    ::kill(daemon, SIGINT);
    EXPECT_TRUE(eventually([&] { return ::kill(daemon, 0) != 0; }));
}

TEST(Clients, thatStopReadingGetTheNewestLater)
{
    Program program(server, R"sh(timeout 5 yes "$(printf '$GPGSV,30,%d,%0480d\n' $(seq -f '%g 0' 30))"
                                 touch passed; exec yes '$GPGGA,new')sh");
    Peer sleeper(program.port);
    EXPECT_TRUE(eventually([&] { return fs::exists(program.folder / "passed"); })) << "the stream waits for one client";
    const std::string woken = sleeper.readUntil("new");
    EXPECT_NE(woken.find("new"), std::string::npos);
    EXPECT_LT(woken.size(), 500'000U) << "the kernel's backlog came first";
}

TEST(Consumers, allReceiveTheSameMessages)
{
    const Listener listener;
    SerialLine line;
    const std::string uplink = "--client --client-remote-host 127.0.0.1 --client-passwd secret --client-port ";
    Program program(server + uplink + std::to_string(listener.number) +
                        " --id-prefix S --id 7 --server-passwd secret --serial " + line.device() +
                        " --baud 57600 --stopbits 2 --hwflow --rs485",
                    R"(while [ ! -e go ]; do sleep 0.1; done; sleep 1; for i in 0 1 2 3 4 5 6 7 8 9; do
                       printf '$GPGGA,%d\r\n$GPGSV,1,1,%d\r\n$GPRMC,off\r\n' $i $i; sleep 0.5; done
                       while :; do echo '$GPGGA'; sleep 0.5; done)");
    Peer collector = listener.accept();
    collector.send("PASSWORD\r\n");
    EXPECT_EQ(collector.readUntil("\n"), "secret\r\n");
    collector.send("OK\r\n");
    Peer client = loggedIn(program.port, "secret\r\n");
    EXPECT_EQ(client.readUntil("\n"), "OK\r\n");
    EXPECT_TRUE(program.says("INFO: RS485 mode\n") && program.says("ERROR: RS485 configurating error. errno:"));
    EXPECT_TRUE(program.says("has successful logged into remote server"));
    std::ofstream(program.folder / "go");

    std::string expected;
    for (const char number : std::string("0123456789"))
        expected += std::string("S7$GPGGA,") + number + "\r\nS7$GPGSV,1,1," + number + "\r\n";
    for (Peer *const consumer : std::initializer_list<Peer *>{&client, &collector, &line})
        EXPECT_THAT(consumer->readUntil("S7$GPGSV,1,1,9\r\n"), StartsWith(expected));
    termios settings{};
    EXPECT_EQ(::tcgetattr(line.socket.get(), &settings), 0);
    EXPECT_EQ(cfgetospeed(&settings), B57600);
    EXPECT_EQ(settings.c_cflag & (CSTOPB | CRTSCTS), CSTOPB | CRTSCTS);
    line.socket.reset();
    EXPECT_TRUE(program.says("ERROR: serial write() of [NMEA STRING DATA] failed : error code = 5"));
    std::string published = program.output();
    if (NAVTWINE_EMULATOR[0] == ' ') // an emulator's own command line keeps what it was started with
        published += contentOf(program.proc("cmdline"));
    EXPECT_THAT(published, Not(HasSubstr("secret")));
    EXPECT_EQ(program.interrupt(), 0) << "neither the uplink's delay nor the serial line may hold up the end";
}
