#include "app/ReaderStopThread.h"

#include "nmea/gpspipeProcess.h"
#include "support/exitRequested.h"

#include <csignal>

namespace {

constexpr unsigned int step = 500; ///< milliseconds

} // namespace

ReaderStopThread::ReaderStopThread() : KAV::Thread("navtwine reader-stop-thread", true)
{
    KAV::Thread::start();
}

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
    for (int signal = SIGTERM;; signal = SIGKILL) {
        signalGpspipe(signal);
        KAV::Thread::sleep(step);
    }
}
