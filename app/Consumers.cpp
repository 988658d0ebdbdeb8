#include "app/Consumers.h"

#include "nmea/Pulse.h"
#include "nmea/statistics.h"

namespace {

constexpr std::uint16_t loginAttempts = 3;

} // namespace

Consumers startConsumers(const RunSettings &settings)
{
    Consumers consumers;
    if (settings.serverEnabled) {
        consumers.server.reset(
            KAV::startWorker<ServerThread>(settings.serverPort, settings.serverPassword, loginAttempts));
        if (!consumers.server)
            statistics.setState(statistics.server, ConsumerStatistics::FAILS);
    }
    if (settings.clientEnabled)
        consumers.uplink = KAV::startWorker<ClientThread>(settings.clientRemoteHost, settings.clientPort,
                                                          settings.clientProtocol, settings.clientPassword);
    if (!settings.serialPort.empty())
        consumers.serial = KAV::startWorker<SerialThread>(
            settings.serialPort, settings.serialSpeed, settings.serialCharSize, settings.serialParity,
            settings.serialStopBits, settings.serialHwFlow, settings.serialRs485);
    return consumers;
}

void endConsumers(Consumers &consumers)
{
    wakeConsumers();
    if (consumers.server)
        consumers.server->wait();
    consumers.server.reset();
    if (consumers.serial != nullptr)
        consumers.serial->endOutput();
}
