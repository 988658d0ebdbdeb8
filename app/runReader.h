#pragma once

#include "app/RunSettings.h"

/// Runs the gpspipe reader repeatedly, one second apart, until `exitRequested` is set. Thread: main.
void runReaderUntilExit(const RunSettings &settings);
