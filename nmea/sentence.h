#pragma once

#include <array>
#include <cstdint>
#include <ctime>
#include <optional>
#include <string_view>

/// The NMEA 0183 sentence types that navtwine knows, in the order of `sentenceFilters`; when a line holds the
/// keys of several types, the first in this order decides.
enum class SentenceType : std::uint8_t { GGA, RMC, GSA, ZDA, GBS, GLL, GSV, VTG };

constexpr std::size_t sentenceTypeCount = 8;

/// The first type, in the order of SentenceType, whose talker-and-type key (GP or GN, then the three letters)
/// occurs anywhere in `line`; nothing when none does.
[[nodiscard]] std::optional<SentenceType> findSentenceType(std::string_view line);

/// Switch and rate limit of one sentence type.
struct SentenceFilter {
    bool enabled;         ///< forwarded at all; written only while the command line is read
    std::time_t lastSent; ///< seconds of time(); when the type was last due, 0 at start
};

static_assert(sizeof(std::time_t) == 8, "seconds must not run out in 2038, on 32-bit machines either");

/// One record a type, all off at start. Thread: main only.
extern std::array<SentenceFilter, sentenceTypeCount> sentenceFilters;

/// The record of one type.
[[nodiscard]] inline SentenceFilter &filterOf(SentenceType type)
{
    return sentenceFilters[static_cast<std::size_t>(type)];
}

/// True, with `lastSent` set to `now`, when the type is switched on and at least `interval` seconds have passed since
/// this was last true. An interval of 1 switches the rate limit off. `now` in seconds of time().
[[nodiscard]] bool isSentenceDue(SentenceFilter &filter, std::time_t now, int interval);
