#include "app/StopThread.h"

#include "nmea/Pulse.h"
#include "nmea/gpspipe.h"
#include "nmea/statistics.h"
#include "serial/SerialThread.h"
#include "support/exitRequested.h"

#include <poll.h>

namespace {

using namespace std::chrono_literals;

constexpr int patience = 5; ///< seconds before the process is ended by force

} // namespace

StopThread::StopThread() : KAV::Thread("navtwine stop-thread", true) { KAV::Thread::start(); }

StopThread::~StopThread()
{
    mainFinished.send();
    wakeExitWaiters();
    KAV::Thread::wait();
}

void StopThread::execute()
{
    awaitExit();
    wakeConsumers();
    statistics.changes.send();
    for (int passed = 0; passed < patience; ++passed) {
        if (exitRequested != 0)
            endGpspipe();
        if (isMainFinished(1s))
            return;
    }
    if (SerialThread *const line = serial)
        line->endOutput();
    endProcess(0);
}

/// Blocks until an exit is requested or main has come to its end.
void StopThread::awaitExit() const
{
    pollfd waiting{exitEvent(), POLLIN, 0};
    while (exitRequested == 0 && !isMainFinished(0s)) {
        if (waiting.fd < 0 || ::poll(&waiting, 1, -1) < 0)
            KAV::Thread::sleep(1000);
    }
}

/// Waits for that for at most `longest`.
bool StopThread::isMainFinished(std::chrono::seconds longest) const
{
    return mainFinished.await(0, KAV::Broadcast::Clock::now() + longest);
}
