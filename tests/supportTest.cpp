#include "support/Lock.h"
#include "support/Logger.h"
#include "support/Text.h"
#include "support/Thread.h"

#include "harness.h"

#include <atomic>

using Strings = std::vector<std::string>;

TEST(Text, splitsAndStrips)
{
    EXPECT_EQ(KAV::Text::split("$GPGSV,3,,1", ',', 0), (Strings{"$GPGSV", "3", "", "1"}));
    EXPECT_EQ(KAV::Text::split("", ',', 0), Strings{""});
    EXPECT_EQ(KAV::Text::split("end,", ',', 0), (Strings{"end", ""}));
    EXPECT_EQ(KAV::Text::split("a,b,c", ',', 2), (Strings{"a", "b,c"}));
    EXPECT_EQ(KAV::Text::strip("\ra\rb\r\n", {0x0A, 0x0D}), "a\rb");
    EXPECT_EQ(KAV::Text::strip("\n\r\n", {0x0A, 0x0D}), "");
}

TEST(Logger, writesOneHarmlessLineAndKeepsErrno)
{
    KAV::Logger::setPrintLevel(30, false);
    int computed = 0;
    testing::internal::CaptureStderr();
    errno = EPIPE;
    KAV_LOG(ERROR, "%d from\x1b[2J a peer: \x01\ttab\n\r\n", errno);
    KAV_LOG(INFO, "no line end");
    KAV_LOG(DEBUG, "%d", ++computed);
    EXPECT_EQ(errno, EPIPE);
    EXPECT_EQ(testing::internal::GetCapturedStderr(), "ERROR: 32 from\\x1B[2J a peer: \\x01\ttab\nINFO: no line end\n");
    EXPECT_EQ(computed, 0);
}

class Worker : public KAV::Thread {
public:
    Worker(bool owned, void (*_body)()) : Thread("navtwine worker-with-a-long-name", owned), body(_body) { start(); }
    ~Worker() override
    {
        if (isAlive())
            stop();
        ++destroyed;
    }
    void execute() override { body(); }
    static inline std::atomic<int> destroyed{0};

private:
    void (*body)();
};

TEST(Thread, stopEndsABlockedBodyAndReleasesItsLocks)
{
    static KAV::Lock lock;
    static std::atomic<bool> entered;
    for (const bool owned : {true, false}) {
        entered = false;
        auto *const worker = new Worker(owned, [] {
            const KAV::Hold hold(lock);
            entered = true;
            KAV::Thread::sleep(3'600'000);
        });
        ASSERT_TRUE(eventually([] { return entered.load(); }));
        delete worker;
        const KAV::Hold freeAgain(lock);
    }
}

TEST(Thread, isDeletedByTheLibraryWhenNobodyOwnsIt)
{
    const int before = Worker::destroyed;
    for (int made = 0; made < 200; ++made)
        new Worker(false, [] {});
    EXPECT_TRUE(eventually([before] { return Worker::destroyed == before + 200; }));
    Worker owned(true, [] {});
    owned.wait();
    owned.wait();
    EXPECT_FALSE(owned.isAlive());
}
