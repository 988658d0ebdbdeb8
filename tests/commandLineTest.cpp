#include "app/commandLine.h"
#include "nmea/sentence.h"
#include "support/Text.h"

#include <gtest/gtest.h>

static RunSettings parsed(const std::string &arguments)
{
    std::vector<std::string> words = KAV::Text::split("navtwine " + arguments, ' ', 0);
    std::vector<char *> pointers;
    for (std::string &word : words)
        pointers.push_back(word.data());
    return parseCommandLine(static_cast<int>(pointers.size()), pointers.data());
}

TEST(commandLine, takesValues)
{
    const std::map<std::string, speed_t> speeds{{"4800", B4800},   {"9600", B9600},   {"19200", B19200},
                                                {"38400", B38400}, {"57600", B57600}, {"115200", B115200}};
    for (const auto &[value, speed] : speeds)
        EXPECT_EQ(parsed("--baud " + value).serialSpeed, speed);
    EXPECT_EQ(parsed("").logLevel, 30);
    EXPECT_EQ(parsed("--loglevel 0x32").logLevel, 50);
    EXPECT_TRUE(parsed("-e").logToStderr);
    EXPECT_EQ(parsed("--server-port 70000").serverPort, 4464);
    EXPECT_EQ(parsed("--server-passwd a --server-passwd pw").serverPassword, "pw");
    EXPECT_EQ(parsed("--server-passwd").serverPassword, "");
    EXPECT_EQ(parsed("--client-protocol Udp").clientProtocol, 'u');
    EXPECT_EQ(parsed("--client-remote-host 10.0.0.1/24").clientRemoteHost, "10.0.0.1/24");
    EXPECT_EQ(parsed("--server-port 1").clientPort, 5445);
    EXPECT_EQ(parsed("--client-port 010").clientPort, 8);
    EXPECT_EQ(parsed("--client-passwd pc").clientPassword, "pc");
    EXPECT_EQ(parsed("--serial /dev/x").serialPort, "/dev/x");
    EXPECT_EQ(parsed("--hwflow").serialHwFlow, CRTSCTS);
    EXPECT_TRUE(parsed("--rs485").serialRs485);
    EXPECT_EQ(parsed("--id --gga").stationId, "--gga");
    EXPECT_EQ(parsed("--id-prefix P").stationIdPrefix, "P");
    for (const auto &[value, seconds] : std::map<std::string, int>{{"70000", 70000}, {"4294967295", -1}})
        EXPECT_EQ(parsed("--interval " + value).interval, seconds);
    for (const auto &[value, flags] :
         std::map<std::string, int>{{"odd", PARENB | PARODD}, {"even", PARENB}, {"ODD", 0}})
        EXPECT_EQ(parsed("--parity " + value).serialParity, flags);
    EXPECT_EQ(parsed("--datalength 7").serialCharSize, CS7);
    EXPECT_EQ(parsed("--stopbits 2").serialStopBits, CSTOPB);
}

TEST(commandLine, switchesOnAndOff)
{
    for (const bool on : {true, false}) {
        const std::string off = " --no-server --no-client --no-timestamp --no-daemonize --no-immediate";
        const RunSettings settings = parsed("--server --client --timestamp --daemonize --immediate" + (on ? "" : off));
        EXPECT_EQ(settings.serverEnabled, on);
        EXPECT_EQ(settings.clientEnabled, on);
        EXPECT_EQ(settings.timestamp, on);
        EXPECT_EQ(settings.daemonize, on);
        EXPECT_EQ(settings.immediate, on);
    }
}

TEST(commandLine, switchesOneSentenceType)
{
    const std::string types[] = {"gga", "rmc", "gsa", "zda", "gbs", "gll", "gsv", "vtg"}; // as in SentenceType
    for (std::size_t switched = 0; switched < std::size(types); ++switched) {
        parsed("--" + types[switched]);
        for (std::size_t other = 0; other < std::size(types); ++other)
            EXPECT_EQ(sentenceFilters[other].enabled, other == switched) << types[switched] << types[other];
        parsed("--no-" + types[switched]);
        EXPECT_FALSE(sentenceFilters[switched].enabled) << types[switched];
    }
}
