#pragma once

#include <cstdint>
#include <string>
#include <termios.h>

/// All settings of a run, from the command line. Owned by main; every consumer copies what it needs.
/// The serial fields hold termios(3) constants; all but the speed can be or-ed into `c_cflag`.
struct RunSettings {
    std::int16_t logLevel = 30; ///< threshold; 1 to 100 in the usage text, but any number is accepted
    bool logToStderr = false;
    bool daemonize = false;

    bool serverEnabled = false;
    std::uint16_t serverPort = 5445;
    std::string serverPassword; ///< empty: clients are not asked for one; wiped at shutdown

    bool clientEnabled = false;
    char clientProtocol = 't'; ///< 't' TCP, 'u' UDP
    std::string clientRemoteHost;
    std::uint16_t clientPort = 5445;
    std::string clientPassword; ///< empty: no login; wiped at shutdown

    std::string serialPort; ///< device path; empty: no serial consumer
    std::uint16_t serialSpeed = B115200;
    std::int16_t serialCharSize = CS8;
    std::int16_t serialParity = 0;
    std::int16_t serialStopBits = 0;
    std::uint32_t serialHwFlow = 0;
    bool serialRs485 = false;

    std::string stationId;
    std::string stationIdPrefix;
    std::int32_t interval = 10;      ///< seconds between two sentences of one type; 1: no limit
    bool timestamp = false;          ///< gpspipe prefixes every line with a time stamp
    std::int32_t statusInterval = 0; ///< seconds between two status lines; 0: none
    bool strict = false;             ///< what would be ignored or bent is an error
    bool immediate = false;          ///< consumers are woken for messages (Pulse); otherwise they look once a second

    /// At least one consumer is switched on.
    [[nodiscard]] bool wantsConsumer() const { return serverEnabled || clientEnabled || !serialPort.empty(); }
};
