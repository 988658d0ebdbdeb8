#pragma once

/// Blocks until a client waits on the listening socket and a descriptor is free for it. False when an exit is
/// requested meanwhile, noticed at once, or within about a second while there is no free descriptor.
///
/// While no descriptor is free nobody is accepted: one ERROR line an episode, no processor time. A few
/// descriptors are kept for gpspipe and the uplink, which would starve behind the clients otherwise.
[[nodiscard]] bool awaitConnection(int listener);
