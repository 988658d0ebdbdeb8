#include "nmea/shortage.h"

#include "nmea/Pulse.h"

#include <atomic>
#include <chrono>
#include <cstdint>

namespace {

using Clock = std::chrono::steady_clock;

constexpr std::uint32_t memory = 3; ///< seconds: consumers look once a second

/// Seconds on Clock, 0 at start. 32 bits, since ARMv5 has no atomic of 64 without a lock.
constinit std::atomic<std::uint32_t> lastReport{0};

std::uint32_t now()
{
    return static_cast<std::uint32_t>(
        std::chrono::duration_cast<std::chrono::seconds>(Clock::now().time_since_epoch()).count());
}

} // namespace

void reportShortage()
{
    lastReport = now();
    wakeConsumers();
}

bool isShort() { return lastReport != 0 && now() - lastReport <= memory; }
