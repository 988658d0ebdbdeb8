#pragma once

#include "app/RunSettings.h"

/// Runs the gpspipe reader again and again, one second apart, until `exitRequested` is set. Thread: main.
void runReaderUntilExit(const RunSettings &settings);
