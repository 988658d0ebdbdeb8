#include "harness.h"

#include <csignal>
#include <cstring>
#include <fstream>
#include <memory>
#include <sys/socket.h>
#include <termios.h>
#include <unistd.h>

namespace {

using Arguments = std::vector<std::string>;

const Arguments server{"--server", "--server-port", "0", "-e", "--interval", "1", "--gga", "--gsv"};

/// Numbered sentences, ten a second.
const char *const counting = R"(n=1000; while :; do printf '$GPGGA,%d\r\n' $n; n=$((n+1)); sleep 0.1; done)";

Arguments serverWith(Arguments more)
{
    more.insert(more.end(), server.begin(), server.end());
    return more;
}

/// The number of gpspipe's process, which its script's `echo $$ > pid` told; 0 before it did.
pid_t gpspipeOf(const Program &program) { return std::atoi(program.gpspipe.content("pid").c_str()); }

/// The numbers of the sentences in a piece of the stream.
std::vector<int> numbersIn(const std::string &stream)
{
    std::vector<int> numbers;
    for (std::size_t at = 0; (at = stream.find("$GPGGA,", at)) != std::string::npos; ++at)
        numbers.push_back(std::atoi(stream.c_str() + at + std::strlen("$GPGGA,")));
    return numbers;
}

} // namespace

TEST(Program, printsUsageAndBadValues)
{
    const std::string begin = "\nusage: navtwine [OPTIONS]\n\nOPTIONS:\n --[no-]daemonize\n";
    const std::string end = "\n --loglevel [1-100 default 30] \n -e  use stderr for log (default: disabled)\n\n";
    for (const Arguments &arguments : {Arguments{}, Arguments{"--server", "--id", "-h"}, Arguments{"--help", "-e"}}) {
        Program program(arguments, "");
        EXPECT_EQ(program.wait(), 0);
        EXPECT_EQ(program.output().find(begin), 0U);
        EXPECT_EQ(program.output().find(end), program.output().size() - end.size());
    }
    Program bad({"--server", "--baud", "1200", "--stopbits", "7"}, "");
    EXPECT_EQ(bad.wait(), 1);
    EXPECT_EQ(bad.output(), "Invalid baud value 1200[ABORTING EXECUTION]\n");
    Program noDevice(serverWith({"--serial", "/dev/none"}), "exec sleep 1000");
    EXPECT_EQ(noDevice.wait(), 1);
    EXPECT_TRUE(noDevice.says("ERROR: failed to open /dev/none: errno: 2\n"));
}

TEST(Program, endsAtOnceWithoutConsumers)
{
    const std::string lifecycle = "INFO: Starting executable: " NAVTWINE_PROGRAM "\nINFO: execution complete\n";
    const bool systemLog = std::filesystem::exists("/dev/log");
    for (const bool toStderr : {true, false}) {
        Program program({"--gga", "--serial", "", toStderr ? "-e" : "-x"}, "touch started");
        EXPECT_EQ(program.wait(), 0);
        EXPECT_EQ(program.output(), toStderr    ? lifecycle
                                    : systemLog ? ""
                                                : "ERROR: Unable to log to Syslog\n" + lifecycle);
        EXPECT_FALSE(std::filesystem::exists(program.gpspipe.folder / "started"));
    }
}

class AnyGpspipe : public testing::TestWithParam<const char *> {};

/// However gpspipe behaves: the other signals change nothing, and SIGINT ends everything in time.
TEST_P(AnyGpspipe, endsWithTheProgram)
{
    Program program(server, std::string("echo $$ > pid\n") + GetParam());
    const Peer client(program.port());
    EXPECT_TRUE(eventually([&] { return gpspipeOf(program) != 0; }));
    for (const int signal : {SIGHUP, SIGPIPE, SIGALRM}) {
        ::kill(program.pid, signal);
        EXPECT_LT(program.wait(200ms), 0) << "ended by signal " << signal;
    }
    EXPECT_EQ(program.interrupt(), 0);
    EXPECT_TRUE(program.says("INFO: execution complete\n"));
    EXPECT_TRUE(eventually([&] { return ::kill(gpspipeOf(program), 0) != 0; })) << "gpspipe stays behind";
}

INSTANTIATE_TEST_SUITE_P(Program, AnyGpspipe,
                         testing::Values("exec sleep 1000", "exit 1", "exec yes '$GPGGA,1'", "exec cat /dev/urandom",
                                         "exec cat /dev/zero", "trap '' INT TERM HUP; while :; do sleep 1; done"));

