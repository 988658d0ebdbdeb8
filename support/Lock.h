#pragma once

#include <mutex>

/// Lock annotations, checked by clang (-Wthread-safety, preset "clang"); other compilers ignore them.
#if defined(__clang__)
#define KAV_ANNOTATION(x) __attribute__((x))
#else
#define KAV_ANNOTATION(x)
#endif

#define KAV_CAPABILITY(name) KAV_ANNOTATION(capability(name))
#define KAV_SCOPED_CAPABILITY KAV_ANNOTATION(scoped_lockable)
#define KAV_GUARDED_BY(lock) KAV_ANNOTATION(guarded_by(lock))
#define KAV_ACQUIRE(...) KAV_ANNOTATION(acquire_capability(__VA_ARGS__))
#define KAV_RELEASE(...) KAV_ANNOTATION(release_capability(__VA_ARGS__))

namespace KAV {

/// A non-recursive mutex. Created with `new` and owned by a KAV::AutoPtr<KAV::Lock>.
///
/// Thread: any. Lock it through KAV::Hold, so that every exit from the scope releases it.
class KAV_CAPABILITY("mutex") Lock {
public:
    Lock() = default;
    Lock(const Lock &) = delete;
    Lock &operator=(const Lock &) = delete;
    ~Lock() = default;

    /// Blocks until the caller owns the mutex.
    void lock() KAV_ACQUIRE() { mutex.lock(); }
    /// REQUIRES: the caller owns the mutex.
    void unlock() KAV_RELEASE() { mutex.unlock(); }

private:
    std::mutex mutex;
};

/// Holds a lock until the end of the scope, by return, exception or thread cancellation.
class KAV_SCOPED_CAPABILITY Hold {
public:
    explicit Hold(Lock &lock) KAV_ACQUIRE(lock) : held(lock) { held.lock(); }
    Hold(const Hold &) = delete;
    Hold &operator=(const Hold &) = delete;
    ~Hold() KAV_RELEASE() { held.unlock(); }

private:
    Lock &held;
};

} // namespace KAV
