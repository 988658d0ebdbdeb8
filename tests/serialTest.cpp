#include "harness.h"

#include <termios.h>

struct End {
    const char *name;
    std::string gpspipe;
    std::string arguments;
    bool hard; ///< after five seconds, because a system log that takes nothing holds the server, and so main

    friend std::ostream &operator<<(std::ostream &stream, const End &end) { return stream << end.name; }
};

class AnyEnd : public testing::TestWithParam<End> {};

TEST_P(AnyEnd, emptiesTheSerialLine)
{
    const auto &[name, gpspipe, arguments, hard] = GetParam();
    SerialLine line; // that nobody reads
    Program program({.arguments = "--interval 1 --gga --serial " + std::string(line.device()) + arguments,
                     .gpspipe = gpspipe,
                     .faults = "faulty_navtwine|connect|0|11"}); // a busy log socket is there: EAGAIN
    EXPECT_TRUE(program.says("RS485 configurating error. errno:25 - "));
    const KAV::Descriptor port(::open(line.device(), O_RDWR | O_NOCTTY | O_CLOEXEC));
    EXPECT_EQ(::tcflow(port.get(), TCOOFF), 0);
    std::this_thread::sleep_for(2500ms); // the thread looks once a second, and is blocked with the next batch
    if (hard) {
        program.touch("stalled-log");
        const Peer client(program.port);
        EXPECT_EQ(program.signal(SIGINT, 9s), 0);
    } else {
        EXPECT_EQ(program.interrupt(), 0);
    }
    EXPECT_THAT(program.output(), HasSubstr("[tcflush " + std::to_string(TCOFLUSH) + "]\n"));
    EXPECT_EQ(program.output().find("execution complete") == std::string::npos, hard);
    EXPECT_EQ(program.output().find("INFO: Serial stop\n") == std::string::npos, gpspipe != "exec sleep 1000");
    EXPECT_FALSE(runs(program.gpspipe()));
}

static const std::string flood = "exec yes \"$(printf '$GPGGA,%0480d' 0)\"";
INSTANTIATE_TEST_SUITE_P(SerialLine, AnyEnd,
                         testing::Values(End{"idle", "exec sleep 1000", " -e", false},
                                         End{"blocked", flood, " -e", false},
                                         End{"blockedAndHard", flood, " --server --server-port $PORT", true}));

/// Of what the port's last user has left behind only what the driver decides stays.
TEST(SerialLine, isOpenedWithTheSettingsOfTheCommandLine)
{
    const std::tuple<std::string, std::string, speed_t, std::string, tcflag_t> cases[] = {
        {" --rs485", "INFO: RS485 mode\n[rs485 3]\n", B115200, "[line CS8]\n", 0},
        {" --baud 57600 --datalength 7 --parity odd --stopbits 2 --hwflow", "INFO: RS232 mode\n[rs485 2]\n", B57600,
         "[line CS7 PARENB PARODD]\n", PARODD | CSTOPB | CRTSCTS}};
    for (const auto &[settings, mode, speed, set, kept] : cases) {
        SerialLine line;
        termios found{};
        EXPECT_EQ(::tcgetattr(line.socket.get(), &found), 0);
        found.c_cflag ^= PARODD | CSTOPB | CRTSCTS;
        EXPECT_EQ(::tcsetattr(line.socket.get(), TCSANOW, &found), 0);
        Program program(
            {.arguments = "-e --loglevel 50 --interval 1 --gga --serial " + std::string(line.device()) + settings,
             .gpspipe = "while echo '$GPGGA,1'; do sleep 0.2; done",
             .faults = ""});
        EXPECT_THAT(line.readUntil("\n"), StartsWith("$GPGGA,1\n")); // raw: no CR comes in between
        EXPECT_TRUE(program.says("DEBUG: serial:$GPGGA,1\n"));
        EXPECT_THAT(program.output(), HasSubstr("INFO: serial port opened\n" + set + "[tcflush 2]\n" + mode));
        EXPECT_EQ(::tcgetattr(line.socket.get(), &found), 0);
        EXPECT_EQ(std::tuple(cfgetospeed(&found), cfgetispeed(&found)), std::tuple(speed, speed));
        EXPECT_EQ(found.c_cflag & (PARODD | CSTOPB | CRTSCTS | CLOCAL), kept);
        for (const auto &entry : fs::directory_iterator(proc(program.pid, "fd"))) {
            if (fs::read_symlink(entry) != line.device())
                continue;
            const std::string info = contentOf(proc(program.pid, "fdinfo") / entry.path().filename());
            EXPECT_EQ(std::stoi(info.substr(info.find("flags:") + 6), nullptr, 8) & (O_NONBLOCK | O_CLOEXEC),
                      O_CLOEXEC);
        }
        line.socket.reset();
        EXPECT_TRUE(program.says("ERROR: serial write() of [NMEA STRING DATA] failed : error code = 5 : Input/output"));
    }
}
