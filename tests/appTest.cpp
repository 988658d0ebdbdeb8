#include "app/commandLine.h"
#include "nmea/handleNMEAString.h"
#include "support/Logger.h"
#include "support/Text.h"

#include "Mailbox.h"
#include "harness.h"

static RunSettings parsed(const std::string &arguments)
{
    std::vector<std::string> words = KAV::Text::split("navtwine " + arguments, ' ', 0);
    std::vector<char *> pointers;
    for (std::string &word : words)
        pointers.push_back(word.data());
    return parseCommandLine(static_cast<int>(pointers.size()), pointers.data());
}

TEST(parseCommandLine, takesEveryOption)
{
    const RunSettings s =
        parsed("--loglevel 0x32 -e --server-port 70000 --client-protocol Udp --client-remote-host "
               "10.0.0.1/24 --client-port 010 --serial /dev/x --datalength 7 --parity odd --stopbits 2 "
               "--rs485 --id --gga --id-prefix P --interval 70000 --verbose --hwflow --server-passwd a "
               "--server-passwd pw --client-passwd pc");
    EXPECT_TRUE(s.logToStderr && s.serialRs485 && KAV::Logger::isPrintable(50) && !KAV::Logger::isPrintable(51));
    EXPECT_EQ(std::tuple(s.logLevel, s.serverPort, s.clientPort, s.clientProtocol, s.interval),
              std::tuple(50, 4464, 8, 'u', 70000));
    EXPECT_EQ(s.clientRemoteHost + s.serialPort + s.stationIdPrefix + s.serverPassword + s.clientPassword + s.stationId,
              "10.0.0.1/24/dev/xPpwpc--gga")
        << "a value is a value, whatever it looks like";
    EXPECT_EQ(std::tuple(s.serialCharSize, s.serialParity, s.serialStopBits, s.serialHwFlow),
              std::tuple(CS7, PARENB | PARODD, CSTOPB, CRTSCTS));
    const RunSettings t =
        parsed("--parity even --datalength 8 --stopbits 1 --client-protocol tcp --interval 4294967295");
    EXPECT_EQ(std::tuple(t.serialCharSize, t.serialParity, t.serialStopBits, t.clientProtocol, t.interval),
              std::tuple(CS8, PARENB, 0, 't', -1));
    EXPECT_EQ(std::tuple(parsed("--baud 4800").serialSpeed, parsed("--baud 9600").serialSpeed),
              std::tuple(B4800, B9600));
    EXPECT_EQ(std::tuple(parsed("--baud 19200").serialSpeed, parsed("--baud 38400").serialSpeed),
              std::tuple(B19200, B38400));
}

TEST(parseCommandLine, keepsDefaultsForWhatIsMissing)
{
    for (const char *const last : {"", "--baud", "--loglevel", "--serial", "--id", "--server-passwd", "--servers"}) {
        const RunSettings s = parsed(last);
        EXPECT_EQ(std::tuple(s.serialSpeed, s.serialCharSize, s.serialParity, s.serialStopBits, s.serialHwFlow),
                  std::tuple(B115200, CS8, 0, 0, 0));
        EXPECT_EQ(std::tuple(s.logLevel, s.interval, s.serverPort, s.clientPort, s.clientProtocol),
                  std::tuple(30, 10, 5445, 5445, 't'));
        EXPECT_EQ(s.serialPort + s.stationId + s.stationIdPrefix + s.serverPassword + s.clientPassword, "");
    }
    EXPECT_EQ(parsed("--parity odd --parity ODD").serialParity, 0);
}

TEST(parseCommandLine, switchesOnAndOff)
{
    const std::pair<std::string, bool RunSettings::*> flags[] = {{"server", &RunSettings::serverEnabled},
                                                                 {"client", &RunSettings::clientEnabled},
                                                                 {"timestamp", &RunSettings::timestamp},
                                                                 {"daemonize", &RunSettings::daemonize}};
    for (const auto &[name, flag] : flags) {
        EXPECT_FALSE(parsed("").*flag) << name;
        EXPECT_TRUE(parsed("--" + name).*flag) << name;
        EXPECT_FALSE(parsed("--" + name + " --no-" + name).*flag) << name;
    }
    const std::string types[] = {"GGA", "RMC", "GSA", "ZDA", "GBS", "GLL", "GSV", "VTG"};
    Mailbox mailbox;
    const auto passed = [&] {
        for (const std::string &type : types)
            for (const char *const talker : {"$GP", "$GN", "$GL"})
                handleNMEAString((talker + type + ",1,1,x\n").c_str(), 1, &types[0]);
        return mailbox.getData();
    };
    for (const std::string &type : types) {
        std::string option = type;
        for (char &letter : option)
            letter = static_cast<char>(std::tolower(letter));
        EXPECT_EQ(passed(), "") << "all off";
        parsed("--" + option);
        EXPECT_EQ(passed(), "GGA$GP" + type + ",1,1,x\nGGA$GN" + type + ",1,1,x\n");
        parsed("--no-" + option);
    }
}

TEST(Program, endsAtOnceWithoutWork)
{
    const auto usage = testing::AllOf(
        StartsWith("\nusage: navtwine [OPTIONS]\n\nOPTIONS:\n --[no-]daemonize\n"),
        testing::ContainsRegex(
            "server-port PORT .default: 5445(.|\n)*udp .default: tcp(.|\n)*client-port PORT .default: 5445"
            "(.|\n)*115200(.|\n)*8 default: 8(.|\n)*default: none(.|\n)*2 default: 1.(.|\n)*default: 10."),
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
        {"--gga --serial '' -e --loglevel 10", 0, ""},
        {"--gga --serial ''", 0, fs::exists("/dev/log") ? "" : "ERROR: Unable to log to Syslog\n" + lifecycle},
        {"-e --serial /dev/none", 1, HasSubstr("ERROR: failed to open /dev/none: errno: 2\n")},
    };
    for (const auto &[arguments, status, output] : cases) {
        Program program({.arguments = arguments, .gpspipe = "touch started"});
        EXPECT_EQ(program.wait(), status) << arguments;
        EXPECT_THAT(program.output(), output) << arguments;
        EXPECT_FALSE(status == 0 && fs::exists(program.folder / "started")) << arguments;
    }
}

