#pragma once

#include <atomic>

/// The process-wide stop flag: 0 at start, set to 1 by the SIGINT handler, never reset.
///
/// Thread: written only by `requestExit`, read by every loop of the program without a lock.
extern std::atomic<int> exitRequested;

static_assert(std::atomic<int>::is_always_lock_free, "a signal handler writes this flag");

/// Sets `exitRequested`, and wakes who waits for it or for `exitEvent`. Async-signal-safe, as the SIGINT handler calls
/// it: `notify_all` of a lock-free atomic is (C++20, [support.signal]), and what libstdc++ 12 makes of it on amd64 and
/// armhf is a store, loads and atomic additions, a futex(2) call, then eventfd_write(3); no lock is taken.
void requestExit();

/// Creates the eventfd behind `exitEvent`, which is never closed. Thread: main, before any other starts.
void makeExitEvent();

/// For poll(2): readable from the exit request on. -1, which poll ignores, when the system had none.
int exitEvent();
