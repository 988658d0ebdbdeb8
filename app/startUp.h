#pragma once

#include "app/RunSettings.h"

// The steps before the first worker thread starts, in this order, all on the main thread.

/// Installs handlers for SIGALRM, SIGPIPE and SIGHUP, which do nothing, and SIGINT, which requests an exit. Without
/// SA_RESTART, so that a signal interrupts a blocked read of the main thread. Other signals keep their default actions.
void installSignalHandlers();

/// Sets up what all threads share: open standard streams, the descriptor limit, the exit event, the thread unwinder,
/// and a single malloc arena.
void prepareProcess();

/// Selects the log's destination and threshold. Without a system log, falls back to standard error and logs that.
void setUpLogger(const RunSettings &settings);

/// Detaches into the background with the standard streams on /dev/null (daemon(3)). On failure prints one line, with
/// the name `program`, on standard error and ends the process with status 1.
void daemonizeOrExit(const char *program);
