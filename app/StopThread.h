#pragma once

#include "support/Broadcast.h"
#include "support/Thread.h"

#include <atomic>

class SerialThread;

/// Enforces a requested exit, whatever the main thread is blocked in.
///
/// Ends the running gpspipe so that the reader returns: the signal interrupts a blocked read, but not a read that
/// starts right after it, nor pclose(3), nor reads from a gpspipe that never pauses. If the main thread has not
/// finished after five seconds, because a stalled system log blocks it or another thread, ends the process with
/// status 0.
///
/// Main starts it before the first log line and owns it. From then on it needs no memory.
class StopThread : public KAV::Thread {
public:
    /// Starts the thread. Errors: as KAV::Thread::start.
    StopThread();
    /// Ends the thread, whether or not an exit was requested. It is not cancelled: it may be looking for gpspipe in
    /// /proc at this moment.
    ~StopThread() override;

    void execute() override;

    /// The serial line whose output is discarded before the process is ended. Thread: main. `line` may be null.
    void holdBack(SerialThread *line) { serial = line; }

private:
    void awaitExit() const;
    [[nodiscard]] bool isMainFinished(std::chrono::seconds longest) const;

    KAV::Broadcast mainFinished;
    std::atomic<SerialThread *> serial{nullptr}; ///< not owned
};
