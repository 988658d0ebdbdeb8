#include "nmea/handleNMEAString.h"

#include "nmea/nmeaDataSubject.h"
#include "nmea/sentence.h"

#include <ctime>
#include <string_view>

namespace {

std::string decorated(const std::string &decoration, std::string_view line)
{
    std::string message;
    message.reserve(decoration.size() + line.size());
    return message.append(decoration).append(line);
}

} // namespace

int handleNMEAString(const char *line, int interval, const std::string *decoration)
{
    const std::time_t now = std::time(nullptr);
    const std::string_view text(line);
    const std::optional<SentenceType> type = findSentenceType(text);
    if (!type)
        return 0;

    nmeaDataSubject *const subject = nmeaDataSubject::getInstance();
    const std::string message =
        decorated(*decoration, text); // first: running out of memory must not use up the interval
    if (*type == SentenceType::GSV) {
        // Collected even while GSV is off or not due, so that no group starts with its second sentence.
        std::string group;
        const bool complete = subject->collectGSV(message, group);
        if (complete && isSentenceDue(filterOf(*type), now, interval))
            subject->notify(group);
    } else if (isSentenceDue(filterOf(*type), now, interval)) {
        subject->notify(message);
    }
    return 0;
}
