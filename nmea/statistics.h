#pragma once

#include "nmea/sentence.h"
#include "support/Broadcast.h"

#include <array>
#include <atomic>
#include <cstdint>

/// What the status line tells of one kind of consumer.
struct ConsumerStatistics {
    enum State : std::uint8_t { STARTING, WORKS, FAILS };

    std::atomic<State> state{STARTING};
    std::atomic<std::uint32_t> lost{0}; ///< messages that mailboxes dropped; counted by main
};

/// Totals since the start of the process; they wrap round. Thread: main counts, without a lock; any may read.
struct Statistics {
    std::atomic<std::uint32_t> linesRead{0};                            ///< of gpspipe
    std::array<std::atomic<std::uint32_t>, sentenceTypeCount> passed{}; ///< messages, by type
    std::atomic<std::uint32_t> clients{0};                              ///< that receive; counted by their handlers
    ConsumerStatistics server, uplink, serial;
    KAV::Broadcast changes; ///< sent after a change of a state, and when an exit is requested

    bool namesClients = false; ///< the log names each client; written by main before the server starts

    /// Any thread.
    void setState(ConsumerStatistics &consumer, ConsumerStatistics::State next)
    {
        if (consumer.state.exchange(next) != next)
            changes.send();
    }
};
inline constinit Statistics statistics;
