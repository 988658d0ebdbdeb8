#pragma once

#include "app/RunSettings.h"
#include "nmea/statistics.h"
#include "support/Descriptor.h"
#include "support/Thread.h"

/// The service manager's socket, from NOTIFY_SOCKET (sd_notify(3)); not open without one. Takes the variable out of the
/// environment, so that gpspipe does not inherit it. Thread: main, before any other starts.
[[nodiscard]] KAV::Descriptor connectToServiceManager();

/// Sends assignments such as "READY=1". Never blocks; false when that failed. Any thread.
bool notifyServiceManager(const KAV::Descriptor &manager, const std::string &assignments);

/// Logs the status line (option --status) and tells the service manager what works. Exists only with one of them.
/// Owned by main, which creates it after the consumers.
class StatusThread : public KAV::Thread {
public:
    /// Starts the thread. Both arguments must live longer. Errors: as KAV::Thread::start.
    StatusThread(const RunSettings &_settings, const KAV::Descriptor &_manager);
    /// Ends the thread.
    ~StatusThread() override;

    void execute() override;

private:
    using Clock = KAV::Broadcast::Clock;

    /// `statistics` at one instant.
    struct Counts {
        Counts();

        Clock::time_point time;
        std::uint32_t lines;
        std::array<std::uint32_t, 3> lost;
        std::array<std::uint32_t, sentenceTypeCount> passed{};
    };

    [[nodiscard]] std::string report(Counts &last, bool &isError) const;
    [[nodiscard]] static std::string typesPassed(const Counts &now, const Counts &last);
    void logReport();
    void notifyManager();

    const RunSettings &settings;
    const KAV::Descriptor &manager;
    Counts logged;        ///< at the last line of the log
    Counts notified;      ///< when the service manager was last notified
    bool isReady = false; ///< the service manager was told so
    std::atomic<bool> finished{false};
};
