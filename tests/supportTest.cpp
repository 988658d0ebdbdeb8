#include "support/Lock.h"
#include "support/Logger.h"
#include "support/Thread.h"

#include "harness.h"

#include <atomic>

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

TEST(Thread, stopEndsABlockedBodyAndReleasesItsLocks)
{
    static KAV::Lock lock;
    static std::atomic<bool> entered;
    for (const bool owned : {true, false}) {
        entered = false;
        const auto worker = std::make_unique<Worker>(owned, [] {
            const KAV::Hold hold(lock);
            entered = true;
            KAV::Thread::sleep(3'600'000);
        });
        ASSERT_TRUE(eventually([] { return entered.load(); }));
    }
    const KAV::Hold freeAgain(lock);
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
