#include "app/commandLine.h"
#include "net/handshake.h"
#include "nmea/handleNMEAString.h"
#include "nmea/sentence.h"
#include "support/Descriptor.h"
#include "support/Logger.h"
#include "support/Text.h"

#include "Mailbox.h"

#include <algorithm>
#include <atomic>
#include <chrono>
#include <gtest/gtest.h>
#include <sstream>
#include <sys/socket.h>

static RunSettings parsed(const std::string &arguments)
{
    std::vector<std::string> words = KAV::Text::split("navtwine " + arguments, ' ', 0);
    std::vector<char *> pointers;
    for (std::string &word : words)
        pointers.push_back(word.data());
    return parseCommandLine(static_cast<int>(pointers.size()), pointers.data());
}

/// All that is not a switch, as one text.
static std::string valuesOf(const std::string &arguments)
{
    const RunSettings s = parsed(arguments);
    std::ostringstream all;
    all << s.logLevel << ' ' << s.serverPort << ' ' << s.clientProtocol << ' ' << s.clientPort << ' ' << s.interval
        << ' ' << s.serialSpeed << ' ' << s.serialCharSize << ' ' << s.serialParity << ' ' << s.serialStopBits << ' '
        << s.serialHwFlow << s.serverPassword << s.clientRemoteHost << s.clientPassword << s.serialPort << s.stationId
        << s.stationIdPrefix << (s.serialRs485 ? " rs485" : "") << (s.logToStderr ? " -e" : "");
    return all.str();
}

TEST(parseCommandLine, takesValues)
{
    static_assert(B4800 == 12 && B9600 == 13 && B19200 == 14 && B38400 == 15 && B57600 == 4097 && B115200 == 4098);
    static_assert(CS7 == 32 && CS8 == 48 && PARENB == 256 && PARODD == 512 && CSTOPB == 64 && CRTSCTS == 2147483648);
    const std::string defaults = "30 5445 t 5445 10 4098 48 0 0 0";
    const std::pair<const char *, std::string> cases[] = {
        {"", defaults},
        {"--baud", defaults},
        {"--loglevel", defaults},
        {"--serial", defaults},
        {"--id", defaults},
        {"--server-passwd", defaults},
        {"--servers --verbose", defaults},
        {"--parity odd --parity ODD", defaults},
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
        const std::string end = on ? "" : " --no-server --no-client --no-timestamp --no-daemonize";
        EXPECT_EQ(parsed("--server" + end).serverEnabled, on);
        EXPECT_EQ(parsed("--client" + end).clientEnabled, on);
        EXPECT_EQ(parsed("--timestamp" + end).timestamp, on);
        EXPECT_EQ(parsed("--daemonize" + end).daemonize, on);
    }
    const std::string types[] = {"GGA", "RMC", "GSA", "ZDA", "GBS", "GLL", "GSV", "VTG"};
    Mailbox mailbox;
    const auto passed = [&] {
        for (const std::string &type : types)
            for (const char *const talker : {"$GP", "$GN", "$GL"})
                handleNMEAString((talker + type + ",1,1,x\n").c_str(), 1, &types[0]);
        return mailbox.getData();
    };
    for (const std::string &type : types) {
        std::string option = type;
        std::transform(type.begin(), type.end(), option.begin(), [](char letter) { return letter | ' '; });
        EXPECT_EQ(passed(), "") << "all off";
        parsed("--" + option);
        EXPECT_EQ(passed(), "GGA$GP" + type + ",1,1,x\nGGA$GN" + type + ",1,1,x\n");
        parsed("--no-" + option);
    }
}

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
    const std::string dropped =
        "ERROR: nmeaDataSubject::collectGSV() : no GSV group was completed within 262144 bytes: dropped\n";
    const std::size_t most = 256UL * 1024 / sentence.size();
    for (const std::size_t count : {most, most + 3}) {
        testing::internal::CaptureStderr();
        for (std::size_t number = 1; number < count; ++number)
            handleNMEAString("$GPGSV,9,1,x", 1, &id);
        EXPECT_EQ(passed({"$GPGSV,9,9,x"}, 1).size(), (count > most ? 3 : most) * sentence.size());
        EXPECT_EQ(testing::internal::GetCapturedStderr(), count > most ? dropped : "");
    }
    sentenceFilters = {};
}

