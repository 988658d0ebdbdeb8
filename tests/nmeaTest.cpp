#include "nmea/gpspipe.h"
#include "nmea/handleNMEAString.h"
#include "nmea/sentence.h"

#include "Mailbox.h"
#include "harness.h"

TEST(Observer, keepsTheNewestElevenInOrder)
{
    Mailbox mailbox;
    for (int message = 10; message < 30; ++message)
        mailbox.update(std::to_string(message) + " ");
    EXPECT_EQ(mailbox.getData(), "19 20 21 22 23 24 25 26 27 28 29 ");
    EXPECT_EQ(mailbox.getData(), "");
    mailbox.update(std::string(5000, 'x'));
    mailbox.update("y");
    EXPECT_EQ(mailbox.getData(), std::string(5000, 'x') + "y");
}

TEST(isSentenceDue, countsWholeSeconds)
{
    const auto due = [](bool enabled, std::time_t last, std::time_t now, int interval) {
        SentenceFilter filter{enabled, last};
        const bool result = isSentenceDue(filter, now, interval);
        EXPECT_EQ(filter.lastSent, result ? now : last);
        return result;
    };
    EXPECT_TRUE(due(true, 0, 1'700'000'000, 10) && due(true, 500, 510, 10)) << "the first, and just due";
    EXPECT_TRUE(due(true, 500, 500, 1) && due(true, 500, 9, 1)) << "no limit, wherever the clock goes";
    EXPECT_TRUE(due(true, 500, 500, 0) && due(true, 500, 499, -1));
    EXPECT_FALSE(due(false, 0, 500, 10) || due(true, 500, 509, 10)) << "off, and one too early";
    EXPECT_FALSE(due(true, 500, 9, 10) || due(true, 500, 499, 0)) << "the clock went back";
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
    EXPECT_EQ(passed({"$GPGGA,4\r\n"}, 1000), "") << "the talkers share one gate";
    EXPECT_EQ(passed({"$GPGSV,2,1,a\n", "$GPGSV,2,2,b\n", "$GPGSV,2,1,c\n"}, 1), "") << "switched off";
    filterOf(SentenceType::GSV) = {true, 0};
    EXPECT_EQ(passed({"$GPGSV,2,2,d\n"}, 1000), "X-7$GPGSV,2,1,c\nX-7$GPGSV,2,2,d\n");
    EXPECT_EQ(passed({"$GPGSV,2,1,e\n", "$GPGSV,2,2,e\n"}, 1000), "") << "a group that is not due is dropped whole";
    EXPECT_EQ(passed({"$GPGSV,1,1", "$GPGSV,2,02,g"}, 1), "") << "neither ends a group";
    filterOf(SentenceType::GSV) = {true, 0};
    EXPECT_EQ(passed({"$GPGSV,2,2,h"}, 1000), "X-7$GPGSV,1,1X-7$GPGSV,2,02,gX-7$GPGSV,2,2,h") << "due when complete";

    const std::string sentence = "X-7$GPGSV,9,1,x";
    const std::size_t most = 256UL * 1024 / sentence.size();
    for (const std::size_t count : {most, most + 3}) {
        testing::internal::CaptureStderr();
        for (std::size_t number = 1; number < count; ++number)
            handleNMEAString("$GPGSV,9,1,x", 1, &id);
        EXPECT_EQ(passed({"$GPGSV,9,9,x"}, 1).size(), (count > most ? 3 : most) * sentence.size());
        EXPECT_EQ(testing::internal::GetCapturedStderr(),
                  count > most
                      ? "ERROR: nmeaDataSubject::collectGSV() : no GSV group was completed within 262144 bytes: "
                        "dropped\n"
                      : "");
    }
    sentenceFilters = {};
}

TEST(kavGPSGetNMEAStrings, readsWhatGpspipePrints)
{
    static std::vector<std::string> lines;
    const std::string piece(511, 'x');
    const std::tuple<const char *, int, int, std::vector<std::string>> cases[] = {
        {"echo \"$*\"; printf 'b\\r\\n'", 0, 32, {"-r\n", "b\r\n"}},
        {"echo \"$*\"; printf 'no line end'", 1, 0, {"-t -r\n", "no line end"}},
        {"head -c 1100 /dev/zero | tr '\\0' x; echo", 0, 32, {piece, piece, std::string(78, 'x') + "\n"}},
        {"printf 'a\\0b\\nno memory\\nc\\n'", 0, 32, {"a", "c\n"}},
    };
    const auto note = [](const char *line, int, const std::string *) {
        if (line == std::string("no memory\n"))
            throw std::bad_alloc();
        lines.emplace_back(line);
        return 1;
    };
    for (const auto &[script, timestamp, result, expected] : cases) {
        const FakeGpspipe gpspipe(script);
        ::setenv("PATH", (gpspipe.folder.string() + ":/usr/bin:/bin").c_str(), 1);
        lines.clear();
        EXPECT_EQ(kavGPSGetNMEAStrings(timestamp, note, 1, nullptr), result) << script;
        EXPECT_EQ(lines, expected) << script;
    }
}
