#pragma once

#include "nmea/SentenceFilter.h"

#include <optional>
#include <string_view>

/// The first type, in the order of SentenceType, whose talker-and-type key (GP or GN, then the three letters)
/// occurs anywhere in `line`; nothing when none does.
[[nodiscard]] std::optional<SentenceType> findSentenceType(std::string_view line);
