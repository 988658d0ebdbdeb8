#include "app/commandLine.h"
#include "nmea/Pulse.h"
#include "nmea/handleNMEAString.h"
#include "nmea/sentence.h"
#include "support/Text.h"

#include "Mailbox.h"

#include <algorithm>
#include <gtest/gtest.h>
#include <sstream>

static RunSettings parsed(const std::string &arguments)
{
    std::vector<std::string> words = KAV::Text::split("navtwine " + arguments, ' ', 0);
    std::vector<char *> pointers;
    for (std::string &word : words)
        pointers.push_back(word.data());
    return parseCommandLine(static_cast<int>(pointers.size()), pointers.data());
}

TEST(parseCommandLine, takesValues)
{
    const auto valuesOf = [](const std::string &arguments) {
        const RunSettings s = parsed(arguments);
        std::ostringstream all;
        all << s.logLevel << ' ' << s.serverPort << ' ' << s.clientProtocol << ' ' << s.clientPort << ' ' << s.interval
            << ' ' << s.serialSpeed << ' ' << s.serialCharSize << ' ' << s.serialParity << ' ' << s.serialStopBits
            << ' ' << s.serialHwFlow << s.serverPassword << s.clientRemoteHost << s.clientPassword << s.serialPort
            << s.stationId << s.stationIdPrefix << (s.serialRs485 ? " rs485" : "") << (s.logToStderr ? " -e" : "");
        return all.str();
    };
    // B4800 is 12, B115200 is 4098, CS7 32, CS8 48, PARENB 256, PARODD 512, CSTOPB 64, CRTSCTS 2147483648
    // (<termios.h>).
    const std::string defaults = "30 5445 t 5445 10 4098 48 0 0 0";
    const std::pair<const char *, std::string> cases[] = {
        {"--server-passwd", defaults},
        {"--servers --verbose --parity odd --parity ODD", defaults},
        {"--client-protocol tcp --datalength 8 --stopbits 1 --parity none --baud 115200", defaults},
        {"--loglevel 0x32 -e --server-port 70000 --client-protocol Udp --client-port 010 --rs485 --interval 70000",
         "50 4464 u 8 70000 4098 48 0 0 0 rs485 -e"},
        {"--baud 4800 --datalength 7 --parity odd --stopbits 2 --hwflow", "30 5445 t 5445 10 12 32 768 64 2147483648"},
        {"--baud 9600 --parity even --interval 4294967295", "30 5445 t 5445 -1 13 48 256 0 0"},
        {"--baud 19200", "30 5445 t 5445 10 14 48 0 0 0"},
        {"--baud 38400", "30 5445 t 5445 10 15 48 0 0 0"},
        {"--baud 57600", "30 5445 t 5445 10 4097 48 0 0 0"},
        {"--id --gga --id-prefix P --server-passwd a --server-passwd pw --client-passwd pc --serial /dev/x "
         "--client-remote-host 10.0.0.1/24",
         defaults + "pw10.0.0.1/24pc/dev/x--ggaP"},
    };
    for (const auto &[arguments, values] : cases)
        EXPECT_EQ(valuesOf(arguments), values) << arguments;
}

TEST(parseCommandLine, switchesOnAndOff)
{
    for (const bool on : {true, false}) {
        const std::string end = on ? "" : " --no-server --no-client --no-timestamp --no-daemonize --no-immediate";
        const RunSettings settings = parsed("--server --client --timestamp --daemonize --immediate" + end);
        EXPECT_EQ(std::tuple(settings.serverEnabled, settings.clientEnabled, settings.timestamp, settings.daemonize,
                             settings.immediate),
                  std::tuple(on, on, on, on, on));
    }
    const std::string types[] = {"GGA", "RMC", "GSA", "ZDA", "GBS", "GLL", "GSV", "VTG"};
    Mailbox mailbox;
    for (const std::string &type : types) {
        std::string option = type;
        std::transform(type.begin(), type.end(), option.begin(), [](char letter) { return letter | ' '; });
        parsed("--" + option);
        for (const std::string &sent : types)
            for (const char *const talker : {"$GP", "$GN", "$GL"})
                handleNMEAString((talker + sent + ",1,1,x\n").c_str(), 1, &option);
        parsed("--no-" + option);
        handleNMEAString(("$GP" + type + ",1,1,x\n").c_str(), 1, &option);
        EXPECT_EQ(mailbox.getData(), option + "$GP" + type + ",1,1,x\n" + option + "$GN" + type + ",1,1,x\n");
    }
}

