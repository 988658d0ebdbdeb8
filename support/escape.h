#pragma once

#include <cstddef>
#include <string_view>

namespace KAV {

/// Bytes that `escape` makes of one byte at most: "\xNN".
constexpr std::size_t longestEscape = 4;

/// Copies `text` for a log or a terminal: LF, TAB, a CR before an LF and valid UTF-8 characters other than control
/// codes (RFC 3629) stay as they are, any other byte becomes \xNN. Stops at the first character that does not fit in
/// front of `end`; one byte always stays free. Returns the end of what was written. Any thread.
char *escape(std::string_view text, char *to, const char *end);

} // namespace KAV
