#pragma once

#include "app/RunSettings.h"

#include <cstdint>
#include <map>
#include <string>

/// The baud rates that the command line accepts, as exact text, with their termios speed codes.
extern const std::map<std::string, std::uint16_t> baudTable;

/// Parses the whole command line. Unknown arguments and an option without its value are ignored, or with --strict an
/// error; the last of repeated options wins. --version ends the process with status 0.
///
/// Side effects: sets the log threshold at every --loglevel and the switches of `sentenceFilters`; overwrites the
/// passwords in `argv`, since ps(1) shows them.
/// Errors: a bad value prints one line on standard error and ends the process with status 1.
/// Thread: main, before the logger is set up.
[[nodiscard]] RunSettings parseCommandLine(int argc, char *argv[]);
