#include "support/escape.h"

#include <algorithm>
#include <array>
#include <cstdint>
#include <cstdio>
#include <cstring>

namespace KAV {

namespace {

/// The length in bytes of the first character of `text` if it is safe for a terminal, otherwise 0. A lone CR is not: a
/// peer's text could overwrite its own log line. REQUIRES: `text` is not empty.
std::size_t printableLength(std::string_view text)
{
    const auto at = [text](std::size_t index) { return static_cast<unsigned char>(text[index]); };
    if (at(0) < 0x80) {
        const bool endOfLine = text[0] == '\n' || (text[0] == '\r' && text.substr(1, 1) == "\n");
        return (at(0) >= 0x20 && at(0) != 0x7f) || text[0] == '\t' || endOfLine ? 1 : 0;
    }
    // UTF-8 (RFC 3629): no overlong forms, no surrogates, nothing beyond U+10FFFF.
    const std::size_t length = at(0) >= 0xf0 ? 4 : at(0) >= 0xe0 ? 3 : 2;
    constexpr std::array<std::uint32_t, 5> least{0, 0, 0xa0, 0x800, 0x10000}; // C1 controls are below 0xa0
    if (at(0) < 0xc2 || at(0) > 0xf4 || text.size() < length)
        return 0;
    std::uint32_t code = at(0) & (0x7fU >> length);
    for (std::size_t index = 1; index < length; ++index) {
        if ((at(index) & 0xc0U) != 0x80U)
            return 0;
        code = code << 6U | (at(index) & 0x3fU);
    }
    const bool surrogate = code >= 0xd800 && code <= 0xdfff;
    return code >= least[length] && code <= 0x10ffff && !surrogate ? length : 0;
}

} // namespace

char *escape(std::string_view text, char *to, const char *end)
{
    while (!text.empty()) {
        const std::size_t length = printableLength(text);
        const std::size_t needed = length > 0 ? length : longestEscape;
        if (static_cast<std::size_t>(end - to) <= needed) // room for snprintf's NUL, or for the line end
            break;
        if (length > 0)
            std::memcpy(to, text.data(), length);
        else
            std::snprintf(to, longestEscape + 1, "\\x%02X",
                          static_cast<unsigned int>(static_cast<unsigned char>(text[0])));
        to += needed;
        text.remove_prefix(std::max<std::size_t>(length, 1));
    }
    return to;
}

} // namespace KAV
