#pragma once

#include "support/AutoPtr.h"
#include "support/Lock.h"

#include <list>
#include <mutex>
#include <string>

class Observer;

/// Passes messages from the reader to the consumers: one object for the whole process, made on first use and never
/// destroyed, since threads use it until the process ends.
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

    /// Registers an observer at the end of the list; twice means that it gets every message twice. Not owned.
    /// Thread: the observer's own.
    void attach(Observer *observer);

    /// Removes every registration of an observer; afterwards no `update` can reach it. Any thread.
    void detach(Observer *observer);

    /// Hands `message` to every registered observer, in the order of registration. Main thread.
    void notify(const std::string &message);

    /// Gathers one decorated GSV sentence. True when it completes its group (its second and third
    /// comma-separated fields are equal); `group` then holds all sentences gathered so far, and is empty
    /// otherwise.
    ///
    /// Thread: main, no lock. What never completes goes out with the next group; beyond 256 KiB it is dropped
    /// with an ERROR line, so that a source that never completes one cannot eat the memory.
    bool collectGSV(const std::string &sentence, std::string &group);

private:
    nmeaDataSubject();

    std::list<Observer *> observers KAV_GUARDED_BY(*observersLock);
    std::string gsvBuffer;
    KAV::AutoPtr<KAV::Lock> observersLock;

    static nmeaDataSubject *instance;
    static std::mutex instanceMutex; ///< guards the creation of `instance` only
};
