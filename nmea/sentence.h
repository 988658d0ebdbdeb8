#pragma once

#include <array>
#include <cstdint>
#include <ctime>
#include <optional>
#include <string_view>

/// The supported NMEA 0183 sentence types, in the order of `sentenceFilters`; if a line contains the keys of several
/// types, the first in this order wins.
enum class SentenceType : std::uint8_t { GGA, RMC, GSA, ZDA, GBS, GLL, GSV, VTG };

constexpr std::size_t sentenceTypeCount = 8;

/// The first type, in the order of SentenceType, whose key (talker GP or GN, then the three letters) occurs anywhere in
/// `line`; nullopt if there is none.
[[nodiscard]] std::optional<SentenceType> findSentenceType(std::string_view line);

/// Switch and rate limit of one sentence type.
struct SentenceFilter {
    bool enabled;         ///< forwarded at all; written only while the command line is parsed
    std::time_t lastSent; ///< seconds of time() when the type was last due, 0 at start
};

static_assert(sizeof(std::time_t) == 8, "seconds must not run out in 2038, on 32-bit machines either");

/// One filter per type, all off at start. Thread: main.
extern std::array<SentenceFilter, sentenceTypeCount> sentenceFilters;

/// The filter of one type.
[[nodiscard]] inline SentenceFilter &filterOf(SentenceType type)
{
    return sentenceFilters[static_cast<std::size_t>(type)];
}

/// True, and sets `lastSent` to `now`, if the type is enabled and at least `interval` seconds have passed since it last
/// returned true. An interval of 1 disables the rate limit. `now` in seconds of time().
[[nodiscard]] bool isSentenceDue(SentenceFilter &filter, std::time_t now, int interval);
