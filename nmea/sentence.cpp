#include "nmea/sentence.h"

#include <algorithm>

namespace {

using namespace std::string_view_literals;

constexpr std::array<std::string_view, sentenceTypeCount> typeNames{
    "GGA"sv, "RMC"sv, "GSA"sv, "ZDA"sv, "GBS"sv, "GLL"sv, "GSV"sv, "VTG"sv,
};
static_assert(!typeNames.back().empty(), "every type has its name");
constexpr std::size_t keyLength = 5;

/// The row of the key at the start of `text`; `typeNames.size()` if there is none.
std::size_t rowOfKeyAt(std::string_view text)
{
    if (text[1] != 'P' && text[1] != 'N')
        return typeNames.size();
    const std::string_view name = text.substr(2, 3);
    std::size_t row = 0;
    while (row < typeNames.size() && typeNames[row] != name)
        ++row;
    return row;
}

} // namespace

std::optional<SentenceType> findSentenceType(std::string_view line)
{
    // One pass over the line instead of sixteen: every key starts with G, and the lowest row wins.
    std::size_t lowest = typeNames.size();
    std::size_t at = line.find('G');
    while (lowest > 0 && at != std::string_view::npos && line.size() - at >= keyLength) {
        lowest = std::min(lowest, rowOfKeyAt(line.substr(at)));
        at = line.find('G', at + 1);
    }
    if (lowest == typeNames.size())
        return std::nullopt;
    return static_cast<SentenceType>(lowest);
}

constinit std::array<SentenceFilter, sentenceTypeCount> sentenceFilters{};

bool isSentenceDue(SentenceFilter &filter, std::time_t now, int interval)
{
    if (!filter.enabled)
        return false;
    if (interval != 1 && now - filter.lastSent < interval)
        return false;
    filter.lastSent = now;
    return true;
}
