#pragma once

#include "support/Broadcast.h"
#include "support/Thread.h"

#include <atomic>
#include <chrono>
#include <cstdint>

/// Wakes all consumers at once, with the option --immediate. Without it there is no pulse, and consumers look once a
/// second.
///
/// 1. The subject puts a message into the mailboxes, then calls `messageQueued`.
/// 2. The first message since the last beat wakes the pulse's thread. It waits 5 ms for the rest of the epoch, or until
///    32 messages are queued, half a mailbox.
/// 3. It broadcasts a beat: one system call, however many consumers there are.
/// 4. Each consumer takes what its mailbox holds, sends it, and waits for the beat after the last one that it saw. One
///    that was busy meanwhile does not wait: it has missed a beat.
///
/// The count of queued messages is reset before the beat, and a consumer looks into its mailbox after it. So a message
/// is either taken after this beat or counted for the next one, and none waits for another message.
class Pulse : public KAV::Thread {
public:
    /// Starts the thread. Errors: as KAV::Thread::start.
    Pulse();
    ~Pulse() override;

    void execute() override;

    /// To be called after a message was put into the mailboxes. Thread: main.
    void messageQueued();

    /// Wakes everybody who waits. Any thread.
    void wakeAll();

    /// The number of the last beat. Any thread.
    [[nodiscard]] std::uint32_t lastBeat() const { return beats.generation(); }

    /// Waits for a beat other than `seen`. Any thread; not a cancellation point.
    void awaitBeat(std::uint32_t seen) const { beats.await(seen); }

private:
    void awaitMessages(std::uint32_t count, KAV::Broadcast::Clock::time_point deadline) const;

    std::atomic<std::uint32_t> queued{0}; ///< messages since the last beat
    KAV::Broadcast arrivals;              ///< the first message since the last beat, or enough of them
    KAV::Broadcast beats;
};

/// The pulse of the process; null without --immediate. Never deleted, since consumers wait for it until the process
/// ends. Thread: written by main before the first consumer starts.
extern std::atomic<Pulse *> pulse;

/// Makes consumers that wait for a message look at `exitRequested` and `isShort`. Any thread.
void wakeConsumers();
