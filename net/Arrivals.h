#pragma once

#include "support/Descriptor.h"

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
    /// `_listener`: a listening socket, not blocking; not owned.
    explicit Arrivals(int _listener) : listener(_listener) {}

    /// The next client. Blocks until there is one. Not open when `accept` failed, and when an exit was requested, which
    /// is noticed at once, or within about a second while there is no free descriptor.
    ///
    /// While no descriptor is free nobody is accepted: one ERROR line an episode, no processor time. A few descriptors
    /// are kept for gpspipe and the uplink, which would starve behind the clients otherwise.
    [[nodiscard]] KAV::Descriptor next();

private:
    [[nodiscard]] bool awaitClient() const;
    [[nodiscard]] bool takeOne();

    const int listener;
    std::vector<KAV::Descriptor> taken;
};
