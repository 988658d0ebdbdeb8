#include "app/runReader.h"

#include "nmea/handleNMEAString.h"
#include "nmea/kavGPSGetNMEAStrings.h"
#include "support/exitRequested.h"

#include <unistd.h>

namespace {

void runReader(const RunSettings &settings)
{
    const std::string decoration = settings.stationIdPrefix + settings.stationId;
    kavGPSGetNMEAStrings(settings.timestamp ? 1 : 0, handleNMEAString, settings.interval, &decoration);
}

} // namespace

void runReaderUntilExit(const RunSettings &settings)
{
    while (exitRequested == 0) {
        runReader(settings);
        ::sleep(1);
    }
}
