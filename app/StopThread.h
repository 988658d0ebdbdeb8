#pragma once

#include "support/Thread.h"

/// Sees to it that a requested exit comes about, wherever the main thread is.
///
/// It ends the running gpspipe, so that the reader's run ends: the signal interrupts a blocked read, but neither a
/// read that begins right after it, nor pclose(3), nor the reading of a gpspipe that never pauses. And when the
/// main thread has not come to its end after five seconds, because a system log that takes nothing holds it or
/// another thread, it ends the process with status 0.
///
/// Owned by main, from the start of the consumers to the end, which comes after a request only: the wait for one is
/// no cancellation point.
class StopThread : public KAV::Thread {
public:
    /// Starts the thread. Errors: as KAV::Thread::start.
    StopThread();
    ~StopThread() override;

    void execute() override;
};
