// Input: the decoration, what gpspipe prints, then the former's length, the interval, the switch of all types.
#include "nmea/handleNMEAString.h"
#include "nmea/sentence.h"
#include "tests/Mailbox.h"

#include <cassert>
#include <fuzzer/FuzzedDataProvider.h>

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t *data, std::size_t size)
{
    constexpr std::size_t longestGroup = 256UL * 1024;
    FuzzedDataProvider input(data, size);
    sentenceFilters.fill({input.ConsumeBool(), 0});
    const int interval = input.PickValueInArray({1, 10, 0, -1});
    const std::string decoration = input.ConsumeBytesAsString(input.ConsumeIntegral<std::uint8_t>());
    std::string output = input.ConsumeRemainingBytesAsString();
    std::string gathered; // GSV sentences that were not sent
    Mailbox mailbox;
    while (!output.empty()) {
        const std::string read = output.substr(0, std::min<std::size_t>(output.find('\n'), 510) + 1); // as fgets does
        output.erase(0, read.size());
        const std::string line = decoration + read.c_str();
        const std::optional<SentenceType> type = findSentenceType(read.c_str());
        const bool isGsv = type == SentenceType::GSV;
        if (isGsv)
            gathered += line;
        handleNMEAString(read.c_str(), interval, &decoration);
        const std::string sent = mailbox.getData();
        assert(sent.size() <= longestGroup);
        if (sent.empty())
            continue;
        assert(filterOf(*type).enabled);
        assert(sent.ends_with(line));
        assert(isGsv ? gathered.ends_with(sent) : sent == line);
        if (isGsv)
            gathered.clear();
    }
    std::string group;
    nmeaDataSubject::getInstance()->collectGSV(",,,", group); // takes out what waits for the rest of its group
    assert(group.size() <= longestGroup + 3);
    return 0;
}
