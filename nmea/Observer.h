#pragma once

#include "support/AutoPtr.h"
#include "support/Event.h"
#include "support/Lock.h"
#include "support/Thread.h"

#include <cstdint>
#include <deque>
#include <functional>
#include <string>

/// Whether a message wakes the consumers (option --immediate). Otherwise they look once a second. One setting for the
/// process. Thread: written by main before the first consumer starts.
extern bool immediateDelivery;

/// Base of every consumer: a thread with a bounded mailbox.
///
/// A derived class sets `queueLock` in its constructor, attaches itself to the subject when it is ready to send,
/// takes its messages with `getData`, and detaches itself in its destructor. Deleted by the library, on the observer's
/// own thread, once `execute` has returned (KAV::Thread, flag false).
class Observer : public KAV::Thread {
public:
    /// `threadName` as for KAV::Thread.
    explicit Observer(const std::string &threadName);
    /// Queued messages are dropped.
    ~Observer() override = 0;

    /// Appends a copy of `message`; a full mailbox (11 messages, with `immediateDelivery` 64) silently drops its oldest
    /// message first. Out of memory, `message` is dropped instead.
    ///
    /// Thread: main, from the subject's `notify`, with the subject's lock held; must not call the subject. Locks:
    /// `queueLock`. Never blocks on output.
    void update(const std::string &message);

    /// Removes all queued messages and returns them, in order and joined without separator; empty if there is none.
    ///
    /// Thread: the observer's own. Locks: `queueLock`, once, so that no message is split. Errors: std::bad_alloc, with
    /// the messages still queued.
    [[nodiscard]] std::string getData();

    /// Ends the wait for a message, so that `exitRequested` is seen. Any thread. Locks: none.
    void wake();

    void execute() override = 0;

protected:
    /// Passes each batch of queued messages to `deliver` until `exitRequested` is set or `deliver` returns false. With
    /// an empty queue, looks again after one second, or, with `immediateDelivery`, sleeps until a message arrives.
    /// Without memory for the batch, retries after one second.
    ///
    /// Thread: the observer's own. Locks: none while `deliver` runs.
    void deliverUntilExit(const std::function<bool(const std::string &batch)> &deliver);

    /// The messages, then free slots that keep their memory for later messages: memory that the reader allocates and a
    /// client's thread frees would accumulate in that thread's malloc cache, several KiB per client.
    std::deque<std::string> queue KAV_GUARDED_BY(*queueLock);
    KAV::AutoPtr<KAV::Lock> queueLock;                    ///< set once, before the thread starts
    std::uint32_t waiting KAV_GUARDED_BY(*queueLock) = 0; ///< messages in `queue`
    std::uint32_t oldest KAV_GUARDED_BY(*queueLock) = 0;  ///< index of the oldest; 0 unless the mailbox is full

private:
    [[nodiscard]] bool append(const std::string &message);
    void awaitMessages();
    [[nodiscard]] bool hasMessages(std::uint32_t count);

    std::uint32_t awaited KAV_GUARDED_BY(*queueLock) = 0; ///< messages that `update` notifies `arrived` at; 0: none
    bool moreExpected = false; ///< the last batch was enough before its time was over; used by the observer's thread
    KAV::Event arrived;        ///< as many messages as `awaited`, or an exit request
};
