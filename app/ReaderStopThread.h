#pragma once

#include "support/Thread.h"

/// Ends the running gpspipe once an exit is requested, so that the reader's run ends however it is occupied: a
/// signal interrupts a blocked read, but neither a read that begins right after the signal, nor pclose(3), nor
/// the reading of a gpspipe that never pauses.
///
/// Owned by main, for as long as the reader is run.
class ReaderStopThread : public KAV::Thread {
public:
    /// Starts the thread. Errors: as KAV::Thread::start.
    ReaderStopThread();
    ~ReaderStopThread() override;

    void execute() override;
};
