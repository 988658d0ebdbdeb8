#include "app/ReaderStopThread.h"

#include "nmea/gpspipeProcess.h"
#include "support/exitRequested.h"

namespace {

constexpr unsigned int step = 500; ///< milliseconds

} // namespace

ReaderStopThread::ReaderStopThread() : KAV::Thread("navtwine reader-stop-thread", true) { KAV::Thread::start(); }

ReaderStopThread::~ReaderStopThread()
{
    if (isAlive())
        KAV::Thread::stop();
}

void ReaderStopThread::execute()
{
    while (exitRequested == 0)
        KAV::Thread::sleep(step);
    // Until main, back from the reader, destroys this object.
    while (true) {
        endGpspipe();
        KAV::Thread::sleep(step);
    }
}
