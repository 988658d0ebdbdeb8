#pragma once

#include <cstdint>
#include <utility>

namespace KAV {

/// Owns one object made with `new`, or one array made with `new[]`, and releases it the same way.
///
/// Thread: not synchronised; filled before the threads that use the object start.
template <typename T>
class AutoPtr {
public:
    AutoPtr() = default;
    AutoPtr(const AutoPtr &) = delete;
    AutoPtr &operator=(const AutoPtr &) = delete;
    ~AutoPtr() { reset(nullptr, 0); }

    /// Releases what is held so far and takes over a single object made with `new`.
    AutoPtr &operator=(T *single)
    {
        reset(single, 0);
        return *this;
    }

    /// Releases what is held so far and takes over an array made with `new[]`.
    void adoptArray(T *elements) { reset(elements, 1); }

    /// The owned object; only when there is one.
    T &operator*() const { return *pointer; }
    T *operator->() const { return pointer; }

private:
    void reset(T *next, std::uint32_t nextIsArray)
    {
        T *const old = std::exchange(pointer, next);
        if (std::exchange(array, nextIsArray) != 0)
            delete[] old;
        else
            delete old;
    }

    T *pointer = nullptr;
    std::uint32_t array = 0; ///< not 0: an array, released with delete[]
};

} // namespace KAV
