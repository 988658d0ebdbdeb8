#include "app/runReader.h"

#include "nmea/handleNMEAString.h"
#include "nmea/kavGPSGetNMEAStrings.h"
#include "support/exitRequested.h"
#include "support/ifMemoryAllows.h"

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
        static_cast<void>(KAV::ifMemoryAllows([&] { runReader(settings); })); // if not now, then a second later
        ::sleep(1);
    }
}
