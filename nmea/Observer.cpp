#include "nmea/Observer.h"

#include "support/exitRequested.h"
#include "support/guards.h"

#include <algorithm>
#include <chrono>
#include <utility>

namespace {

constexpr std::uint32_t mailboxSize = 11;          ///< messages
constexpr std::uint32_t immediateMailboxSize = 64; ///< messages: two epochs of a receiver with all constellations

/// Bytes that a free slot may keep allocated: eleven huge GSV groups must not stay in memory.
constexpr std::size_t keptBytes = 1024;

/// After its first message a consumer waits this long for the rest of the epoch, so that it goes out in one send...
constexpr std::chrono::milliseconds gatherTime{5};
/// ...unless this many messages have arrived.
constexpr std::uint32_t enoughMessages = immediateMailboxSize / 2;

} // namespace

bool immediateDelivery = false;

Observer::Observer(const std::string &threadName) : KAV::Thread(threadName, false) {}

Observer::~Observer() = default;

void Observer::update(const std::string &message)
{
    bool isAwaited = false;
    // A message that cannot be copied is dropped.
    static_cast<void>(KAV::ifMemoryAllows([&] { isAwaited = append(message); }));
    if (isAwaited)
        arrived.notify();
}

void Observer::wake() { arrived.notify(); }

/// True when `awaitMessages` may be waiting for this message.
bool Observer::append(const std::string &message)
{
    const KAV::Hold hold(*queueLock);
    if (waiting == (immediateDelivery ? immediateMailboxSize : mailboxSize)) {
        queue[oldest] = message;
        oldest = (oldest + 1) % static_cast<std::uint32_t>(queue.size());
        return false;
    }
    if (waiting == queue.size())
        queue.emplace_back();
    queue[waiting] = message;
    ++waiting;
    return waiting == awaited;
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
    if (queue.size() > mailboxSize)
        queue.resize(mailboxSize); // frees what a burst needed
    waiting = 0;
    oldest = 0;
    return all;
}

void Observer::deliverUntilExit(const std::function<bool(const std::string &batch)> &deliver)
{
    constexpr unsigned int idlePause = 1000; // milliseconds
    while (exitRequested == 0) {
        if (immediateDelivery)
            awaitMessages();
        std::string batch;
        // Without memory for the joined text the messages stay in the mailbox.
        const bool joined = KAV::ifMemoryAllows([&] { batch = getData(); });
        if (!batch.empty()) {
            if (!deliver(batch))
                return;
        } else if (!joined || !immediateDelivery) {
            KAV::Thread::sleep(idlePause);
        }
    }
}

/// Blocks until there are messages and the rest of their epoch had time to arrive, or until an exit is requested.
///
/// When enough have come before that time was over, more are expected: the next call does without the wake-up for the
/// first message, which would slow down the reader most when it has most to read. It may end without a message.
void Observer::awaitMessages()
{
    while (!moreExpected && !hasMessages(1) && exitRequested == 0)
        arrived.wait();
    const auto end = std::chrono::steady_clock::now() + gatherTime;
    moreExpected = true;
    while (moreExpected && !hasMessages(enoughMessages) && exitRequested == 0)
        moreExpected = arrived.waitUntil(end);
}

/// False when fewer than `count` messages are waiting; then `update` notifies `arrived` as soon as there are as many.
bool Observer::hasMessages(std::uint32_t count)
{
    const KAV::Hold hold(*queueLock);
    awaited = count;
    return waiting >= count;
}
