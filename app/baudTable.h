#pragma once

#include <cstdint>
#include <map>
#include <string>

/// The baud rates that the command line takes, as text, with their termios speed codes. Looked up by exact
/// text. Thread: main, before the consumers start.
extern const std::map<std::string, std::uint16_t> baudTable;
