#include "support/Logger.h"

#include <chrono>
#include <fcntl.h>
#include <gtest/gtest.h>
#include <unistd.h>

TEST(Logger, waitsForAStalledReaderOnceOnly)
{
    int ends[2];
    ASSERT_EQ(::pipe2(ends, O_NONBLOCK), 0);
    const int before = ::dup(STDERR_FILENO);
    ::dup2(ends[1], STDERR_FILENO);
    const auto begin = std::chrono::steady_clock::now();
    for (int line = 0; line < 1000; ++line) // two thirds of them fit into the pipe
        KAV_LOG(INFO, "%0100d\n\r\n", line);
    const auto passed = std::chrono::steady_clock::now() - begin;
    ::dup2(before, STDERR_FILENO);
    EXPECT_LT(passed, std::chrono::seconds{10});
    for (const int end : {before, ends[0], ends[1]})
        ::close(end);
}