class AnyGpspipe : public testing::TestWithParam<const char *> {};

/// However gpspipe behaves: the other signals end it at most, and SIGINT ends everything in time.
TEST_P(AnyGpspipe, endsWithTheProgram)
{
    Program program({.arguments = server + "--gsv", .gpspipe = GetParam()});
    const Peer client(program.port);
    EXPECT_TRUE(eventually([&] { return program.gpspipe() != 0; }));
    const pid_t first = program.gpspipe();
    for (const int ignored : {SIGPIPE, SIGALRM, SIGHUP})
        EXPECT_EQ(program.signal(ignored, 200ms), -1) << "ended by signal " << ignored;
    const bool isSilent = std::string(GetParam()).find("sleep") != std::string::npos;
    EXPECT_TRUE(!isSilent || eventually([&] { return program.gpspipe() != first; })) << "no other gpspipe";
    program.endInOrder();
    EXPECT_TRUE(eventually([&] { return !runs(first) && !runs(program.gpspipe()); })) << "gpspipe stays behind";
}

INSTANTIATE_TEST_SUITE_P(Program, AnyGpspipe,
                         testing::Values("exec sleep 1000", "exit 1", "exec yes '$GPGGA,1'", "exec cat /dev/urandom",
                                         "exec cat /dev/zero", "trap '' INT TERM HUP; while :; do sleep 1; done"));

TEST(Program, startsGpspipeAgainWithNothingOfItsOwn)
{
    Port collector(SOCK_DGRAM);
    const SerialLine line;
    Program program({.arguments = server +
                                  "--timestamp --client --client-protocol udp --client-remote-host 127.0.0.1 "
                                  "--client-passwd unused --client-port " +
                                  std::to_string(collector.number) + " --serial " + line.device(),
                     .gpspipe = R"sh(date +%s%N >>starts
                                     open=$(ls -l /proc/$$/fd | grep -c 'socket\|pts\|event')
                                     echo "\$GPGGA,$* $open $(($(ulimit -Hn) - $(ulimit -Sn)))")sh",
                     .before = "ulimit -Sn 64"});
    Peer client(program.port);
    EXPECT_THAT(client.readUntil("\n$GPGGA,-t -r 0 0\n"), StartsWith("$GPGGA,-t -r 0 0\n$GPGGA,-t -r 0 0\n"));
    EXPECT_THAT(collector.readUntil("\n"), StartsWith("$GPGGA,-t -r 0 0\n"));
    std::istringstream starts(contentOf(program.folder / "starts"));
    std::int64_t previous = 0;
    for (std::int64_t start = 0; starts >> start; previous = start)
        EXPECT_GE(start - previous, 990'000'000) << "a second of pause";
}

TEST(Program, leavesStrangersAlone)
{
    Program program({.arguments = server,
                     .gpspipe = "setsid sh -c 'echo $$ >new; mv new stranger; exec sleep 1000' & exec sleep 1000"});
    const fs::path stranger = program.folder / "stranger"; // not gpspipe, though it has the same pipe
    EXPECT_TRUE(eventually([&] { return fs::exists(stranger); }));
    program.endInOrder();
    EXPECT_TRUE(runs(std::stoi(contentOf(stranger)))) << "of another process group";
    ::kill(std::stoi(contentOf(stranger)), SIGKILL);
}

/// Nor does the log go to a client whose socket got the number of a stream that was closed.
TEST(Program, hasStandardStreamsOfItsOwn)
{
    Program closed({.arguments = server + "<&- >&- 2>&-", .gpspipe = stream});
    Program program({.arguments = server + "--daemonize", .gpspipe = "echo '$GPGGA,1'; exec sleep 1000"});
    EXPECT_EQ(program.wait(), 0);
    EXPECT_THAT(Peer(closed.port).readUntil("\n"), StartsWith("$GPGGA,1\n"));
    ASSERT_TRUE(eventually([&] { return program.gpspipe() != 0; }));
    const pid_t daemon = ::getsid(program.gpspipe()); // which leads the session of its own that it made
    ASSERT_TRUE(daemon > 1 && daemon != ::getsid(0));
    static_cast<void>(Peer(program.port));
    for (const char *const number : {"fd/0", "fd/1", "fd/2"})
        for (const pid_t process : {closed.pid, daemon})
            EXPECT_EQ(fs::read_symlink(procOf(process, number)), "/dev/null") << number;
    EXPECT_EQ(fs::read_symlink(procOf(daemon, "cwd")), program.folder);
    ::kill(daemon, SIGINT);
    EXPECT_TRUE(eventually([&] { return !runs(daemon); }));
    EXPECT_EQ(closed.signal(SIGINT, 30s), 0);
}

TEST(Program, filesMessagesAsADaemonsByTheirLevel)
{
    Program program({.arguments = "--loglevel 50 --gga --serial /dev/none", .faults = "navtwine: connect EAGAIN"});
    EXPECT_EQ(program.wait(), 1);
    EXPECT_THAT(program.output(), HasSubstr("[openlog navtwine 24]\n[syslog 6]INFO: Starting executable: "));
    EXPECT_THAT(program.output(), HasSubstr("[syslog 3]ERROR: failed to open /dev/none: errno: 2\n"));
}
