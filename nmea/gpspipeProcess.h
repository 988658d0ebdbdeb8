#pragma once

#include <cstdio>

/// Starts `command`, which runs gpspipe, and remembers the pipe that it writes to (popen(3), mode "r"). Null,
/// with `errno` set, when it cannot be started. The caller ends it with pclose(3). Thread: main.
[[nodiscard]] std::FILE *startGpspipe(const char *command);

/// Ends every process of our process group whose standard output is that pipe, gpspipe and the shell that popen puts in
/// front of it: by SIGTERM, and by SIGKILL what is left after a fifth of a second. At once when there is none.
///
/// Needed because popen keeps the process numbers to itself, and pclose waits for a gpspipe that, with a silent
/// receiver, never notices that nobody reads any more.
/// Any thread. Found through /proc (proc_pid_fd(5)): without it, or once gpspipe has closed its standard output and
/// lives on, there is nobody to be found.
void endGpspipe();

/// Ends gpspipe, lets no other start, and ends the process at once with `status`, without the clean-up that
/// would destroy what other threads still use (_exit(2)). Any thread.
[[noreturn]] void exitWithoutGpspipe(int status);
