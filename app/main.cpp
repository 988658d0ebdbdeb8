#include "app/Consumers.h"
#include "app/StopThread.h"
#include "app/commandLine.h"
#include "app/runReader.h"
#include "app/startUp.h"
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

    KAV_LOG(INFO, "Starting executable: %s\n", argv[0]);
    Consumers consumers = startConsumers(settings);
    const std::unique_ptr<StopThread> stopper(consumers.any ? KAV::startWorker<StopThread>() : nullptr);
    if (consumers.any)
        runReaderUntilExit(settings);
    endConsumers(consumers);

    wipe_string(settings.serverPassword);
    wipe_string(settings.clientPassword);
    KAV_LOG(INFO, "execution complete\n");
    return consumers.wanted && !consumers.any ? EXIT_FAILURE : EXIT_SUCCESS; // failure: a supervisor shall retry
}
