#pragma once

/// True when the user asked for help: no argument at all, or one that is exactly "-h" or "--help", wherever it
/// stands, even as the value of an option.
[[nodiscard]] bool wantsUsage(int argc, char *argv[]);

/// Prints the usage text on standard output and ends the process with status 0.
[[noreturn]] void printUsage();
