#pragma once

#include <atomic>

/// The process-wide stop flag: 0 at start, set to 1 by the SIGINT handler, never reset.
///
/// Thread: written only by `requestExit`, read by every loop of the program without a lock.
extern std::atomic<int> exitRequested;

static_assert(std::atomic<int>::is_always_lock_free, "a signal handler writes this flag");

/// Sets `exitRequested` and wakes all waiters on it and on `exitEvent`.
///
/// Async-signal-safe: `notify_all` of a lock-free atomic is (C++20, [support.signal]; in libstdc++ 12 on amd64 and
/// armhf it is atomic operations and one futex(2) call), and so is eventfd_write(3).
void requestExit();

/// Creates the eventfd behind `exitEvent`; never closed. Thread: main, before any other starts.
void createExitEvent();

/// A descriptor for poll(2) that becomes readable on the exit request; -1, which poll ignores, if creating it failed.
int exitEvent();

/// Sets the function that `endProcess` calls first. Thread: main, before any other starts.
void beforeProcessEnds(void (*act)());

/// Ends the process immediately with `status` (_exit(2)): destructors would destroy objects that other threads still
/// use. Any thread.
[[noreturn]] void endProcess(int status);
