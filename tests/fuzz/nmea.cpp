// Input: the decoration, what gpspipe prints, then the former's length, the interval, the switch of all types.
#include "nmea/Observer.h"
#include "nmea/handleNMEAString.h"
#include "nmea/nmeaDataSubject.h"
#include "nmea/sentence.h"

static struct Mailbox : Observer {
    Mailbox() : Observer("mailbox")
    {
        queueLock = new KAV::Lock;
        nmeaDataSubject::getInstance()->attach(this);
    }
    void execute() override {}
} eachLine, allLines; ///< one is emptied after every line, the other in the end

static void check(FuzzedDataProvider input)
{
    sentenceFilters.fill({input.ConsumeBool(), 0});
    const int interval = input.PickValueInArray({1, 10, 0, -1});
    const std::string decoration = input.ConsumeBytesAsString(input.ConsumeIntegral<std::uint8_t>());
    std::string output = input.ConsumeRemainingBytesAsString(), gathered, read;
    std::vector<std::string> sent(11);
    for (; !output.empty(); output.erase(0, read.size())) {
        read = output.substr(0, std::min<std::size_t>(output.find('\n'), 510) + 1); // as fgets does
        const std::string line = decoration + read.c_str();
        const auto type = findSentenceType(read.c_str());
        const std::string &source = type == SentenceType::GSV ? gathered += line : line;
        handleNMEAString(read.c_str(), interval, &decoration);
        const std::string news = eachLine.getData();
        assert(source.ends_with(news) && news.size() <= 256UL * 1024);
        assert(news.empty() || (filterOf(*type).enabled && news.starts_with(decoration) && news.ends_with(line)));
        gathered.erase(gathered.size() - (type == SentenceType::GSV ? news.size() : 0));
        sent.insert(sent.end(), !news.empty(), news);
    }
    assert(allLines.getData() == std::accumulate(sent.end() - 11, sent.end(), std::string()));
    nmeaDataSubject::getInstance()->collectGSV(",,,", gathered); // takes out what waits for the rest of its group
    assert(gathered.size() <= 256UL * 1024 + 3);
}
