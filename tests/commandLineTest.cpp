#include "app/commandLine.h"
#include "nmea/sentence.h"
#include "support/Text.h"

#include <gtest/gtest.h>
#include <tuple>

static RunSettings parsed(const std::string &arguments)
{
    std::vector<std::string> words = KAV::Text::split("navtwine " + arguments, ' ', 0);
    std::vector<char *> pointers;
    for (std::string &word : words)
        pointers.push_back(word.data());
    return parseCommandLine(static_cast<int>(pointers.size()), pointers.data());
}

#pragma GCC diagnostic ignored "-Wmissing-field-initializers" // a row names what differs from the default

static auto fieldsOf(const RunSettings &s)
{
    return std::tie(s.logLevel, s.logToStderr, s.serverPort, s.serverPassword, s.clientProtocol, s.clientRemoteHost,
                    s.clientPort, s.clientPassword, s.serialPort, s.serialSpeed, s.serialCharSize, s.serialParity,
                    s.serialStopBits, s.serialHwFlow, s.serialRs485, s.stationId, s.stationIdPrefix, s.interval);
}

TEST(commandLine, takesValues)
{
    const std::pair<const char *, RunSettings> cases[] = {
        {"--servers --parity odd --parity ODD --client-protocol tcp --datalength 8 --stopbits 1 --server-passwd",
         {.logLevel = 30, .serverPort = 5445, .clientProtocol = 't', .clientPort = 5445, .interval = 10}},
        {"--loglevel 0x32 -e --server-port 70000", {.logLevel = 50, .logToStderr = true, .serverPort = 4464}},
        {"--client-protocol Udp --client-port 010", {.clientProtocol = 'u', .clientPort = 8}},
        {"--rs485 --interval 70000 --baud 19200", {.serialSpeed = B19200, .serialRs485 = true, .interval = 70000}},
        {"--baud 4800 --datalength 7 --parity odd",
         {.serialSpeed = B4800, .serialCharSize = CS7, .serialParity = PARENB | PARODD}},
        {"--stopbits 2 --hwflow", {.serialStopBits = CSTOPB, .serialHwFlow = CRTSCTS}},
        {"--baud 9600 --parity even --interval 4294967295",
         {.serialSpeed = B9600, .serialParity = PARENB, .interval = -1}},
        {"--baud 38400 --id --gga --id-prefix P",
         {.serialSpeed = B38400, .stationId = "--gga", .stationIdPrefix = "P"}},
        {"--baud 57600 --server-passwd a --server-passwd pw", {.serverPassword = "pw", .serialSpeed = B57600}},
        {"--client-remote-host 10.0.0.1/24 --client-passwd pc --serial /dev/x",
         {.clientRemoteHost = "10.0.0.1/24", .clientPassword = "pc", .serialPort = "/dev/x"}},
    };
    for (const auto &[arguments, expected] : cases)
        EXPECT_EQ(fieldsOf(parsed(arguments)), fieldsOf(expected)) << arguments;
}

TEST(commandLine, switchesOnAndOff)
{
    const std::pair<std::string, bool RunSettings::*> switches[] = {
        {"server", &RunSettings::serverEnabled}, {"client", &RunSettings::clientEnabled},
        {"timestamp", &RunSettings::timestamp},  {"daemonize", &RunSettings::daemonize},
        {"immediate", &RunSettings::immediate},
    };
    for (const auto &[name, field] : switches) {
        EXPECT_TRUE(parsed("--" + name).*field) << name;
        EXPECT_FALSE(parsed("--" + name + " --no-" + name).*field) << name;
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
