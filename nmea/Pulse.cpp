#include "nmea/Pulse.h"

#include "support/exitRequested.h"

namespace {

using Clock = KAV::Broadcast::Clock;

/// For the rest of the epoch, so that it goes out in one send.
constexpr std::chrono::milliseconds gatherTime{5};
constexpr std::uint32_t enoughMessages = 32;

} // namespace

constinit std::atomic<Pulse *> pulse{nullptr};

Pulse::Pulse() : KAV::Thread("navtwine pulse", false) { KAV::Thread::start(); }

Pulse::~Pulse()
{
    if (isAlive())
        KAV::Thread::stop();
}

void Pulse::execute()
{
    while (exitRequested == 0) {
        awaitMessages(1, KAV::Broadcast::never);
        awaitMessages(enoughMessages, Clock::now() + gatherTime);
        queued = 0;
        beats.send();
    }
}

/// Waits until `count` messages are queued, `deadline` has passed or an exit is requested.
void Pulse::awaitMessages(std::uint32_t count, Clock::time_point deadline) const
{
    bool inTime = true;
    while (inTime && exitRequested == 0) {
        const std::uint32_t seen = arrivals.generation(); // before the look at the count: no arrival is missed
        if (queued >= count)
            return;
        inTime = arrivals.await(seen, deadline);
    }
}

void Pulse::messageQueued()
{
    const std::uint32_t before = queued++;
    if (before == 0 || before + 1 == enoughMessages)
        arrivals.send();
}

void Pulse::wakeAll()
{
    arrivals.send();
    beats.send();
}

void wakeConsumers()
{
    if (Pulse *const running = pulse)
        running->wakeAll();
}
