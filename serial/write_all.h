#pragma once

#include <cstddef>

/// Writes `size` bytes from `data` to `descriptor`, in as many calls as it takes; a call that a signal
/// interrupts is repeated. Returns the number of bytes written, which is less than `size` when a later call
/// failed, or a negative value with `errno` set when the first one did. Blocks as long as the descriptor does.
[[nodiscard]] int write_all(int descriptor, const char *data, std::size_t size);
