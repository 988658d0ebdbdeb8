#pragma once

#include <cstdint>
#include <termios.h>

/// How a serial line is to run; every field holds the bits of termios(3) themselves.
struct LineSettings {
    speed_t speed;         ///< a speed code, such as B115200
    std::int16_t charSize; ///< CS7 or CS8
    std::int16_t parity;   ///< 0, PARENB or PARENB | PARODD
    std::int16_t stopBits; ///< 0 or CSTOPB
    tcflag_t hwFlow;       ///< 0 or CRTSCTS
};

/// Makes `line` a raw line with these settings. CLOCAL and CREAD stay as the driver has them.
void applyLineSettings(termios &line, const LineSettings &settings);
