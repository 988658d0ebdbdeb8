#include "app/Consumers.h"

#include "app/startWorker.h"
#include "net/ClientThread.h"
#include "serial/SerialThread.h"

namespace {

constexpr std::uint16_t loginAttempts = 3;

} // namespace

Consumers startConsumers(const RunSettings &settings)
{
    Consumers consumers;
    if (settings.serverEnabled) {
        consumers.server.reset(startWorker<ServerThread>(settings.serverPort, settings.serverPassword, loginAttempts));
        consumers.any = consumers.server != nullptr;
    }
    if (settings.clientEnabled) {
        consumers.any |= startWorker<ClientThread>(settings.clientRemoteHost, settings.clientPort,
                                                   settings.clientProtocol, settings.clientPassword) != nullptr;
    }
    if (!settings.serialPort.empty()) {
        consumers.any |= startWorker<SerialThread>(settings.serialPort, settings.serialSpeed, settings.serialCharSize,
                                                   settings.serialParity, settings.serialStopBits,
                                                   settings.serialHwFlow, settings.serialRs485) != nullptr;
    }
    return consumers;
}

void endConsumers(Consumers &consumers)
{
    if (!consumers.server)
        return;
    consumers.server->wait();
    consumers.server.reset();
}
