#pragma once

#include <cstdint>
#include <utility>

namespace KAV {

/// Owns an object created with `new` or an array created with `new[]`, and releases it accordingly.
///
/// Thread: not synchronised; set before the threads that use the object start.
template <typename T>
class AutoPtr {
public:
    AutoPtr() = default;
    AutoPtr(const AutoPtr &) = delete;
    AutoPtr &operator=(const AutoPtr &) = delete;
    ~AutoPtr() { reset(nullptr, 0); }

    /// Releases the current object and takes ownership of a single object created with `new`.
    AutoPtr &operator=(T *single)
    {
        reset(single, 0);
        return *this;
    }

    /// Releases the current object and takes ownership of an array created with `new[]`.
    void adoptArray(T *elements) { reset(elements, 1); }

    /// The owned object. REQUIRES: there is one.
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