TEST(Program, startsGpspipeAgainWithoutOurSockets)
{
    Program program(server, R"sh(echo "\$GPGGA,$* $(ls -l /proc/$$/fd | grep -c socket)")sh");
    Peer client(program.port());
    for (int run = 0; run < 3; ++run)
        EXPECT_NE(client.readUntil("\n").find("$GPGGA,-r 0\n"), std::string::npos);
}

TEST(Program, daemonizes)
{
    Program program({"--server", "--server-port", "0", "--daemonize"}, "echo $$ > pid; exec sleep 1000");
    EXPECT_EQ(program.wait(), 0);
    ASSERT_TRUE(eventually([&] { return gpspipeOf(program) != 0; }));
    program.pid = ::getsid(gpspipeOf(program)); // the daemon leads the session of its own that it made
    ASSERT_NE(program.pid, ::getsid(0));
    EXPECT_NE(program.port(), 0);
    ::kill(program.pid, SIGINT);
    EXPECT_TRUE(eventually([&] { return ::kill(program.pid, 0) != 0; }));
    program.pid = -1;
}

TEST(Clients, receiveTheirStreamWhateverOthersDo)
{
    Program program(serverWith({"--server-passwd", "pw", "--id-prefix", "A", "--id", "1"}), counting);
    const std::uint16_t port = program.port();
    const auto logIn = [port](const std::string &answer) {
        auto peer = std::make_unique<Peer>(port);
        peer->readUntil("PASSWORD\r\n");
        peer->send(answer);
        return peer;
    };
    const auto good = logIn("pw\r\n");
    EXPECT_EQ(good->readUntil("\r\nA1$GPGGA").find("OK\r\nA1$GPGGA,1"), 0U);
    const auto threads = count(program.pid, "task");
    const auto descriptors = count(program.pid, "fd");
    for (int round = 0; round < 5; ++round) {
        logIn("pw\r\n")->readUntil("$GPGGA");
        for (const char *const answer : {"a\r\nb\r\nc\r\n", "", "rubbish\xff"})
            logIn(answer);
    }
    EXPECT_TRUE(program.says("ERROR: failed to login.\n"));
    const std::vector<int> numbers = numbersIn(good->readUntil("never", 3s));
    ASSERT_GT(numbers.size(), 10U);
    for (std::size_t at = 1; at < numbers.size(); ++at)
        EXPECT_EQ(numbers[at], numbers[at - 1] + 1);
    EXPECT_TRUE(eventually([&] { return count(program.pid, "task") == threads; }, 60s)) << "threads stay behind";
    EXPECT_EQ(count(program.pid, "fd"), descriptors);
    EXPECT_EQ(program.interrupt(), 0);
    good->readUntil("never");
    EXPECT_TRUE(good->closed);
}

