#pragma once

#include <atomic>
#include <chrono>
#include <cstdint>

namespace KAV {

/// A counter that any number of threads wait on; each broadcast starts its next generation and wakes them all.
///
/// Waiting and waking take one system call each (futex(2)). A condition variable takes two more for its mutex, and
/// std::atomic::wait spins and yields before it sleeps.
///
/// Thread: any. Never destroyed while somebody waits. `await` is not a cancellation point.
class Broadcast {
public:
    using Clock = std::chrono::steady_clock;
    static constexpr Clock::time_point never = Clock::time_point::max();

    /// The current generation; 0 at start.
    [[nodiscard]] std::uint32_t generation() const { return counter; }

    /// Starts the next generation and wakes everybody who waits.
    void send();

    /// Waits for a generation other than `seen`. False when `deadline` passed first.
    bool await(std::uint32_t seen, Clock::time_point deadline = never) const;

private:
    std::atomic<std::uint32_t> counter{0};
};

} // namespace KAV
