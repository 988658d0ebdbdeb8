#pragma once

#include <cstddef>

/// Writes `size` bytes from `data` to `descriptor`, in as many calls as necessary; calls interrupted by a signal are
/// repeated. Returns the number of bytes written, less than `size` if a write failed after some bytes, or a negative
/// value, with `errno` set, if it failed before any. Blocks as long as the descriptor does.
[[nodiscard]] int write_all(int descriptor, const char *data, std::size_t size);
