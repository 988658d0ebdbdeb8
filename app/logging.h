#pragma once

#include "app/RunSettings.h"

/// Selects the log's destination and threshold. Without a system log on the machine, messages go to standard
/// error instead, and a first one says so.
void setUpLogger(const RunSettings &settings);
