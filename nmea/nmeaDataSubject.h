#pragma once

#include "support/AutoPtr.h"
#include "support/Lock.h"

#include <list>
#include <mutex>
#include <string>

class Observer;

/// Passes messages from the reader to the consumers: one object per process, created on first use and never destroyed,
/// since threads use it until the process ends.
///
/// Locks: `observersLock`, then each observer's `queueLock`; never the other way round.
class nmeaDataSubject {
public:
    nmeaDataSubject(const nmeaDataSubject &) = delete;
    nmeaDataSubject &operator=(const nmeaDataSubject &) = delete;
    virtual ~nmeaDataSubject();

    /// The one instance, never null. Any thread.
    /// Errors: std::system_error when the creation mutex cannot be locked.
    [[nodiscard]] static nmeaDataSubject *getInstance();

    /// Appends an observer to the list; one attached twice gets every message twice. Not owned.
    /// Thread: the observer's own.
    void attach(Observer *observer);

    /// Removes all registrations of an observer; afterwards its `update` is not called any more. Any thread.
    void detach(Observer *observer);

    /// Passes `message` to every registered observer, in order of registration, and tells the pulse. Thread: main.
    void notify(const std::string &message);

    /// Collects one decorated GSV sentence. True when it completes its group (its second and third comma-separated
    /// fields are equal); `group` then holds all sentences collected so far, otherwise it is empty.
    ///
    /// Thread: main, no lock. An incomplete group is sent with the next one; beyond 256 KiB it is dropped with an ERROR
    /// line, so that a source that never completes a group cannot exhaust memory.
    bool collectGSV(const std::string &sentence, std::string &group);

private:
    nmeaDataSubject();

    std::list<Observer *> observers KAV_GUARDED_BY(*observersLock);
    std::string gsvBuffer;
    KAV::AutoPtr<KAV::Lock> observersLock;

    static nmeaDataSubject *instance;
    static std::mutex instanceMutex; ///< guards the creation of `instance` only
};