TEST(Observer, keepsTheNewestInOrder)
{
    for (const int size : {11, 64}) {
        pulse = size == 64 ? new Pulse : nullptr; // which is never deleted
        Mailbox mailbox;
        std::string newest;
        for (int message = 0; message < 100; ++message) {
            const std::string text = std::to_string(message) + std::string(message % 10 == 5 ? 5000 : 1, ' ');
            mailbox.update(text);
            newest += message >= 100 - size ? text : "";
        }
        EXPECT_EQ(mailbox.getData(), newest);
        mailbox.update("next");
        EXPECT_EQ(mailbox.getData(), "next");
    }
    pulse = nullptr;
}

TEST(isSentenceDue, countsWholeSeconds)
{
    const auto due = [](std::time_t last, std::time_t now, int interval) {
        SentenceFilter filter{true, last};
        const bool result = isSentenceDue(filter, now, interval);
        EXPECT_EQ(filter.lastSent, result ? now : last);
        return result;
    };
    EXPECT_TRUE(due(0, 1'700'000'000, 10) && due(500, 510, 10)) << "the first, and just due";
    EXPECT_TRUE(due(500, 500, 1) && due(500, 9, 1) && due(500, 500, 0) && due(500, 499, -1)) << "no limit";
    EXPECT_FALSE(due(500, 509, 10)) << "one too early";
    EXPECT_FALSE(due(500, 9, 10) || due(500, 499, 0)) << "the clock went back";
}

TEST(handleNMEAString, decoratesGathersAndGates)
{
    Mailbox mailbox;
    nmeaDataSubject::getInstance()->attach(&mailbox); // a second time
    nmeaDataSubject::getInstance()->detach(&mailbox); // both
    nmeaDataSubject::getInstance()->attach(&mailbox);
    filterOf(SentenceType::GGA) = {true, 0};
    const std::string id = "X-7";
    const auto passed = [&](std::initializer_list<const char *> lines, int interval) {
        for (const char *const line : lines)
            EXPECT_EQ(handleNMEAString(line, interval, &id), 0);
        return mailbox.getData();
    };
    EXPECT_EQ(passed({"$GPGGA,1\r\n", "$GNGGA,2\r\n", "$GPRMC,3\r\n", "$GPGG", "\xff\x01G"}, 1),
              "X-7$GPGGA,1\r\nX-7$GNGGA,2\r\n");
    EXPECT_EQ(passed({"GGPGPGGA", "GPRMC GNGGA", "gpgga"}, 1), "X-7GGPGPGGAX-7GPRMC GNGGA") << "the first type decides";
    EXPECT_EQ(passed({"$GPGSV,2,1,a\n", "$GPGSV,2,2,b\n"}, 1), "") << "switched off";
    filterOf(SentenceType::GSV) = {true, 0};
    EXPECT_EQ(passed({"$GPGSV,2,1,c\n", "$GPGSV,2,2,d\n"}, 1000), "X-7$GPGSV,2,1,c\nX-7$GPGSV,2,2,d\n");
    EXPECT_EQ(passed({"$GPGSV,2,1,e\n", "$GPGSV,2,2,f\n"}, 1000), "") << "a group that is not due is dropped whole";
    EXPECT_EQ(passed({"$GPGSV,1,1", "$GPGSV,02,2,g"}, 1), "") << "neither ends a group";
    EXPECT_EQ(passed({"$GPGSV,2,2,h"}, 1), "X-7$GPGSV,1,1X-7$GPGSV,02,2,gX-7$GPGSV,2,2,h");
    for (std::size_t size = 0; size < 256UL * 1024; size += std::string_view("X-7$GPGSV,9,1,x").size())
        handleNMEAString("$GPGSV,9,1,x", 1, &id);
    EXPECT_LT(passed({"$GPGSV,9,9,y"}, 1).size(), 40) << "a group that grows without end is dropped";
    sentenceFilters = {};
}
