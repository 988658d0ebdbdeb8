#pragma once

#include <utility>

namespace KAV {

/// Owns one file descriptor and closes it exactly once; the only place in the program that calls `close`.
///
/// Thread: not synchronised; used by the thread that opened the descriptor.
class Descriptor {
public:
    Descriptor() noexcept = default;
    /// Takes ownership of `owned`; a negative value (a failed call) means nothing is owned.
    explicit Descriptor(int owned) noexcept : fd(owned) {}
    Descriptor(Descriptor &&from) noexcept : fd(from.release()) {}
    Descriptor &operator=(Descriptor &&from) noexcept
    {
        reset(from.release());
        return *this;
    }
    Descriptor(const Descriptor &) = delete;
    Descriptor &operator=(const Descriptor &) = delete;
    ~Descriptor() { reset(); }

    /// The descriptor, or the negative value it was constructed with.
    [[nodiscard]] int get() const noexcept { return fd; }
    [[nodiscard]] bool isOpen() const noexcept { return fd >= 0; }
    /// Transfers ownership of the descriptor to the caller.
    [[nodiscard]] int release() noexcept { return std::exchange(fd, -1); }
    /// Closes the owned descriptor and takes ownership of `next`. Preserves `errno`.
    void reset(int next = -1) noexcept;

private:
    int fd = -1;
};

} // namespace KAV
