#pragma once

#include <string>

/// Takes one line of gpspipe: finds its sentence type, puts the decoration in front, gathers GSV groups, and hands what
/// is due to the subject. Lines of other types are dropped.
///
/// `line` ends in NUL and is the caller's; `interval` in seconds (isSentenceDue). Returns 0. Thread: main.
/// REQUIRES: `decoration` is not null.
int handleNMEAString(const char *line, int interval, const std::string *decoration);
