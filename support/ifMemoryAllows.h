#pragma once

#include <new>

namespace KAV {

/// Runs `work`; false when memory ran out on the way. Whatever lives in `work` has been cleaned up by then.
///
/// Only std::bad_alloc is caught: any other exception, and the unwinding of a cancelled thread, passes.
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
