#pragma once

#include <cerrno>
#include <new>
#include <pthread.h>

namespace KAV {

/// Restores `errno` at the end of the scope: reporting an error must not change it.
class ErrnoKeeper {
public:
    ErrnoKeeper() noexcept : saved(errno) {}
    ErrnoKeeper(const ErrnoKeeper &) = delete;
    ErrnoKeeper &operator=(const ErrnoKeeper &) = delete;
    ~ErrnoKeeper() { errno = saved; }

private:
    const int saved;
};

/// Defers cancellation of the calling thread until after the scope.
///
/// For cancellation points (pthreads(7)) that must not be interrupted: writing a log line, and `close` in a destructor,
/// where the unwinding of a cancelled thread would terminate the process.
class CancelShield {
public:
    CancelShield() noexcept { pthread_setcancelstate(PTHREAD_CANCEL_DISABLE, &before); }
    CancelShield(const CancelShield &) = delete;
    CancelShield &operator=(const CancelShield &) = delete;
    ~CancelShield() { pthread_setcancelstate(before, nullptr); }

private:
    int before = PTHREAD_CANCEL_ENABLE;
};

/// Runs `work`; false if it ran out of memory. Only std::bad_alloc is caught: other exceptions, and the unwinding of a
/// cancelled thread, pass through.
template <typename Work>
[[nodiscard]] bool ifMemoryAllows(const Work &work)
{
    try {
        work();
        return true;
    } catch (const std::bad_alloc &) {
        return false;
    }
}

} // namespace KAV
