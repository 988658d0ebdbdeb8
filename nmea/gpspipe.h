#pragma once

#include <string>

/// Called by the reader for every line: the NUL-terminated line, valid only during the call, then two of the reader's
/// arguments. The result is ignored.
using LineCallback = int (*)(const char *line, int interval, const std::string *decoration);

/// One run of the reader: starts gpspipe and passes every line of its output to `callback`, until the output ends or a
/// signal interrupts a read. Lines longer than 511 bytes are split. A line is lost if `callback` runs out of memory.
///
/// `timestamp` not 0: gpspipe prefixes every line with a time stamp (-t). `interval` and `decoration` are passed on
/// unchanged. Returns 0 if the output ended in a line without line end, 32 if gpspipe could not be started (after an
/// ERROR line) or a read returned no line. Thread: main, the only one that receives the signals.
int kavGPSGetNMEAStrings(int timestamp, LineCallback callback, int interval, const std::string *decoration);

/// Ends gpspipe and the shell in which popen(3) runs it: every process of our process group whose standard output is
/// the reader's pipe. Sends SIGTERM first, SIGKILL after 0.2 s. Returns immediately if there is none.
///
/// Needed because popen does not return the process ID, and pclose waits for a gpspipe that, with a silent receiver,
/// does not notice that the pipe is closed.
/// Any thread; needs no memory. Searches /proc (proc_pid_fd(5)): without it, without a descriptor to open it, or once
/// gpspipe has closed its standard output, nothing is found.
void endGpspipe();

/// Ends gpspipe, then the process at once with `status` (_exit(2)): destructors would destroy objects that other
/// threads still use. Any thread.
[[noreturn]] void endProcess(int status);
