#pragma once

/// Catches SIGALRM, SIGPIPE and SIGHUP, which then do nothing, and SIGINT, which requests an exit. A caught signal ends
/// a blocked call with EINTR: that is what takes the main thread out of a read. Every other signal keeps its default
/// action. Thread: main, before any other starts.
void installSignalHandlers();
