#pragma once

#include "support/Descriptor.h"
#include "support/Thread.h"
#include "support/wipe_string.h"

#include <cstdint>
#include <string>

/// The TCP server: listens on one port of every local IPv4 address and creates a ClientHandlerThread for every
/// connection. Owned by main, which waits for it and deletes it.
class ServerThread : public KAV::Thread {
public:
    /// Starts the thread. `_port` in host byte order; `_password` empty: clients are not asked for one;
    /// `_maxLoginAttempts` per connection, 0: no limit. Errors: as KAV::Thread::start.
    ServerThread(std::uint16_t _port, const std::string &_password, std::uint16_t _maxLoginAttempts);
    ~ServerThread() override;

    /// Sets up the listening socket once (a failure logs an ERROR line and ends the server), then serves until
    /// `exitRequested` is set (Arrivals::next).
    void execute() override;

private:
    [[nodiscard]] KAV::Descriptor listenOnPort() const;
    void serve(KAV::Descriptor listener) const;
    void startHandler(KAV::Descriptor connection) const;

    std::uint16_t port;
    std::uint16_t maxLoginAttempts;
    WipedString password;
};
