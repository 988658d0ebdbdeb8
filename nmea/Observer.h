#pragma once

#include "support/AutoPtr.h"
#include "support/Lock.h"
#include "support/Thread.h"

#include <cstdint>
#include <deque>
#include <functional>
#include <string>

struct ConsumerStatistics;

/// Base of every consumer: a thread with a bounded mailbox.
///
/// A derived class sets `queueLock` in its constructor, attaches itself to the subject when it is ready to send,
/// takes its messages with `getData`, and detaches itself in its destructor.
class Observer : public KAV::Thread {
public:
    /// Messages that a mailbox holds.
    static constexpr std::uint32_t defaultMailbox = 11;
    static constexpr std::uint32_t immediateMailbox = 64; ///< two epochs of a receiver with all constellations

    /// `threadName` as for KAV::Thread. `_counts`, which must live longer, counts the messages that are dropped.
    /// `_mailbox`: messages that the mailbox holds with --immediate; without it `defaultMailbox`.
    Observer(const std::string &threadName, ConsumerStatistics &_counts, std::uint32_t _mailbox = immediateMailbox);
    /// Queued messages are dropped.
    ~Observer() override = 0;

    /// Appends a copy of `message`; a full mailbox drops its oldest message first, which is counted but not logged. Out
    /// of memory, `message` is dropped instead.
    ///
    /// Thread: main, from the subject's `notify`, with the subject's lock held; must not call the subject. Locks:
    /// `queueLock`. Never blocks on output.
    void update(const std::string &message);

    /// Removes all queued messages and returns them, in order and joined without separator; empty if there is none.
    ///
    /// Thread: the observer's own. Locks: `queueLock`, once, so that no message is split. Errors: std::bad_alloc, with
    /// the messages still queued.
    [[nodiscard]] std::string getData();

    void execute() override = 0;

protected:
    /// Sends one batch of messages; false ends the delivery.
    using Deliver = std::function<bool(const std::string &batch)>;
    /// True when nobody receives any more; ends the delivery.
    using IsAbandoned = std::function<bool()>;

    /// Passes each batch of queued messages to `deliver` until `exitRequested` is set or one of the two says so. With
    /// an empty queue, waits for one second or, with --immediate, for the next beat of the pulse. While `isShort`, an
    /// empty queue is when `isAbandoned` is asked. Without memory for the batch, retries after one second.
    ///
    /// Thread: the observer's own. Locks: none while `deliver` or `isAbandoned` runs.
    void deliverUntilExit(
        const Deliver &deliver, const IsAbandoned &isAbandoned = [] { return false; });

private:
    void append(const std::string &message);

    /// The messages, then free slots that keep their memory for later messages: memory that the reader allocates and a
    /// client's thread frees would accumulate in that thread's malloc cache, several KiB per client.
    std::deque<std::string> queue KAV_GUARDED_BY(*queueLock);

protected:
    KAV::AutoPtr<KAV::Lock> queueLock; ///< set once, before the thread starts

private:
    ConsumerStatistics &counts;
    const std::uint32_t mailbox;                          ///< messages that `queue` may hold
    std::uint32_t waiting KAV_GUARDED_BY(*queueLock) = 0; ///< messages in `queue`
    std::uint32_t oldest KAV_GUARDED_BY(*queueLock) = 0;  ///< index of the oldest; 0 unless the mailbox is full
};
