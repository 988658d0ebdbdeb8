#pragma once

#include <string>

/// What the reader calls with every line: the line, ending in NUL and valid only during the call, then the two
/// arguments that the reader was given. The result is not used.
using LineCallback = int (*)(const char *line, int interval, const std::string *decoration);

/// One run of the reader: starts gpspipe and hands every line of its output to `callback`, until the output
/// ends or a caught signal interrupts a read. A line longer than 511 bytes arrives in pieces. A line for which
/// `callback` has no memory is lost.
///
/// `timestamp` not 0: gpspipe puts its time stamp in front of every line (-t). `interval` and `decoration` are
/// passed on untouched. Returns 0 when the output ended in a line without line end, 32 when gpspipe could not
/// be started (an ERROR line says so) or a read gave no line. Thread: main, which alone receives the signals.
int kavGPSGetNMEAStrings(int timestamp, LineCallback callback, int interval, const std::string *decoration);

/// Ends gpspipe and the shell that popen(3) puts in front of it: every process of our process group whose standard
/// output is the reader's pipe. By SIGTERM first, by SIGKILL after a fifth of a second. Returns at once when there is
/// none.
///
/// Needed because popen does not tell the process number, and pclose waits for a gpspipe that, with a silent receiver,
/// does not notice that nobody reads any more.
/// Any thread. Looks in /proc (proc_pid_fd(5)): without it, or once gpspipe has closed its standard output, nothing is
/// found.
void endGpspipe();

/// Ends gpspipe and lets no other start, for good: before the end of the process. Any thread.
void endGpspipeForGood();
