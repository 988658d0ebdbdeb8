#include "app/Consumers.h"
#include "app/StopThread.h"
#include "app/commandLine.h"
#include "app/runReader.h"
#include "app/startUp.h"
#include "nmea/Pulse.h"
#include "support/Logger.h"
#include "support/wipe_string.h"

#include <cstdlib>
#include <memory>

int main(int argc, char *argv[])
{
    if (wantsUsage(argc, argv))
        printUsage();
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
    Consumers consumers = startConsumers(settings);
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
