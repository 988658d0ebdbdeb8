#pragma once

#include <atomic>
#include <csignal>

/// The process-wide exit request: 0 at start, set to 1 by the SIGINT handler, never reset.
///
/// Thread: written only by `requestExit`, read by every loop of the program without a lock.
extern std::atomic<int> exitRequested;

// The handler must not wait for a lock that the interrupted thread holds. It only loads and stores atomics; those of
// the size of sig_atomic_t take single instructions everywhere, unless the compiler never has such atomics
// (ATOMIC_INT_LOCK_FREE 0). 1, on ARMv5: operations that read, change and write back go through helpers of the kernel,
// which take no lock either, but do not promise it.
static_assert(ATOMIC_INT_LOCK_FREE > 0 && sizeof exitRequested == sizeof(std::sig_atomic_t),
              "a signal handler writes this flag");

/// Sets `exitRequested` and makes `exitEvent` readable.
///
/// Async-signal-safe: a load and a store of atomics, and eventfd_write(3), which is write(2).
void requestExit();

/// Makes `exitEvent` readable without a request, for those who wait when main has come to its end. Any thread.
void wakeExitWaiters();

/// Creates the eventfd behind `exitEvent`; never closed. Thread: main, before any other starts.
void createExitEvent();

/// A descriptor for poll(2) that becomes readable on the exit request; -1, which poll ignores, if creating it failed.
int exitEvent();
