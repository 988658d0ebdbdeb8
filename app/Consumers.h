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
    bool wanted = false; ///< at least one is enabled
};

/// Creates the enabled consumers and starts their threads, in the order TCP server, uplink, serial line.
/// Thread: main, after daemonizing.
[[nodiscard]] Consumers startConsumers(const RunSettings &settings);

/// Waits for the server to end, deletes it, and ends the serial output. Does not wait for the uplink, which its
/// collector or the retry delay may block; it ends with the process.
void endConsumers(Consumers &consumers);
