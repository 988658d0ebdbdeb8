#include "app/commandLine.h"
#include "nmea/sentence.h"
#include "support/Text.h"

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
    const RunSettings s = parsed("--loglevel 0x32 -e --server --server-port 70000 --client --client-protocol Udp "
                                 "--client-remote-host 10.0.0.1/24 --client-port 010 --serial /dev/x --baud 57600 "
                                 "--datalength 7 --parity odd --stopbits 2 --rs485 --id --gga --id-prefix P "
                                 "--interval 4294967295 --timestamp --daemonize --verbose --hwflow");
    EXPECT_TRUE(s.logToStderr && s.serverEnabled && s.clientEnabled && s.serialRs485 && s.timestamp && s.daemonize);
    EXPECT_EQ(std::tuple(s.logLevel, s.serverPort, s.clientPort, s.interval), std::tuple(50, 4464, 8, -1));
    EXPECT_EQ(s.clientProtocol, 'u');
    EXPECT_EQ(s.clientRemoteHost + s.serialPort + s.stationIdPrefix, "10.0.0.1/24/dev/xP");
    EXPECT_EQ(s.stationId, "--gga") << "a value is a value, whatever it looks like";
    EXPECT_FALSE(filterOf(SentenceType::GGA).enabled);
    EXPECT_EQ(parsed("--parity even").serialParity, PARENB);
}

TEST(parseCommandLine, keepsDefaultsForWhatIsMissing)
{
    for (const std::string last : {"--baud", "--loglevel", "--serial", "--id", "--server-passwd", "--servers"}) {
        const RunSettings s = parsed("--server --no-server --parity ODD --stopbits 65537 " + last);
        EXPECT_EQ(std::tuple(s.serialSpeed, s.serialCharSize, s.serialParity, s.serialStopBits),
                  std::tuple(B115200, CS8, 0, 0));
        EXPECT_EQ(std::tuple(s.logLevel, s.interval, s.serverPort, s.serverEnabled), std::tuple(30, 10, 5445, false));
        EXPECT_EQ(s.serialPort + s.stationId + s.serverPassword, "");
    }
}

TEST(parseCommandLine, switchesSentenceTypes)
{
    for (std::size_t row = 0; const std::string name : {"gga", "rmc", "gsa", "zda", "gbs", "gll", "gsv", "vtg"}) {
        parsed("--" + name);
        for (std::size_t other = 0; other < sentenceTypeCount; ++other)
            EXPECT_EQ(sentenceFilters[other].enabled, other == row) << name;
        parsed("--no-" + name);
        ++row;
    }
}
