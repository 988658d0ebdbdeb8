#pragma once

#include <atomic>

/// The process-wide stop flag: 0 at start, set to 1 by the SIGINT handler, never reset.
///
/// Thread: written only by the handler, which also wakes who waits for it; read by every loop of the program
/// without a lock.
extern std::atomic<int> exitRequested;

static_assert(std::atomic<int>::is_always_lock_free, "a signal handler writes this flag");
