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

TEST(nmeaDataSubject, deliversToEveryRegistration)
{
    nmeaDataSubject *const subject = nmeaDataSubject::getInstance();
    Mailbox once;
    Mailbox twice;
    subject->attach(&twice);
    subject->notify("a");
    subject->detach(&twice);
    subject->notify("b");
    EXPECT_EQ(once.getData() + twice.getData(), "abaa");
}

TEST(isSentenceDue, countsWholeSeconds)
{
    const struct {
        const char *name;
        bool enabled;
        std::time_t last, now;
        int interval;
        bool due;
    } cases[] = {
        {"off", false, 0, 500, 10, false},
        {"first", true, 0, 1'700'000'000, 10, true},
        {"one too early", true, 500, 509, 10, false},
        {"just due", true, 500, 510, 10, true},
        {"no limit", true, 500, 500, 1, true},
        {"no limit, clock back", true, 500, 9, 1, true},
        {"clock back", true, 500, 9, 10, false},
        {"zero", true, 500, 500, 0, true},
        {"zero, clock back", true, 500, 499, 0, false},
        {"negative", true, 500, 499, -1, true},
    };
    for (const auto &[name, enabled, last, now, interval, due] : cases) {
        SentenceFilter filter{enabled, last};
        EXPECT_EQ(isSentenceDue(filter, now, interval), due) << name;
        EXPECT_EQ(filter.lastSent, due ? now : last) << name;
    }
}

TEST(findSentenceType, takesTheFirstRowOfTheTable)
{
    using enum SentenceType;
    const std::pair<const char *, std::optional<SentenceType>> cases[] = {
        {"$GPRMC,then $GPGGA", GGA},
        {"GGPGPGGA", GGA},
        {"x GNGLL", GLL},
        {"GPVTG GNGSV", GSV},
        {"$GLGSV,1", {}},
        {"$GPGG", {}},
        {"gpgga", {}},
        {"$GPTXT,GNSS", {}},
        {"", {}},
        {"\xff\x01G", {}},
    };
    for (const auto &[line, type] : cases)
        EXPECT_EQ(findSentenceType(line), type) << line;
}

TEST(handleNMEAString, decoratesGathersAndGates)
{
    Mailbox mailbox;
    filterOf(SentenceType::GGA) = {true, 0};
    const std::string id = "X-7";
    const auto passed = [&](std::initializer_list<const char *> lines, int interval) {
        for (const char *const line : lines)
            EXPECT_EQ(handleNMEAString(line, interval, &id), 0);
        return mailbox.getData();
    };
    EXPECT_EQ(passed({"$GPGGA,1\r\n", "$GNGGA,2\r\n", "$GPRMC,3\r\n", "x"}, 1), "X-7$GPGGA,1\r\nX-7$GNGGA,2\r\n");
    EXPECT_EQ(passed({"$GPGGA,4\r\n"}, 1000), "") << "the talkers share one gate";
    EXPECT_EQ(passed({"$GPGSV,2,1,a\n", "$GPGSV,2,2,b\n", "$GPGSV,2,1,c\n"}, 1), "") << "switched off";
    filterOf(SentenceType::GSV) = {true, 0};
    EXPECT_EQ(passed({"$GPGSV,2,2,d\n"}, 1000), "X-7$GPGSV,2,1,c\nX-7$GPGSV,2,2,d\n") << "the first is due";
    EXPECT_EQ(passed({"$GPGSV,2,1,e\n", "$GPGSV,2,2,e\n"}, 1000), "") << "a group that is not due is dropped whole";
    filterOf(SentenceType::GSV) = {true, 0};
    EXPECT_EQ(passed({"$GPGSV,2,1,f\n", "$GPGSV,2,2,f\n"}, 1000), "X-7$GPGSV,2,1,f\nX-7$GPGSV,2,2,f\n");
    EXPECT_EQ(passed({"$GPGSV,1,1", "$GPGSV,2,02,g"}, 1), "") << "neither ends a group";
    EXPECT_EQ(passed({"$GPGSV,2,2,h"}, 1), "X-7$GPGSV,1,1X-7$GPGSV,2,02,gX-7$GPGSV,2,2,h");

    const std::string sentence = "X-7$GPGSV,9,1,x";
    const std::size_t most = 256UL * 1024 / sentence.size();
    const auto gathered = [&](std::size_t count) {
        for (std::size_t number = 1; number < count; ++number)
            handleNMEAString("$GPGSV,9,1,x", 1, &id);
        return passed({"$GPGSV,9,9,x"}, 1).size();
    };
    testing::internal::CaptureStderr();
    EXPECT_EQ(gathered(most), most * sentence.size());
    EXPECT_EQ(testing::internal::GetCapturedStderr(), "");
    testing::internal::CaptureStderr();
    EXPECT_EQ(gathered(most + 3), 3 * sentence.size()) << "a group that never ends must not eat the memory";
    EXPECT_EQ(testing::internal::GetCapturedStderr(), "ERROR: nmeaDataSubject::collectGSV() : no GSV group was "
                                                      "completed within 262144 bytes: dropped\n");
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
        {"exit 3", 0, 32, {}},
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
