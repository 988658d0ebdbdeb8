#pragma once

#include <string>
#include <vector>

namespace KAV {

/// Two string utilities; static operations only. Pure functions, so any thread may call them.
class Text {
public:
    Text() = delete;

    /// The pieces of `text` between occurrences of `delimiter`, in order, empty ones included: piece n is the
    /// text after the n-th delimiter. `limit` 0 (or less): no limit; otherwise at most `limit` pieces, the last
    /// of which holds the uncut rest.
    [[nodiscard]] static std::vector<std::string> split(const std::string &text, char delimiter, int limit);

    /// A copy of `text` without the leading and trailing bytes that occur in `set`.
    [[nodiscard]] static std::string strip(const std::string &text, const std::vector<unsigned char> &set);
};

} // namespace KAV
