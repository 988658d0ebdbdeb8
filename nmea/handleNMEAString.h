#pragma once

#include <string>

/// Processes one line of gpspipe: finds its sentence type, prefixes the decoration, collects GSV groups, and passes
/// due messages to the subject. Lines of other types are dropped.
///
/// `interval` in seconds (isSentenceDue). Returns 0. Thread: main.
/// REQUIRES: `line` is NUL-terminated; `decoration` is not null.
int handleNMEAString(const char *line, int interval, const std::string *decoration);
