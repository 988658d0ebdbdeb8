#pragma once

#include "app/RunSettings.h"

// What main does before it starts the first thread, in this order; all of it on the main thread.

/// Catches SIGALRM, SIGPIPE and SIGHUP, which then do nothing, and SIGINT, which requests an exit. A caught signal ends
/// a blocked call with EINTR: that is what takes the main thread out of a read. Other signals keep their default
/// actions.
void installSignalHandlers();

/// Sets up what all threads share: open standard streams, the hard limit of open files as the soft one, the exit event,
/// what happens before a hard end, the code that ends a thread, and one heap for all threads.
void prepareProcess();

/// Selects the log's destination and threshold. Without a system log on the machine, messages go to standard
/// error instead, and a first one says so.
void setUpLogger(const RunSettings &settings);

/// Becomes a daemon in the background, with the standard streams on /dev/null (daemon(3)). On failure one line
/// on standard error, and the process ends with status 1. `program` is the name in that line.
void daemonizeOrExit(const char *program);
