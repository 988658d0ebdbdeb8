#include "nmea/Observer.h"

#include "nmea/Pulse.h"
#include "nmea/shortage.h"
#include "nmea/statistics.h"
#include "support/exitRequested.h"
#include "support/guards.h"

#include <algorithm>

namespace {

/// Bytes that a free slot may keep allocated: eleven huge GSV groups must not stay in memory.
constexpr std::size_t keptBytes = 1024;

} // namespace

Observer::Observer(const std::string &threadName, ConsumerStatistics &_counts, std::uint32_t _mailbox)
    : KAV::Thread(threadName, false),
      counts(_counts),
      mailbox(pulse != nullptr ? _mailbox : defaultMailbox)
{
}

Observer::~Observer() = default;

void Observer::update(const std::string &message)
{
    if (!KAV::ifMemoryAllows([&] { append(message); }))
        ++counts.lost;
}

void Observer::append(const std::string &message)
{
    const KAV::Hold hold(*queueLock);
    if (waiting == mailbox) {
        queue[oldest] = message;
        oldest = (oldest + 1) % static_cast<std::uint32_t>(queue.size());
        ++counts.lost;
        return;
    }
    if (waiting == queue.size())
        queue.emplace_back();
    queue[waiting] = message;
    ++waiting;
}

std::string Observer::getData()
{
    std::string all;
    const KAV::Hold hold(*queueLock);
    std::size_t size = 0;
    for (std::size_t at = 0; at < waiting; ++at)
        size += queue[at].size();
    all.reserve(size);
    std::rotate(queue.begin(), queue.begin() + static_cast<std::ptrdiff_t>(oldest), queue.end());
    for (std::size_t at = 0; at < waiting; ++at) {
        all += queue[at];
        if (queue[at].capacity() > keptBytes)
            std::string().swap(queue[at]); // an assignment would keep the memory
    }
    if (queue.size() > defaultMailbox)
        queue.resize(defaultMailbox); // frees what a burst needed
    waiting = 0;
    oldest = 0;
    return all;
}

void Observer::deliverUntilExit(const Deliver &deliver, const IsAbandoned &isAbandoned)
{
    constexpr unsigned int idlePause = 1000; // milliseconds
    const Pulse *const beating = pulse;
    std::uint32_t beat = 0;
    bool wasTaken = false; // no wait before the first look: a message may have come since the observer was attached
    while (exitRequested == 0) {
        if (beating != nullptr && wasTaken)
            beating->awaitBeat(beat);
        if (beating != nullptr)
            beat = beating->lastBeat(); // before the look into the mailbox: no message is missed
        std::string batch;
        // Without memory for the joined text the messages stay in the mailbox.
        wasTaken = KAV::ifMemoryAllows([&] { batch = getData(); });
        if (batch.empty() ? isShort() && isAbandoned() : !deliver(batch))
            return;
        if (!wasTaken || (batch.empty() && beating == nullptr))
            KAV::Thread::sleep(idlePause);
    }
}
