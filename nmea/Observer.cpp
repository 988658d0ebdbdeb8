#include "nmea/Observer.h"

#include "support/exitRequested.h"
#include "support/guards.h"

#include <algorithm>
#include <utility>

namespace {

/// Checked before the new message is appended, so a mailbox holds one more than this.
constexpr std::size_t fullQueue = 10;

/// Bytes that a free slot may keep allocated: eleven huge GSV groups must not stay in memory.
constexpr std::size_t keptBytes = 1024;

} // namespace

Observer::Observer(const std::string &threadName) : KAV::Thread(threadName, false) {}

Observer::~Observer() = default;

void Observer::update(const std::string &message)
{
    // A message that cannot be copied is dropped.
    static_cast<void>(KAV::ifMemoryAllows([&] { append(message); }));
}

void Observer::append(const std::string &message)
{
    const KAV::Hold hold(*queueLock);
    if (waiting > fullQueue) {
        queue[oldest] = message;
        oldest = (oldest + 1) % static_cast<std::uint32_t>(queue.size());
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
            queue[at] = std::string();
    }
    waiting = 0;
    oldest = 0;
    return all;
}

void Observer::deliverUntilExit(const std::function<bool(const std::string &batch)> &deliver)
{
    constexpr unsigned int idlePause = 1000; // milliseconds
    while (exitRequested == 0) {
        std::string batch;
        // Without memory for the joined text the messages stay in the mailbox.
        if (!KAV::ifMemoryAllows([&] { batch = getData(); }) || batch.empty())
            KAV::Thread::sleep(idlePause);
        else if (!deliver(batch))
            return;
    }
}