TEST(Line, isWipedWhenItGoes)
{
    int ends[2];
    ASSERT_EQ(::socketpair(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0, ends), 0);
    const KAV::Descriptor peer(ends[0]);
    const KAV::Descriptor own(ends[1]);
    alignas(handshake::Line) char room[sizeof(handshake::Line)];
    auto *const line = new (room) handshake::Line;
    ASSERT_EQ(::send(peer.get(), "secret\r\n", 8, 0), 8);
    EXPECT_TRUE(line->receive(own.get()) && line->is("secret") && !line->is("secre"));
    line->~Line();
    EXPECT_EQ(std::string(room, sizeof room).find("ecret"), std::string::npos);
}

TEST(Logger, keepsErrno)
{
    KAV::Logger::setPrintLevel(30, false);
    int computed = 0;
    testing::internal::CaptureStderr();
    errno = EPIPE;
    KAV::Descriptor(9999).reset(); // was not open: errno would become EBADF
    KAV_LOG(ERROR, "%d %s\n", errno, std::string(1000, 'x').c_str());
    KAV_LOG(DEBUG, "%d", ++computed);
    EXPECT_EQ(std::tuple(errno, computed), std::tuple(EPIPE, 0));
    EXPECT_EQ(testing::internal::GetCapturedStderr(), "ERROR: 32 " + std::string(1000, 'x') + "\n");
}

struct Worker : KAV::Thread {
    Worker(bool owned, void (*_body)()) : Thread("navtwine worker-with-a-long-name", owned), body(_body) { start(); }
    ~Worker() override
    {
        stop();
        ++destroyed;
    }
    void execute() override { body(); }

    void (*body)();
    static inline std::atomic<int> destroyed{0};
};

TEST(Thread, endsHoweverItIsOwned)
{
    static KAV::Lock lock;
    for (const bool owned : {true, false}) {
        static std::atomic<bool> entered;
        entered = false;
        const auto worker = std::make_unique<Worker>(owned, [] {
            const KAV::Hold hold(lock);
            entered = true;
            entered.notify_one();
            KAV::Thread::sleep(3'600'000);
        });
        entered.wait(false);
    }
    const KAV::Hold freeAgain(lock);
    for (int made = 0; made < 200; ++made)
        new Worker(false, [] {});
    for (int limit = 3000; limit > 0 && Worker::destroyed < 202; --limit)
        KAV::Thread::sleep(10);
    EXPECT_EQ(Worker::destroyed, 202) << "the library deletes what nobody owns";
}

TEST(Thread, canBeWaitedFor)
{
    const auto began = std::chrono::steady_clock::now();
    testing::internal::CaptureStderr();
    Worker worker(true, [] {
        pthread_attr_t attributes;
        std::size_t stack = 0;
        ::pthread_getattr_np(::pthread_self(), &attributes);
        ::pthread_attr_getstacksize(&attributes, &stack);
        ::pthread_attr_destroy(&attributes);
        EXPECT_LE(stack, 1024U * 1024) << "thousands of them must fit into 32 bits";
        KAV::Thread::sleep(300);
        throw std::runtime_error("thrown");
    });
    EXPECT_TRUE(worker.isAlive());
    worker.wait();
    worker.wait();
    EXPECT_GE(std::chrono::steady_clock::now() - began, std::chrono::milliseconds(300));
    EXPECT_EQ(testing::internal::GetCapturedStderr(),
              "ERROR: thread 'navtwine worker-with-a-long-name' ended early: thrown\n");
}
