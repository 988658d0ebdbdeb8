#include "app/StopThread.h"

#include "nmea/gpspipe.h"
#include "nmea/nmeaDataSubject.h"
#include "serial/SerialThread.h"
#include "support/exitRequested.h"

#include <chrono>

namespace {

constexpr std::chrono::seconds step{1};
constexpr int patience = 5; ///< steps before the process is ended by force

} // namespace

StopThread::StopThread() : KAV::Thread("navtwine stop-thread", true) { KAV::Thread::start(); }

StopThread::~StopThread()
{
    finished.notify();
    KAV::Thread::wait();
}

void StopThread::execute()
{
    awaitExit();
    nmeaDataSubject::getInstance()->wakeAll();
    for (int passed = 0; passed < patience; ++passed) {
        endGpspipe();
        if (finished.waitUntil(std::chrono::steady_clock::now() + step))
            return;
    }
    SerialThread::endOutput();
    endProcess(0);
}
