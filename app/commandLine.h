#pragma once

#include "app/RunSettings.h"

/// Reads the whole command line. What is not an option, and an option whose value is missing, is ignored; the
/// last of several wins.
///
/// Side effects: the log threshold at every --loglevel, the switches of `sentenceFilters`, and the passwords'
/// bytes in `argv` are overwritten, since ps(1) shows them.
/// Errors: a bad value is one line on standard error and the end of the process with status 1.
/// Thread: main, before the logger is set up.
[[nodiscard]] RunSettings parseCommandLine(int argc, char *argv[]);
