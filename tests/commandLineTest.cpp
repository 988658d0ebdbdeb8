#include "app/commandLine.h"
#include "nmea/sentence.h"
#include "support/Text.h"

#include <gtest/gtest.h>

static RunSettings parsed(const std::string &arguments)
{
    sentenceFilters = {};
    std::vector<std::string> words = KAV::Text::split("navtwine " + arguments, ' ', 0);
    std::vector<char *> pointers;
    for (std::string &word : words)
        pointers.push_back(word.data());
    return parseCommandLine(static_cast<int>(pointers.size()), pointers.data());
}

TEST(commandLine, takesValuesAndSwitches)
{
    const std::map<std::string, speed_t> speeds{{"4800", B4800},   {"9600", B9600},   {"19200", B19200},
                                                {"38400", B38400}, {"57600", B57600}, {"115200", B115200}};
    for (const auto &[value, speed] : speeds)
        EXPECT_EQ(parsed("--baud " + value).serialSpeed, speed);
    EXPECT_EQ(parsed("--loglevel 0x32").logLevel, 50);
    EXPECT_EQ(parsed("--server-port 70000").serverPort, 4464);
    EXPECT_EQ(parsed("--server-passwd").serverPassword, "");
    EXPECT_EQ(parsed("--client-port 010").clientPort, 8);
    EXPECT_EQ(parsed("--hwflow ").serialHwFlow, CRTSCTS) << "an empty argument is not its opposite";
    EXPECT_EQ(parsed("--id --version").stationId, "--version");
    EXPECT_EQ(parsed("--interval 0x80000001").interval, -2147483647);
    for (const auto &[value, flags] :
         std::map<std::string, int>{{"odd", PARENB | PARODD}, {"even", PARENB}, {"ODD", 0}})
        EXPECT_EQ(parsed("--parity " + value).serialParity, flags);
    const std::string on = "--server --client --timestamp --daemonize --immediate";
    const RunSettings off = parsed(on + " --no-server --no-client --no-timestamp --no-daemonize --no-immediate");
    EXPECT_FALSE(off.wantsConsumer() || off.timestamp || off.daemonize || off.immediate);
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

TEST(commandLine, isStrictWhenAskedTo)
{
    const std::string longest(255, 'p');
    const std::pair<std::string, std::string> complaints[] = {
        {"--gga --server-passwd=secret", "Unknown, or without its value: --server-passwd"},
        {"--server-passwd my secret", "Unexpected text after --server-passwd"},
        {"--server --gga --server-port", "Unknown, or without its value: --server-port"},
        {"--server-port 65536 --servr", "Invalid value of --server-port 65536"},
        {"--client-port 0", "Invalid value of --client-port 0"},
        {"--interval 1s", "Invalid value of --interval 1s"},
        {"--server-passwd p" + longest, "Invalid value of --server-passwd"},
        {"--parity ODD", "Invalid value of --parity ODD"},
        {"--status 2147483648", "Invalid value of --status 2147483648"},
        {"--server --id --gga", "No sentence type, such as --gga, for a consumer"},
        {"--gga", "No --server, --client or --serial for a sentence type"},
        {"--server --gga --daemonize -e", "-e does not go with --daemonize"},
        {"--client --gga", "No --client-remote-host for --client"},
    };
    for (const auto &[arguments, complaint] : complaints) {
        EXPECT_FALSE(parsed("--id --strict " + arguments).strict) << "nothing ends without the option";
        EXPECT_EXIT(parsed("--strict " + arguments), testing::ExitedWithCode(1),
                    testing::Eq(complaint + "[ABORTING EXECUTION]\n"));
    }
    const std::string extreme =
        "--client-port 0xffff --interval 2147483647 --loglevel 100 --parity none --server --gga";
    EXPECT_EQ(parsed(extreme + " --strict --status 0 --client-passwd " + longest).clientPassword, longest);
}
