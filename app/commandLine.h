#pragma once

#include "app/RunSettings.h"

#include <cstdint>
#include <map>
#include <string>

/// The baud rates that the command line takes, as text, with their termios speed codes. Looked up by exact text.
extern const std::map<std::string, std::uint16_t> baudTable;

/// True when the user asked for help: no argument at all, or one that is exactly "-h" or "--help", wherever it
/// stands, even as the value of an option.
[[nodiscard]] bool wantsUsage(int argc, char *argv[]);

/// Prints the usage text on standard output and ends the process with status 0.
[[noreturn]] void printUsage();

/// Reads the whole command line. What is not an option, and an option whose value is missing, is ignored; the
/// last of several wins.
///
/// Side effects: the log threshold at every --loglevel, the switches of `sentenceFilters`, and the passwords'
/// bytes in `argv` are overwritten, since ps(1) shows them.
/// Errors: a bad value is one line on standard error and the end of the process with status 1.
/// Thread: main, before the logger is set up.
[[nodiscard]] RunSettings parseCommandLine(int argc, char *argv[]);
