#pragma once

#include <pthread.h>

namespace KAV {

/// Holds a cancellation of the calling thread off until the scope ends.
///
/// For calls that are cancellation points (pthreads(7)) but must not be cut short: a log line, and `close` in a
/// destructor, where the unwinding of a cancelled thread would end the process.
class CancelShield {
public:
    CancelShield() noexcept { pthread_setcancelstate(PTHREAD_CANCEL_DISABLE, &before); }
    CancelShield(const CancelShield &) = delete;
    CancelShield &operator=(const CancelShield &) = delete;
    ~CancelShield() { pthread_setcancelstate(before, nullptr); }

private:
    int before = PTHREAD_CANCEL_ENABLE;
};

} // namespace KAV
