#pragma once

#include "app/RunSettings.h"
#include "net/ServerThread.h"

#include <memory>

/// The consumers of one run.
struct Consumers {
    std::unique_ptr<ServerThread> server; ///< null when switched off
    /// At least one consumer exists. The thread library owns the uplink and the serial consumer once they are started,
    /// so no pointer to them is kept.
    bool any = false;
    bool wanted = false; ///< at least one was switched on
};

/// Makes the consumers that are switched on, in the order TCP server, uplink, serial line; their threads run
/// from then on. Thread: main, after the daemon step.
[[nodiscard]] Consumers startConsumers(const RunSettings &settings);

/// Waits for the server's end and deletes it, and ends the serial line's output. The uplink, which may be held by its
/// collector or in its retry delay, is not waited for; it ends with the process.
void endConsumers(Consumers &consumers);
