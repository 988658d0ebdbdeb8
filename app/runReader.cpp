#include "app/runReader.h"

#include "nmea/gpspipe.h"
#include "nmea/handleNMEAString.h"
#include "support/exitRequested.h"
#include "support/guards.h"

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
        // A run that failed for lack of memory is retried like any other.
        static_cast<void>(KAV::ifMemoryAllows([&] { runReader(settings); }));
        ::sleep(1);
    }
}
