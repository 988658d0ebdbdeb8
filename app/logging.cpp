#include "app/logging.h"

#include "support/Logger.h"

void setUpLogger(const RunSettings &settings)
{
    if (settings.logToStderr) {
        KAV::Logger::setup(KAV::Logger::PRINT_STDERR);
    } else if (!KAV::Logger::setup(KAV::Logger::PRINT_SYSLOG, "navtwine", 0, 0)) {
        KAV::Logger::setup(KAV::Logger::PRINT_CONSOLE);
        KAV::Logger::printfError("Unable to log to Syslog");
    }
    KAV::Logger::setPrintLevel(settings.logLevel, false);
}
