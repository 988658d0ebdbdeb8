#include "harness.h"

#include <termios.h>

class AnyEnd : public testing::TestWithParam<const char *> {};

/// Idle, blocked in a write, and ended the hard way after five seconds because a system log that takes nothing holds
/// the server, and so main.
TEST_P(AnyEnd, emptiesTheSerialLine)
{
    const bool idle = GetParam() == std::string("idle");
    const bool hard = GetParam() == std::string("hard");
    SerialLine line; // that nobody reads
    Program program({.arguments = std::string(hard ? "--server --server-port $PORT" : "-e") +
                                  " --interval 1 --gga --serial " + line.device(),
                     .gpspipe = idle ? "exec sleep 1000" : "exec yes \"$(printf '$GPGGA,%0480d' 0)\"",
                     .faults = "navtwine: connect EAGAIN"}); // a busy log socket is there
    EXPECT_TRUE(program.says("RS485 configurating error. errno:25 - "));
    const KAV::Descriptor port(::open(line.device(), O_RDWR | O_NOCTTY | O_CLOEXEC));
    EXPECT_EQ(::tcflow(port.get(), TCOOFF), 0);
    std::this_thread::sleep_for(2500ms); // the thread looks once a second, and is blocked with the next batch
    if (hard) {
        program.touch("stalled-log");
        const Peer client(program.port);
        EXPECT_EQ(program.signal(SIGINT, 9s), 0);
        EXPECT_THAT(program.output(), Not(HasSubstr("execution complete")));
    } else {
        program.endInOrder();
    }
    EXPECT_THAT(program.output(), HasSubstr("[tcflush " + std::to_string(TCOFLUSH) + "]\n"));
    EXPECT_EQ(program.output().find("INFO: Serial stop\n") != std::string::npos, idle);
    EXPECT_FALSE(runs(program.gpspipe()));
}
INSTANTIATE_TEST_SUITE_P(SerialLine, AnyEnd, testing::Values("idle", "blocked", "hard"));

/// Of what the port's last user has left behind only what the driver decides stays.
TEST(SerialLine, isOpenedWithTheSettingsOfTheCommandLine)
{
    const std::tuple<std::string, std::string, speed_t, tcflag_t> cases[] = {
        {" --rs485", "[line CS8]\n[tcflush 2]\nINFO: RS485 mode\n[rs485 3]\n", B115200, 0},
        {" --baud 57600 --datalength 7 --parity odd --stopbits 2 --hwflow",
         "[line CS7 PARENB PARODD]\n[tcflush 2]\nINFO: RS232 mode\n[rs485 2]\n", B57600, PARODD | CSTOPB | CRTSCTS}};
    for (const auto &[settings, log, speed, flags] : cases) {
        SerialLine line;
        termios found{};
        ::tcgetattr(line.socket.get(), &found);
        found.c_cflag ^= PARODD | CSTOPB | CRTSCTS;
        EXPECT_EQ(::tcsetattr(line.socket.get(), TCSANOW, &found), 0);
        Program program({.arguments = "-e --loglevel 50 --interval 1 --gga --serial " + (line.device() + settings),
                         .gpspipe = stream,
                         .faults = ""});
        EXPECT_THAT(line.readUntil("\n"), StartsWith("$GPGGA,1\n")); // raw: without a CR
        EXPECT_TRUE(program.says("DEBUG: serial:$GPGGA,1\n"));
        EXPECT_THAT(program.output(), HasSubstr("INFO: serial port opened\n" + log));
        ::tcgetattr(line.socket.get(), &found);
        EXPECT_EQ(std::tuple(cfgetospeed(&found), found.c_cflag & (PARODD | CSTOPB | CRTSCTS)),
                  std::tuple(speed, flags));
        for (const auto &entry : fs::directory_iterator(program.proc("fd"))) {
            const std::string info = contentOf(program.proc("fdinfo") / entry.path().filename());
            const int mode = std::stoi(info.substr(info.find("flags:") + 6), nullptr, 8);
            EXPECT_TRUE(fs::read_symlink(entry) != line.device() || (mode & (O_NONBLOCK | O_CLOEXEC)) == O_CLOEXEC);
        }
        line.socket.reset();
        EXPECT_TRUE(program.says("ERROR: serial write() of [NMEA STRING DATA] failed : error code = 5 : Input/output"));
    }
}
