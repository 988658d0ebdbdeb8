#include "nmea/Observer.h"
#include "nmea/gpspipe.h"
#include "nmea/handleNMEAString.h"
#include "nmea/nmeaDataSubject.h"
#include "nmea/sentence.h"

#include "harness.h"

/// An observer whose body does nothing: only its mailbox is looked at.
struct Mailbox : Observer {
    Mailbox() : Observer("navtwine mailbox") { queueLock = new KAV::Lock; }
    ~Mailbox() override { nmeaDataSubject::getInstance()->detach(this); }
    void execute() override {}
};

TEST(Observer, keepsTheNewestElevenInOrder)
{
    Mailbox mailbox;
    for (int message = 10; message < 30; ++message)
        mailbox.update(std::to_string(message) + " ");
    EXPECT_EQ(mailbox.getData(), "19 20 21 22 23 24 25 26 27 28 29 ");
    EXPECT_EQ(mailbox.getData(), "");
}

TEST(nmeaDataSubject, deliversToEveryRegistration)
{
    nmeaDataSubject *const subject = nmeaDataSubject::getInstance();
    Mailbox once;
    Mailbox twice;
    for (Mailbox *const mailbox : {&once, &twice, &twice})
        subject->attach(mailbox);
    subject->notify("a");
    subject->detach(&twice);
    subject->notify("b");
    EXPECT_EQ(once.getData() + twice.getData(), "abaa");
}

TEST(isSentenceDue, countsWholeSeconds)
{
    using Case = std::tuple<const char *, bool, std::time_t, std::time_t, int, bool>;
    for (const auto &[name, enabled, last, now, interval, due] :
         {Case{"off", false, 0, 500, 10, false}, Case{"first", true, 0, 1'700'000'000, 10, true},
          Case{"one too early", true, 500, 509, 10, false}, Case{"just due", true, 500, 510, 10, true},
          Case{"no limit", true, 500, 500, 1, true}, Case{"no limit, clock back", true, 500, 9, 1, true},
          Case{"clock back", true, 500, 9, 10, false}, Case{"zero", true, 500, 500, 0, true},
          Case{"zero, clock back", true, 500, 499, 0, false}, Case{"negative", true, 500, 499, -1, true}}) {
        SentenceFilter filter{enabled, last};
        EXPECT_EQ(isSentenceDue(filter, now, interval), due) << name;
        EXPECT_EQ(filter.lastSent, due ? now : last) << name;
    }
}

TEST(findSentenceType, takesTheFirstRowOfTheTable)
{
    using enum SentenceType;
    const std::pair<std::optional<SentenceType>, std::vector<const char *>> cases[] = {
        {GGA, {"$GPGGA,1", "$GPRMC,then $GPGGA", "GGPGPGGA"}},
        {RMC, {"$GNRMC,1"}},
        {GSA, {"$GPGSA"}},
        {ZDA, {"$GNZDA"}},
        {GBS, {"GPGBS"}},
        {GLL, {"x GNGLL"}},
        {GSV, {"$GPGSV", "GPVTG GNGSV"}},
        {VTG, {"$GNVTG"}},
        {{}, {"$GLGSV,1", "$GPGG", "gpgga", "$GPTXT,GNSS", "", "\xff\x01G"}},
    };
    for (const auto &[type, lines] : cases) {
        for (const char *const line : lines)
            EXPECT_EQ(findSentenceType(line), type) << line;
    }
}

TEST(handleNMEAString, decoratesGathersAndGates)
{
    Mailbox mailbox;
    nmeaDataSubject::getInstance()->attach(&mailbox);
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
    EXPECT_EQ(passed({"$GPGSV,2,2,d\n"}, 1), "X-7$GPGSV,2,1,c\nX-7$GPGSV,2,2,d\n");
    EXPECT_EQ(passed({"$GPGSV,1,1,e\n"}, 1000), "") << "a group that is not due is dropped whole";
    EXPECT_EQ(passed({"$GPGSV,1,1", "$GPGSV,2,02,g"}, 1), "") << "neither ends a group";
    EXPECT_EQ(passed({"$GPGSV,2,2,h"}, 1), "X-7$GPGSV,1,1X-7$GPGSV,2,02,gX-7$GPGSV,2,2,h");
    for (int sentence = 0; sentence < 10'000; ++sentence)
        handleNMEAString("$GPGSV,9,1,x", 1, &id);
    EXPECT_EQ(passed({"$GPGSV,9,9,x"}, 1).size(), 10'001 * std::string("X-7$GPGSV,9,1,x").size());
    for (int endless = 0; endless < 100'000; ++endless)
        handleNMEAString("$GPGSV,9,1,x", 1, &id);
    const std::size_t rest = passed({"$GPGSV,9,9,x"}, 1).size();
    EXPECT_TRUE(rest > 0 && rest <= 256U * 1024) << "a group that never ends must not eat the memory";
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
        {"printf 'a\\0b\\nc\\n'", 0, 32, {"a", "c\n"}},
        {"exit 3", 0, 32, {}},
    };
    for (const auto &[script, timestamp, result, expected] : cases) {
        const FakeGpspipe gpspipe(script);
        ::setenv("PATH", (gpspipe.folder.string() + ":/usr/bin:/bin").c_str(), 1);
        lines.clear();
        const auto note = [](const char *line, int, const std::string *) { return lines.emplace_back(line), 1; };
        EXPECT_EQ(kavGPSGetNMEAStrings(timestamp, note, 1, nullptr), result) << script;
        EXPECT_EQ(lines, expected) << script;
    }
}
