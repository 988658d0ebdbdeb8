#include "support/Broadcast.h"

#include <algorithm>
#include <array>
#include <climits>
#include <linux/futex.h>
#include <sys/syscall.h>
#include <unistd.h>

namespace KAV {

void Broadcast::send()
{
    ++counter;
    ::syscall(SYS_futex, &counter, FUTEX_WAKE_PRIVATE, INT_MAX, nullptr, nullptr, 0);
}

bool Broadcast::await(std::uint32_t seen, Clock::time_point deadline) const
{
    static_assert(sizeof counter == sizeof(std::uint32_t), "the kernel compares the counter with `seen`");
    using namespace std::chrono;
    while (counter == seen) {
        const auto left = deadline - Clock::now();
        if (left <= Clock::duration::zero())
            return false;
        // A wait for `never` looks at the clock again once a month.
        const auto nanoseconds = duration_cast<std::chrono::nanoseconds>(std::min<Clock::duration>(left, hours{720}));
        // Seconds and nanoseconds as SYS_futex takes them; timespec is larger where time_t has 64 bits and long 32.
        const std::array<long, 2> timeout{static_cast<long>(nanoseconds.count() / 1'000'000'000),
                                          static_cast<long>(nanoseconds.count() % 1'000'000'000)};
        ::syscall(SYS_futex, &counter, FUTEX_WAIT_PRIVATE, seen, timeout.data(), nullptr, 0);
    }
    return true;
}

} // namespace KAV
