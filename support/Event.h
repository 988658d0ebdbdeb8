#pragma once

#include <cerrno>
#include <chrono>
#include <ctime>
#include <semaphore.h>

namespace KAV {

/// Wakes one waiting thread. What is notified while nobody waits ends the next wait, once however often it was
/// notified.
///
/// A semaphore, since waiting and waking take one system call each; a condition variable takes two more for its mutex.
/// Both waits are cancellation points; a caught signal does not end them.
class Event {
public:
    Event() { ::sem_init(&pending, 0, 0); }
    Event(const Event &) = delete;
    Event &operator=(const Event &) = delete;
    ~Event() { ::sem_destroy(&pending); }

    /// Any thread.
    void notify()
    {
        int value = 0;
        ::sem_getvalue(&pending, &value);
        if (value == 0)
            ::sem_post(&pending);
    }
    /// Thread: the one that waits.
    void wait()
    {
        // Not sem_wait: the thread sanitizer of GCC 12 loses track of a thread that is cancelled in it.
        while (!waitUntil(std::chrono::steady_clock::now() + std::chrono::hours{24})) {
        }
    }
    /// False when `deadline`, of the monotonic clock, passed without a notification. Thread: the one that waits.
    [[nodiscard]] bool waitUntil(std::chrono::steady_clock::time_point deadline)
    {
        using namespace std::chrono;
        const auto time = deadline.time_since_epoch();
        const auto whole = duration_cast<seconds>(time);
        const timespec end{static_cast<std::time_t>(whole.count()),
                           static_cast<long>(duration_cast<nanoseconds>(time - whole).count())};
        int result = 0;
        do
            result = ::sem_clockwait(&pending, CLOCK_MONOTONIC, &end);
        while (result != 0 && errno == EINTR);
        return result == 0;
    }

private:
    sem_t pending;
};

} // namespace KAV
