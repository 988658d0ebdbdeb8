#pragma once

#include <string_view>

namespace KAV {

/// Writes one line, with its line end, to standard error. Any thread; lines do not mix.
///
/// A reader that is slow or stalled costs lines, not time: all threads together wait for it for at most 10 ms in a
/// second, after which lines, or what is left of one, are dropped. A line that was cut is ended before the next one.
void writeToStandardError(std::string_view line);

} // namespace KAV
