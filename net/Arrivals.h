#pragma once

#include "support/Descriptor.h"

#include <utility>
#include <vector>

/// Clients of one listening socket that are accepted but have no handler yet, in order of arrival.
///
/// The backlog is five (listen(2)), and a client beyond it may consider itself connected for ever. So whoever comes in
/// the same instant is accepted before the first handler is created, and the whole backlog before each further one.
///
/// Thread: the server's.
class Arrivals {
public:
    /// REQUIRES: `_listener` is a non-blocking listening socket.
    explicit Arrivals(KAV::Descriptor _listener) : listener(std::move(_listener)) {}

    /// Blocks until there is a client and returns it. Not open when `accept` failed or an exit was requested, which is
    /// noticed immediately, or within about a second while no descriptor is free.
    ///
    /// While no descriptor is free, no client is accepted; each such period logs one ERROR line. Four descriptors are
    /// reserved for gpspipe and the uplink, which could not start otherwise.
    [[nodiscard]] KAV::Descriptor next();

private:
    [[nodiscard]] bool awaitClient() const;
    void takeUntilPause(int pause);
    [[nodiscard]] bool takeOne();

    const KAV::Descriptor listener;
    std::vector<KAV::Descriptor> taken;
};
