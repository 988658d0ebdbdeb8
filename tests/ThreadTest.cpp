#include "support/Thread.h"

#include <functional>
#include <gtest/gtest.h>

class Worker : public KAV::Thread {
public:
    explicit Worker(std::function<void()> _body)
        : KAV::Thread("navtwine worker of a test", true),
          body(std::move(_body))
    {
        KAV::Thread::start();
    }
    ~Worker() override { KAV::Thread::wait(); }
    void execute() override { body(); }

private:
    const std::function<void()> body;
};

TEST(Thread, hasASmallStackAndItsName)
{
    const Worker worker([] {
        pthread_attr_t attributes;
        std::size_t size = 0;
        char name[16];
        pthread_getattr_np(pthread_self(), &attributes);
        pthread_attr_getstacksize(&attributes, &size);
        pthread_attr_destroy(&attributes);
        pthread_getname_np(pthread_self(), name, sizeof name);
        EXPECT_LE(size, 1024 * 1024) << "with sanitizers; 248 KiB otherwise";
        EXPECT_STREQ(name, "worker of a tes");
    });
}

TEST(Thread, logsWhatLeavesItsBody)
{
    testing::internal::CaptureStderr();
    Worker([] { throw std::runtime_error("lost"); });
    EXPECT_EQ(testing::internal::GetCapturedStderr(), "ERROR: thread 'navtwine worker of a test' ended early: lost\n");
}
