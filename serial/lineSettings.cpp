#include "serial/lineSettings.h"

void applyLineSettings(termios &line, const LineSettings &settings)
{
    ::cfmakeraw(&line);
    // A speed that the platform does not know leaves the line's own.
    static_cast<void>(::cfsetspeed(&line, settings.speed));
    constexpr tcflag_t replaced = CSIZE | PARENB | PARODD | CSTOPB | CRTSCTS;
    const auto bits = static_cast<tcflag_t>(settings.charSize | settings.parity | settings.stopBits);
    line.c_cflag = (line.c_cflag & ~replaced) | bits | settings.hwFlow;
}
