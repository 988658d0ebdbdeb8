#include "app/StopThread.h"

#include "nmea/gpspipeProcess.h"
#include "support/exitRequested.h"

namespace {

constexpr unsigned int step = 500; ///< milliseconds
constexpr int patience = 10;       ///< steps until the process is ended the hard way

} // namespace

StopThread::StopThread() : KAV::Thread("navtwine stop-thread", true) { KAV::Thread::start(); }

StopThread::~StopThread()
{
    if (isAlive())
        KAV::Thread::stop();
}

void StopThread::execute()
{
    while (exitRequested == 0)
        KAV::Thread::sleep(step);
    for (int passed = 0; passed < patience; ++passed) {
        endGpspipe();
        KAV::Thread::sleep(step);
    }
    exitWithoutGpspipe(0);
}
