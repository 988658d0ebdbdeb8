#pragma once

#include "support/Event.h"
#include "support/Thread.h"

/// Enforces a requested exit, whatever the main thread is blocked in.
///
/// Ends the running gpspipe so that the reader returns: the signal interrupts a blocked read, but not a read that
/// starts right after it, nor pclose(3), nor reads from a gpspipe that never pauses. If the main thread has not
/// finished after five seconds, because a stalled system log blocks it or another thread, ends the process with
/// status 0.
///
/// Owned by main from the start of the consumers on. REQUIRES: destroyed only after an exit request.
class StopThread : public KAV::Thread {
public:
    /// Starts the thread. Errors: as KAV::Thread::start.
    StopThread();
    /// Ends the thread. It is not cancelled: it may be looking for gpspipe in /proc at this moment.
    ~StopThread() override;

    void execute() override;

private:
    KAV::Event finished; ///< main has come to its end
};
