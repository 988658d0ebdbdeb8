#include "app/StopThread.h"

#include "nmea/gpspipe.h"
#include "nmea/nmeaDataSubject.h"
#include "serial/SerialThread.h"
#include "support/exitRequested.h"

namespace {

constexpr unsigned int step = 1000; ///< milliseconds
constexpr int patience = 5;         ///< steps before the process is ended by force

} // namespace

StopThread::StopThread() : KAV::Thread("navtwine stop-thread", true) { KAV::Thread::start(); }

StopThread::~StopThread()
{
    if (isAlive())
        KAV::Thread::stop();
}

void StopThread::execute()
{
    awaitExit();
    nmeaDataSubject::getInstance()->wakeAll();
    for (int passed = 0; passed < patience; ++passed) {
        endGpspipe();
        KAV::Thread::sleep(step);
    }
    SerialThread::endOutput();
    endProcess(0);
}
