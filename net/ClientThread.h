#pragma once

#include "nmea/Observer.h"
#include "support/Descriptor.h"
#include "support/wipe_string.h"

#include <cstdint>
#include <string>

class nmeaDataSubject;

/// The uplink: connects to one remote collector over TCP or UDP, logs in if a password is set, and sends every message;
/// after any failure it closes the connection and reconnects 30 s later, indefinitely. Main keeps it to the end of the
/// process.
class ClientThread : public Observer {
public:
    /// Starts the thread. `_remoteHost` is a name or an IPv4 address, `_port` in host byte order, `_protocol`
    /// 't' for TCP or 'u' for UDP; an empty `_password`, and UDP, mean no login. Errors: as KAV::Thread::start.
    ClientThread(const std::string &_remoteHost, std::uint16_t _port, char _protocol, const std::string &_password);
    ~ClientThread() override;

    void execute() override;

private:
    void runSession();
    void registerOnce();
    [[nodiscard]] bool sendToCollector(const std::string &data) const;

    /// A connected socket; not open, after an ERROR line with the reason, if that failed.
    [[nodiscard]] KAV::Descriptor connect_to_host() const;

    /// The connecting side of the handshake, one attempt (handshake::logIn).
    [[nodiscard]] bool authentificate() const;

    const std::uint32_t retryDelay;   ///< milliseconds from the end of one session to the next attempt
    nmeaDataSubject *subject;         ///< not owned
    KAV::Descriptor socketDescriptor; ///< the session's connection, closed at its end
    char protocol;
    std::string remoteHost;
    WipedString password;
    std::uint16_t port;
    bool registered = false; ///< once for all sessions, so that messages are queued between them
};
