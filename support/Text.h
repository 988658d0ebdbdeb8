#pragma once

#include <string>
#include <vector>

namespace KAV {

/// String utilities; pure static functions, callable from any thread.
class Text {
public:
    Text() = delete;

    /// Splits `text` at each `delimiter`, keeping empty pieces. `limit` is 0, which means none; other values have no
    /// effect.
    [[nodiscard]] static std::vector<std::string> split(const std::string &text, char delimiter, int limit);

    /// A copy of `text` without the leading and trailing bytes that occur in `set`.
    [[nodiscard]] static std::string strip(const std::string &text, const std::vector<unsigned char> &set);
};

} // namespace KAV
