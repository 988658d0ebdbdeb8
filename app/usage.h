#pragma once

/// True when there is no argument but --strict, or any argument is exactly "-h" or "--help", even as the value of an
/// option.
[[nodiscard]] bool wantsUsage(int argc, char *argv[]);

/// Prints the usage text on standard output and ends the process with status 0.
[[noreturn]] void printUsage();

/// Prints "navtwine" and the version on standard output and ends the process with status 0.
[[noreturn]] void printVersion();
