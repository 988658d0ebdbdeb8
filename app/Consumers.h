#pragma once

#include "app/RunSettings.h"
#include "net/ClientThread.h"
#include "net/ServerThread.h"
#include "serial/SerialThread.h"

#include <memory>

/// The consumers of one run; null when switched off or without a thread. The uplink and the serial line live until the
/// process ends, since neither is waited for.
struct Consumers {
    std::unique_ptr<ServerThread> server;
    ClientThread *uplink = nullptr;
    SerialThread *serial = nullptr;

    /// At least one exists.
    [[nodiscard]] bool any() const { return server != nullptr || uplink != nullptr || serial != nullptr; }
};

/// Creates the enabled consumers and starts their threads, in the order TCP server, uplink, serial line.
/// Thread: main, after daemonizing.
[[nodiscard]] Consumers startConsumers(const RunSettings &settings);

/// Waits for the server to end, deletes it, and ends the serial output. Does not wait for the uplink, which its
/// collector or the retry delay may block; it ends with the process.
void endConsumers(Consumers &consumers);