TEST(Clients, areServedAsFarAsDescriptorsGo)
{
    Program program(server, counting, 32);
    std::vector<Peer> waiting;
    for (int made = 0; made < 26; ++made)
        waiting.emplace_back(program.port());
    std::vector<Peer> served;
    const auto twentyServed = [&] {
        for (auto peer = waiting.begin(); peer != waiting.end();) {
            const bool isServed = !peer->readUntil("$GPGGA", 0ms).empty();
            if (isServed)
                served.push_back(std::move(*peer));
            peer = isServed ? waiting.erase(peer) : peer + 1;
        }
        return served.size() >= 20;
    };
    EXPECT_TRUE(eventually(twentyServed));
    EXPECT_FALSE(eventually([&] { return twentyServed() && waiting.empty(); }, 2500ms));
    EXPECT_TRUE(program.says("ERROR: no client is accepted until a descriptor is free"));
    EXPECT_LT(program.output().size(), 8'000U);
    served.clear();
    EXPECT_TRUE(eventually([&] { return twentyServed() || waiting.empty(); })) << "free places stay empty";
}

TEST(Clients, thatStopReadingGetTheNewestLater)
{
    const std::string end = std::string(400, 'x') + "\r\n";
    Program program(server, "n=1000; while :; do echo \"\\$GPGGA,$n," + end.substr(0, 400) + "\r\"; n=$((n+1)); done");
    Peer sleeper(program.port());
    Peer other(program.port());
    int newest = 0;
    EXPECT_TRUE(eventually([&] {
        const std::vector<int> numbers = numbersIn(other.readUntil(end));
        newest = numbers.empty() ? newest : numbers.back();
        return newest > 50'000; // 20 MB have gone by
    }));
    std::string woken;
    while (woken.size() < 1'000'000 && (numbersIn(woken).empty() || numbersIn(woken).back() < newest))
        woken += sleeper.readUntil(end);
    EXPECT_LT(woken.size(), 1'000'000U) << "the kernel's backlog came first";
}

TEST(Consumers, allReceiveTheSameMessages)
{
    std::uint16_t collectorPort = 0;
    const KAV::Descriptor listener = openOnFreePort(SOCK_STREAM, collectorPort);
    std::string device;
    Peer line = openPseudoTerminal(device);
    Program program(serverWith({"--client", "--client-remote-host", "localhost", "--client-port",
                                std::to_string(collectorPort), "--client-passwd", "secret", "--serial", device,
                                "--baud", "57600", "--stopbits", "2", "--hwflow", "--rs485", "--id", "7"}),
                    R"(while [ ! -e go ]; do sleep 0.1; done; for i in 0 1 2 3 4 5 6 7 8 9; do
                       printf '$GPGGA,%d\r\n$GPGSV,1,1,%d\r\n$GPRMC,off\r\n' $i $i; sleep 0.3; done; while :; do echo '$GPGGA'; sleep 0.5; done)");
    Peer collector = acceptFrom(listener);
    collector.send("PASSWORD\r\n");
    EXPECT_EQ(collector.readUntil("\n"), "secret\r\n");
    collector.send("OK\r\n");
    EXPECT_TRUE(eventually([&] { return program.says("INFO: RS485 mode\nERROR: RS485 configurating error. errno:"); }));
    Peer client(program.port());
    EXPECT_TRUE(eventually([&] { return program.says("trying to connect") && program.says("has successful logged"); }));
    std::ofstream(program.gpspipe.folder / "go");

    std::string expected;
    for (const char number : std::string("0123456789"))
        expected += std::string("7$GPGGA,") + number + "\r\n7$GPGSV,1,1," + number + "\r\n";
    for (Peer *const consumer : {&client, &collector, &line}) {
        std::string received;
        EXPECT_TRUE(eventually([&] { return (received += consumer->readUntil("\n", 1s)).size() >= expected.size(); }));
        EXPECT_EQ(received, expected);
    }
    termios settings{};
    EXPECT_EQ(::tcgetattr(line.socket.get(), &settings), 0);
    EXPECT_EQ(cfgetospeed(&settings), B57600);
    EXPECT_EQ(settings.c_cflag & (CSTOPB | CRTSCTS), CSTOPB | CRTSCTS);
    line.socket.reset();
    EXPECT_TRUE(eventually(
        [&] { return program.says("ERROR: serial write() of [NMEA STRING DATA] failed : error code = 5"); }));
    EXPECT_EQ(program.interrupt(), 0) << "neither the uplink's delay nor the serial line may hold up the end";
    EXPECT_FALSE(program.says("secret"));
}

TEST(Consumers, takePasswordsOffTheCommandLine)
{
    if (NAVTWINE_EMULATOR[0] != ' ')
        GTEST_SKIP() << "/proc shows the emulator's command line, which keeps what it was started with";
    const Program program(serverWith({"--server-passwd", "secret", "--client-passwd", "secret"}), "exec sleep 1000");
    ASSERT_NE(program.port(), 0);
    std::ifstream commandLine("/proc/" + std::to_string(program.pid) + "/cmdline");
    EXPECT_EQ(std::string(std::istreambuf_iterator<char>(commandLine), {}).find("secret"), std::string::npos);
}

TEST(Consumers, getAlongWithoutEachOther)
{
    std::uint16_t port = 0;
    const KAV::Descriptor taken = openOnFreePort(SOCK_STREAM, port);
    std::uint16_t datagramPort = 0;
    Peer collector(openOnFreePort(SOCK_DGRAM, datagramPort).release());
    Program program({"--server", "--server-port", std::to_string(port), "--client", "--client-protocol", "udp",
                     "--client-remote-host", "127.0.0.1", "--client-port", std::to_string(datagramPort),
                     "--client-passwd", "unused", "-e", "--gga", "--interval", "1"},
                    counting);
    EXPECT_EQ(collector.readUntil("\n").find("$GPGGA,1"), 0U);
    EXPECT_TRUE(program.says("ERROR: bind() failed for socket descriptor: "));
    EXPECT_FALSE(program.says("waiting for client connections"));
}
