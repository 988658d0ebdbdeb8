#include "nmea/handleNMEAString.h"

#include "nmea/nmeaDataSubject.h"
#include "nmea/sentence.h"
#include "nmea/statistics.h"

#include <ctime>
#include <string_view>

namespace {

std::string decorated(const std::string &decoration, std::string_view line)
{
    std::string message;
    message.reserve(decoration.size() + line.size());
    return message.append(decoration).append(line);
}

void pass(SentenceType type, const std::string &message)
{
    ++statistics.passed[static_cast<std::size_t>(type)];
    nmeaDataSubject::getInstance()->notify(message);
}

} // namespace

int handleNMEAString(const char *line, int interval, const std::string *decoration)
{
    const std::time_t now = std::time(nullptr);
    ++statistics.linesRead;
    const std::string_view text(line);
    const std::optional<SentenceType> type = findSentenceType(text);
    if (!type)
        return 0;

    const std::string message =
        decorated(*decoration, text); // first: running out of memory must not use up the interval
    if (*type == SentenceType::GSV) {
        // Collected even while GSV is off or not due, so that no group starts with its second sentence.
        std::string group;
        const bool complete = nmeaDataSubject::getInstance()->collectGSV(message, group);
        if (complete && isSentenceDue(filterOf(*type), now, interval))
            pass(*type, group);
    } else if (isSentenceDue(filterOf(*type), now, interval)) {
        pass(*type, message);
    }
    return 0;
}
