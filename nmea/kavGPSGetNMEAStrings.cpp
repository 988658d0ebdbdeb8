#include "nmea/kavGPSGetNMEAStrings.h"

#include "nmea/gpspipeProcess.h"
#include "support/Logger.h"

#include <array>
#include <cstdio>

namespace {

constexpr int endOfOutput = 0;
constexpr int noLine = 32;

} // namespace

int kavGPSGetNMEAStrings(int timestamp, LineCallback callback, int interval, const std::string *decoration)
{
    std::array<char, 128> command{};
    std::snprintf(command.data(), command.size(), "gpspipe %s-r", timestamp != 0 ? "-t " : "");
    std::FILE *const stream = startGpspipe(command.data());
    if (stream == nullptr) {
        KAV_LOG(ERROR, "kavGPSGetNMEAStrings(): failed to popen stream for reading output of command '%s'\n",
                command.data());
        return noLine;
    }

    std::array<char, 512> line;
    while (std::feof(stream) == 0) {
        if (std::fgets(line.data(), static_cast<int>(line.size()), stream) == nullptr) {
            // Interrupted: pclose would wait for a gpspipe that may never write again.
            if (std::feof(stream) == 0)
                endGpspipe();
            ::pclose(stream);
            return noLine;
        }
        callback(line.data(), interval, decoration);
    }
    ::pclose(stream);
    return endOfOutput;
}
