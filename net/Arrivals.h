#pragma once

#include "support/Descriptor.h"

#include <utility>
#include <vector>

/// The clients of one listening socket that are accepted and still wait for their handlers, in the order in which they
/// came.
///
/// The kernel's queue holds five (listen(2)), and a client beyond it may believe for ever that it is connected. So each
/// look takes all that wait there, before the next handler is made.
///
/// Thread: the server's.
class Arrivals {
public:
    /// REQUIRES: `_listener` is a listening socket, not blocking.
    explicit Arrivals(KAV::Descriptor _listener) : listener(std::move(_listener)) {}

    /// The next client. Blocks until there is one. Not open when `accept` failed, and when an exit was requested, which
    /// is noticed at once, or within about a second while there is no free descriptor.
    ///
    /// While no descriptor is free nobody is accepted; the log gets one ERROR line for each time this begins. Four
    /// descriptors are kept for gpspipe and the uplink, which could not start otherwise.
    [[nodiscard]] KAV::Descriptor next();

private:
    [[nodiscard]] bool awaitClient() const;
    [[nodiscard]] bool takeOne();

    const KAV::Descriptor listener;
    std::vector<KAV::Descriptor> taken;
};
