#pragma once

#include <string>

/// Overwrites every character of `text` with a zero byte, then empties it. The compiler cannot drop the
/// writes (explicit_bzero(3)). For every copy of a password that is no longer needed.
void wipe_string(std::string &text);
