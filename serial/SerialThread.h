#pragma once

#include "nmea/Observer.h"
#include "support/Descriptor.h"

#include <cstdint>
#include <string>
#include <termios.h>

class nmeaDataSubject;

/// The serial consumer: opens one port in raw mode, RS-485 or RS-232, and writes every message to it. Main keeps it to
/// the end of the process.
class SerialThread : public Observer {
public:
    /// Starts the thread. The settings are bits of termios(3), as in RunSettings. Errors: as KAV::Thread::start.
    /// If the device cannot be opened, logs an ERROR line and ends the whole process with status 1 (endProcess).
    SerialThread(const std::string &_devicePath, speed_t _speed, std::int16_t _charSize, std::int16_t _parity,
                 std::int16_t _stopBits, tcflag_t _hwFlow, bool _rs485);
    ~SerialThread() override;

    void execute() override;

    /// Ends the body, even in a write that the line holds up, and discards the pending output. Returns once the port is
    /// closed, or after a second. Thread: main or the stop thread, at shutdown.
    void endOutput();

private:
    [[nodiscard]] KAV::Descriptor openOrEndProcess() const;
    void configureLine(int port) const;
    void setRs485Mode(int port) const;

    nmeaDataSubject *subject; ///< not owned
    std::string devicePath;
    speed_t speed;         ///< a speed code, such as B115200
    std::int16_t parity;   ///< 0, PARENB or PARENB | PARODD
    std::int16_t stopBits; ///< 0 or CSTOPB
    std::int16_t charSize; ///< CS7 or CS8
    tcflag_t hwFlow;       ///< 0 or CRTSCTS
    bool rs485;
};
