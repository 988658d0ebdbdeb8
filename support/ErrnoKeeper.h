#pragma once

#include <cerrno>

namespace KAV {

/// Gives `errno` back as it was when the scope began: reporting an error must not change the error.
class ErrnoKeeper {
public:
    ErrnoKeeper() noexcept : saved(errno) {}
    ErrnoKeeper(const ErrnoKeeper &) = delete;
    ErrnoKeeper &operator=(const ErrnoKeeper &) = delete;
    ~ErrnoKeeper() { errno = saved; }

private:
    const int saved;
};

} // namespace KAV
