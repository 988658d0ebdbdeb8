/// What one line costs inside the process, function by function, without pipe, socket and scheduler.

#include "nmea/Observer.h"
#include "nmea/sentence.h"
#include "support/Text.h"

#include <benchmark/benchmark.h>

namespace {

const std::string rmc = "$GNRMC,215419.00,A,5332.4000,N,00958.2000,E,6.00,300.0,221126,,,A*51\r\n";
const std::string gsv = "$GPGSV,3,2,11,15,30,174,40,20,17,268,35,24,08,031,29,28,44,081,42*7B\r\n";
const std::string unknown = "$GPXTE,A,A,0.67,L,N*6F this line holds no key at all, but is as long\r\n";

void typeOf(benchmark::State &state, const std::string &line)
{
    for ([[maybe_unused]] auto turn : state)
        benchmark::DoNotOptimize(findSentenceType(line));
}
BENCHMARK_CAPTURE(typeOf, rmc, rmc);
BENCHMARK_CAPTURE(typeOf, gsv, gsv);
BENCHMARK_CAPTURE(typeOf, unknown, unknown);

void gate(benchmark::State &state)
{
    SentenceFilter filter{true, 0};
    std::time_t now = 1;
    for ([[maybe_unused]] auto turn : state)
        benchmark::DoNotOptimize(isSentenceDue(filter, ++now, 10));
}
BENCHMARK(gate);

/// Never started: only the mailbox of an observer.
class Mailbox : public Observer {
public:
    Mailbox() : Observer("mailbox") { queueLock = new KAV::Lock; }
    void execute() override {}
};

void updateFullMailbox(benchmark::State &state)
{
    Mailbox mailbox;
    for ([[maybe_unused]] auto turn : state)
        mailbox.update(rmc);
}
BENCHMARK(updateFullMailbox);

void fillAndTakeMailbox(benchmark::State &state)
{
    Mailbox mailbox;
    for ([[maybe_unused]] auto turn : state) {
        for (int message = 0; message < 8; ++message)
            mailbox.update(rmc);
        benchmark::DoNotOptimize(mailbox.getData());
    }
    state.SetItemsProcessed(state.iterations() * 8);
}
BENCHMARK(fillAndTakeMailbox);

void splitGsv(benchmark::State &state)
{
    for ([[maybe_unused]] auto turn : state)
        benchmark::DoNotOptimize(KAV::Text::split(gsv, ',', 0));
}
BENCHMARK(splitGsv);

void stripLine(benchmark::State &state)
{
    for ([[maybe_unused]] auto turn : state)
        benchmark::DoNotOptimize(KAV::Text::strip(rmc, {'\n', '\r'}));
}
BENCHMARK(stripLine);

} // namespace

BENCHMARK_MAIN();
