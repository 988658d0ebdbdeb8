#pragma once

#include "support/AutoPtr.h"
#include "support/Lock.h"
#include "support/Thread.h"

#include <cstdint>
#include <deque>
#include <functional>
#include <string>

/// The base of every consumer: a thread with a bounded mailbox.
///
/// A concrete observer installs `queueLock` in its constructor, attaches itself to the subject when it is ready
/// to send, takes its messages with `getData`, and detaches itself in its destructor. Deleted by the library, on the
/// observer's own thread, once `execute` has returned (KAV::Thread, flag false).
class Observer : public KAV::Thread {
public:
    /// `threadName` as for KAV::Thread.
    explicit Observer(const std::string &threadName);
    /// Messages that still wait are dropped.
    ~Observer() override = 0;

    /// Appends a copy of `message`; a mailbox that holds more than 10 loses its oldest one first, silently. While
    /// memory is out the message is dropped instead.
    ///
    /// Thread: the main thread, from the subject's `notify`, with the subject's lock held; must not call the
    /// subject. Locks: `queueLock`. Never waits for output.
    void update(const std::string &message);

    /// Takes every waiting message, in order and joined without anything between; empty when there is none.
    ///
    /// Thread: the observer's own. Locks: `queueLock`, once, so that a message is wholly in or wholly out. Errors:
    /// std::bad_alloc, with the mailbox as it was.
    [[nodiscard]] std::string getData();

    void execute() override = 0;

protected:
    /// Hands each batch of waiting messages to `deliver`, and looks again a second later when there is none or no
    /// memory for it, until `exitRequested` is set or `deliver` returns false.
    ///
    /// Thread: the observer's own. Locks: none while `deliver` runs.
    void deliverUntilExit(const std::function<bool(const std::string &batch)> &deliver);

    /// The messages, then emptied places that keep their memory for later messages: memory that the reader allocates
    /// and a client's thread frees would pile up in that thread's malloc cache, several KiB a client.
    std::deque<std::string> queue KAV_GUARDED_BY(*queueLock);
    KAV::AutoPtr<KAV::Lock> queueLock;                    ///< set once, before the thread starts
    std::uint32_t waiting KAV_GUARDED_BY(*queueLock) = 0; ///< messages in `queue`
    std::uint32_t oldest KAV_GUARDED_BY(*queueLock) = 0;  ///< place of the oldest; not 0 only while the mailbox is full

private:
    void append(const std::string &message);
};
