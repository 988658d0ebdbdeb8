#include "app/Consumers.h"

#include "net/ClientThread.h"
#include "serial/SerialThread.h"

namespace {

constexpr std::uint16_t loginAttempts = 3;

} // namespace

Consumers startConsumers(const RunSettings &settings)
{
    Consumers consumers;
    consumers.wanted = settings.serverEnabled || settings.clientEnabled || !settings.serialPort.empty();
    if (settings.serverEnabled) {
        consumers.server.reset(
            KAV::startWorker<ServerThread>(settings.serverPort, settings.serverPassword, loginAttempts));
        consumers.any = consumers.server != nullptr;
    }
    if (settings.clientEnabled) {
        consumers.any |= KAV::startWorker<ClientThread>(settings.clientRemoteHost, settings.clientPort,
                                                        settings.clientProtocol, settings.clientPassword) != nullptr;
    }
    if (!settings.serialPort.empty()) {
        consumers.any |= KAV::startWorker<SerialThread>(
                             settings.serialPort, settings.serialSpeed, settings.serialCharSize, settings.serialParity,
                             settings.serialStopBits, settings.serialHwFlow, settings.serialRs485) != nullptr;
    }
    return consumers;
}

void endConsumers(Consumers &consumers)
{
    if (consumers.server)
        consumers.server->wait();
    consumers.server.reset();
    SerialThread::endOutput();
}
