// Input: what gpspipe prints.
#include "nmea/handleNMEAString.h"
#include "nmea/sentence.h"
#include "tests/Mailbox.h"

#include <algorithm>
#include <cassert>

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t *data, std::size_t size)
{
    sentenceFilters.fill({true, 0});
    const std::string decoration = "S7";
    std::string output(reinterpret_cast<const char *>(data), size);
    std::string waiting; // GSV sentences
    Mailbox mailbox;
    while (!output.empty()) {
        const std::size_t length = std::min<std::size_t>(output.find('\n'), 510) + 1; // as fgets reads
        const std::string line = output.substr(0, length).c_str();
        output.erase(0, length);
        handleNMEAString(line.c_str(), 1, &decoration);
        waiting += findSentenceType(line.c_str()) ? decoration + line : "";
        const std::string sent = mailbox.getData();
        assert(waiting.ends_with(sent));
        waiting.erase(waiting.size() - sent.size());
    }
    std::string rest;
    nmeaDataSubject::getInstance()->collectGSV(",,,", rest);
    assert(rest == waiting + ",,,");
    return 0;
}
