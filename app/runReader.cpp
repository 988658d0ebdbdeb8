#include "app/runReader.h"

#include "app/ReaderStopThread.h"
#include "app/startWorker.h"
#include "nmea/handleNMEAString.h"
#include "nmea/kavGPSGetNMEAStrings.h"
#include "support/exitRequested.h"

#include <memory>
#include <unistd.h>

void runReaderUntilExit(const RunSettings &settings)
{
    const std::unique_ptr<ReaderStopThread> stopper(startWorker<ReaderStopThread>());
    while (exitRequested == 0) {
        const std::string decoration = settings.stationIdPrefix + settings.stationId;
        kavGPSGetNMEAStrings(settings.timestamp ? 1 : 0, handleNMEAString, settings.interval, &decoration);
        ::sleep(1);
    }
}
