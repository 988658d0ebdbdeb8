#include "app/Consumers.h"

#include "app/startWorker.h"

namespace {

constexpr std::uint16_t loginAttempts = 3;

} // namespace

Consumers startConsumers(const RunSettings &settings)
{
    Consumers consumers;
    if (settings.serverEnabled) {
        consumers.server.reset(
            startWorker<ServerThread>(settings.serverPort, settings.serverPassword, loginAttempts));
        consumers.any = consumers.server != nullptr;
    }
    // The places of the uplink (settings.clientEnabled) and of the serial line (settings.serialPort), in this
    // order.
    return consumers;
}

void endConsumers(Consumers &consumers)
{
    if (!consumers.server)
        return;
    consumers.server->wait();
    consumers.server.reset();
}
