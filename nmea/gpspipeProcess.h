#pragma once

#include <cstdio>

/// Remembers the pipe that the current gpspipe writes to. Thread: main.
void setGpspipeStream(std::FILE *stream);

/// Ends every process whose standard output is that pipe, gpspipe and the shell that popen(3) puts in front
/// of it: by SIGTERM, and by SIGKILL what is left after a fifth of a second. At once when there is none.
///
/// Needed because popen keeps the process numbers to itself, and pclose(3) waits for a gpspipe that, with a
/// silent receiver, never notices that nobody reads any more.
/// Any thread. Found through /proc (proc_pid_fd(5)); processes of other users are left alone.
void endGpspipe();
