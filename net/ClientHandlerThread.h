#pragma once

#include "nmea/Observer.h"
#include "support/Descriptor.h"
#include "support/wipe_string.h"

#include <cstdint>
#include <string>

class nmeaDataSubject;

/// One accepted TCP client: logs it in, then streams every message that arrives afterwards. Reads nothing after the
/// login. Created with `new` by the server; its thread deletes it when its body has ended.
class ClientHandlerThread : public Observer {
public:
    /// Starts the thread. `_password` empty: no login. `_maxLoginAttempts` 0: no limit.
    /// Thread: the server's. Errors: as KAV::Thread::start; the connection is closed then.
    ClientHandlerThread(KAV::Descriptor _socketDescriptor, const std::string &_password,
                        std::uint16_t _maxLoginAttempts);
    ~ClientHandlerThread() override;

    void execute() override;

    /// The listening side of the handshake (handshake::admit). REQUIRES: a password is set.
    [[nodiscard]] bool login();

private:
    [[nodiscard]] bool sendToClient(const std::string &data) const;
    [[nodiscard]] bool hasClientLeft() const;

    nmeaDataSubject *subject;         ///< not owned
    KAV::Descriptor socketDescriptor; ///< closed at the end of the body
    std::uint16_t maxLoginAttempts;
    WipedString password;
};
