#include "nmea/SentenceFilter.h"

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
