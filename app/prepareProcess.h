#pragma once

/// Sets up what every thread of the process shares, before the first of them starts: standard streams that are
/// open, the hard limit of open files as the limit, what an exit request wakes, what ends a thread, and one heap for
/// all threads.
void prepareProcess();

/// Becomes a daemon in the background, with the standard streams on /dev/null (daemon(3)). On failure one line
/// on standard error, and the process ends with status 1. `program` is the name in that line.
void daemonizeOrExit(const char *program);
