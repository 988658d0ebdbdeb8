#include "nmea/kavGPSGetNMEAStrings.h"

#include "nmea/gpspipeProcess.h"
#include "support/Logger.h"
#include "support/ifMemoryAllows.h"

#include <array>
#include <cstdio>
#include <memory>

namespace {

constexpr int endOfOutput = 0;
constexpr int noLine = 32;

struct ClosePipe {
    void operator()(std::FILE *stream) const { ::pclose(stream); }
};

} // namespace

int kavGPSGetNMEAStrings(int timestamp, LineCallback callback, int interval, const std::string *decoration)
{
    std::array<char, 128> command{};
    std::snprintf(command.data(), command.size(), "gpspipe %s-r", timestamp != 0 ? "-t " : "");
    const std::unique_ptr<std::FILE, ClosePipe> stream(startGpspipe(command.data()));
    if (!stream) {
        KAV_LOG(ERROR, "kavGPSGetNMEAStrings(): failed to popen stream for reading output of command '%s'\n",
                command.data());
        return noLine;
    }

    std::array<char, 512> line;
    while (std::feof(stream.get()) == 0) {
        if (std::fgets(line.data(), static_cast<int>(line.size()), stream.get()) == nullptr) {
            // Interrupted: pclose would wait for a gpspipe that may never write again.
            if (std::feof(stream.get()) == 0)
                endGpspipe();
            return noLine;
        }
        static_cast<void>(KAV::ifMemoryAllows([&] { callback(line.data(), interval, decoration); }));
    }
    return endOfOutput;
}
