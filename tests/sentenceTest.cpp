#include "nmea/sentence.h"

#include "nmea/handleNMEAString.h"

#include "Mailbox.h"

#include <gtest/gtest.h>

using enum SentenceType;

TEST(findSentenceType, looksForTheKeysAnywhere)
{
    const std::pair<const char *, std::optional<SentenceType>> cases[] = {
        {"$GPGGA,1", GGA}, {"$GNRMC,1", RMC},
        {"$GPGSA", GSA},   {"$GNZDA", ZDA},
        {"$GPGBS", GBS},   {"$GNGLL", GLL},
        {"$GPGSV", GSV},   {"$GNVTG", VTG},
        {"GGPGPGGA", GGA}, {"$GPVTG GNRMC GPGSA", RMC}, // the first in the order of the types
    };
    for (const char *const line : {"$GLGGA", "gpgga", "$GPGG", "\xff\x01G", ""})
        EXPECT_EQ(findSentenceType(line), std::nullopt) << line;
    for (const auto &[line, type] : cases)
        EXPECT_EQ(findSentenceType(line), type) << line;
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
    filterOf(GGA) = {true, 0};
    const std::string id = "X-7";
    const auto passed = [&](std::initializer_list<const char *> lines, int interval) {
        for (const char *const line : lines)
            EXPECT_EQ(handleNMEAString(line, interval, &id), 0);
        return mailbox.getData();
    };
    EXPECT_EQ(passed({"$GPGGA,1\r\n", "$GNGGA,2\r\n", "$GPRMC,3\r\n"}, 1), "X-7$GPGGA,1\r\nX-7$GNGGA,2\r\n");
    EXPECT_EQ(passed({"$GPGSV,2,1,a\n", "$GPGSV,2,2,b\n"}, 1), "") << "switched off";
    filterOf(GSV) = {true, 0};
    EXPECT_EQ(passed({"$GPGSV,2,1,c\n", "$GPGSV,2,2,d\n"}, 1000), "X-7$GPGSV,2,1,c\nX-7$GPGSV,2,2,d\n");
    EXPECT_EQ(passed({"$GPGSV,2,1,e\n", "$GPGSV,2,2,f\n"}, 1000), "") << "a group that is not due is dropped whole";
    EXPECT_EQ(passed({"$GPGSV,1,1", "$GPGSV,02,2,g"}, 1), "") << "neither ends a group";
    EXPECT_EQ(passed({"$GPGSV,2,2,h"}, 1), "X-7$GPGSV,1,1X-7$GPGSV,02,2,gX-7$GPGSV,2,2,h");
    for (std::size_t size = 0; size < 256UL * 1024; size += std::string_view("X-7$GPGSV,9,1,x").size())
        handleNMEAString("$GPGSV,9,1,x", 1, &id);
    EXPECT_LT(passed({"$GPGSV,9,9,y"}, 1).size(), 40) << "a group that grows without end is dropped";
    nmeaDataSubject::getInstance()->detach(&mailbox);
    EXPECT_EQ(passed({"$GPGGA,4\r\n"}, 1), "") << "nobody is left";
    sentenceFilters = {};
}
