#pragma once

#include "support/ThreadAnnotations.h"

#include <mutex>

namespace KAV {

/// A mutex, not recursive. Created with `new` and held by a KAV::AutoPtr<KAV::Lock>.
///
/// Thread: any. Take it through KAV::Hold, so that every way out of a scope releases it.
class KAV_CAPABILITY("mutex") Lock {
public:
    Lock() = default;
    Lock(const Lock &) = delete;
    Lock &operator=(const Lock &) = delete;
    ~Lock() = default;

    /// Blocks until the caller owns the mutex.
    void lock() KAV_ACQUIRE();
    /// The caller must own the mutex.
    void unlock() KAV_RELEASE();

private:
    std::mutex mutex;
};

/// Owns a lock for the length of a scope: on return, on exception and on cancellation of the thread.
class KAV_SCOPED_CAPABILITY Hold {
public:
    explicit Hold(Lock &lock) KAV_ACQUIRE(lock);
    Hold(const Hold &) = delete;
    Hold &operator=(const Hold &) = delete;
    ~Hold() KAV_RELEASE();

private:
    Lock &held;
};

} // namespace KAV
