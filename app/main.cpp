#include "app/Consumers.h"
#include "app/StatusThread.h"
#include "app/StopThread.h"
#include "app/commandLine.h"
#include "app/runReader.h"
#include "app/startUp.h"
#include "nmea/Pulse.h"
#include "nmea/statistics.h"
#include "support/Logger.h"
#include "support/wipe_string.h"

#include <cstdlib>
#include <memory>

int main(int argc, char *argv[])
{
    const KAV::Descriptor manager = connectToServiceManager();
    if (wantsUsage(argc, argv)) {
        notifyServiceManager(manager, "READY=1"); // a service without options has nothing to do, which is no failure
        printUsage();
    }
    installSignalHandlers();
    KAV::Logger::setPrintLevel(RunSettings{}.logLevel, false);
    RunSettings settings = parseCommandLine(argc, argv);
    prepareProcess();
    setUpLogger(settings);
    if (settings.daemonize)
        daemonizeOrExit(argv[0]);

    const std::unique_ptr<StopThread> stopper(KAV::startWorker<StopThread>());
    KAV_LOG(INFO, "Starting executable: %s\n", argv[0]);
    if (settings.immediate && settings.wantsConsumer())
        pulse = KAV::startWorker<Pulse>();
    statistics.namesClients = settings.statusInterval > 0;
    Consumers consumers = startConsumers(settings);
    const std::unique_ptr<StatusThread> status(
        settings.statusInterval > 0 || manager.isOpen() ? KAV::startWorker<StatusThread>(settings, manager) : nullptr);
    if (stopper)
        stopper->holdBack(consumers.serial);
    const bool hasConsumer = consumers.any();
    if (hasConsumer)
        runReaderUntilExit(settings);
    endConsumers(consumers);

    wipe_string(settings.serverPassword);
    wipe_string(settings.clientPassword);
    KAV_LOG(INFO, "execution complete\n");
    // When nothing that is wanted could be started, a supervisor can try again.
    return settings.wantsConsumer() && !hasConsumer ? EXIT_FAILURE : EXIT_SUCCESS;
}
