#include "support/Thread.h"

#include <gtest/gtest.h>

struct Worker : KAV::Thread {
    Worker() : KAV::Thread("navtwine worker of a test", true) { KAV::Thread::start(); }
    ~Worker() override { KAV::Thread::wait(); }
    void execute() override
    {
        pthread_attr_t attributes;
        std::size_t size = 0;
        char systemName[16];
        pthread_getattr_np(pthread_self(), &attributes);
        pthread_attr_getstacksize(&attributes, &size);
        pthread_attr_destroy(&attributes);
        pthread_getname_np(pthread_self(), systemName, sizeof systemName);
        EXPECT_LE(size, 1024 * 1024) << "with sanitizers; 248 KiB otherwise";
        throw std::runtime_error(systemName);
    }
};

TEST(Thread, hasASmallStackAndLogsWhatLeavesItsBody)
{
    testing::internal::CaptureStderr();
    {
        const Worker worker;
    }
    EXPECT_EQ(testing::internal::GetCapturedStderr(),
              "ERROR: thread 'navtwine worker of a test' ended early: worker of a tes\n");
}
