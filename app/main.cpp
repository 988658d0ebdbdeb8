#include "app/Consumers.h"
#include "app/StatusThread.h"
#include "app/StopThread.h"
#include "app/commandLine.h"
#include "app/runReader.h"
#include "app/startUp.h"
#include "app/usage.h"
#include "nmea/Pulse.h"
#include "nmea/statistics.h"
#include "support/Logger.h"
#include "support/wipe_string.h"

#include <cstdlib>
#include <memory>

namespace {

/// From the first consumer's start to the last one's end. False when none could be started.
bool runConsumers(const RunSettings &settings, const KAV::Descriptor &manager, StopThread *stopper)
{
    if (settings.immediate && settings.wantsConsumer())
        pulse = KAV::startWorker<Pulse>();
    statistics.namesClients = settings.statusInterval > 0;
    Consumers consumers = startConsumers(settings);
    if (stopper != nullptr)
        stopper->holdBack(consumers.serial);
    const std::unique_ptr<StatusThread> status(
        settings.statusInterval > 0 || manager.isOpen() ? KAV::startWorker<StatusThread>(settings, manager) : nullptr);
    const bool anyStarted = consumers.any();
    if (anyStarted)
        runReaderUntilExit(settings);
    endConsumers(consumers);
    return anyStarted;
}

} // namespace

int main(int argc, char *argv[])
{
    prepareProcess();
    const KAV::Descriptor manager = connectToServiceManager();
    if (wantsUsage(argc, argv)) {
        notifyServiceManager(manager, "READY=1"); // a service without options has nothing to do, which is no failure
        printUsage();
    }
    installSignalHandlers();
    KAV::Logger::setPrintLevel(RunSettings{}.logLevel, false);
    RunSettings settings = parseCommandLine(argc, argv);
    setUpLogger(settings);
    if (settings.daemonize)
        daemonizeOrExit(argv[0]);

    const std::unique_ptr<StopThread> stopper(KAV::startWorker<StopThread>()); // before the log can hold main
    KAV_LOG(INFO, "Starting executable: %s\n", argv[0]);
    const bool anyStarted = runConsumers(settings, manager, stopper.get());
    wipe_string(settings.serverPassword);
    wipe_string(settings.clientPassword);
    KAV_LOG(INFO, "execution complete\n");
    // When nothing that is wanted could be started, a supervisor can try again.
    return settings.wantsConsumer() && !anyStarted ? EXIT_FAILURE : EXIT_SUCCESS;
}
