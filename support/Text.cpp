#include "support/Text.h"

#include <algorithm>

namespace KAV {

std::vector<std::string> Text::split(const std::string &text, char delimiter, int /*limit*/)
{
    std::vector<std::string> result;
    result.reserve(1 + static_cast<std::size_t>(std::count(text.begin(), text.end(), delimiter)));
    std::size_t begin = 0;
    for (std::size_t end = text.find(delimiter); end != std::string::npos; end = text.find(delimiter, begin)) {
        result.emplace_back(text, begin, end - begin);
        begin = end + 1;
    }
    result.emplace_back(text, begin);
    return result;
}

std::string Text::strip(const std::string &text, const std::vector<unsigned char> &set)
{
    const auto keeps = [&set](char byte) {
        return std::find(set.begin(), set.end(), static_cast<unsigned char>(byte)) == set.end();
    };
    const auto first = std::find_if(text.begin(), text.end(), keeps);
    const auto last = std::find_if(text.rbegin(), std::make_reverse_iterator(first), keeps).base();
    return {first, last};
}

} // namespace KAV
