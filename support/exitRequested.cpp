#include "support/exitRequested.h"

constinit std::atomic<int> exitRequested{0};
