#include "nmea/Observer.h"

#include <utility>

namespace {

/// Looked at before the new message is appended, so a mailbox holds one more than this.
constexpr std::size_t fullQueue = 10;

} // namespace

Observer::Observer(const std::string &threadName) : KAV::Thread(threadName, false) {}

Observer::~Observer() = default;

void Observer::update(const std::string &message)
{
    const KAV::Hold hold(*queueLock);
    if (queue.size() <= fullQueue) {
        queue.push_back(message);
        return;
    }
    // The dropped message's memory serves the new one: a consumer that lags costs no allocation per line.
    std::string reused = std::move(queue.front());
    queue.pop_front();
    reused = message;
    queue.push_back(std::move(reused));
}

std::string Observer::getData()
{
    std::string all;
    const KAV::Hold hold(*queueLock);
    for (; !queue.empty(); queue.pop_front())
        all += queue.front();
    return all;
}
