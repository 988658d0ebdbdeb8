#include "serial/SerialThread.h"

#include "nmea/gpspipeProcess.h"
#include "nmea/nmeaDataSubject.h"
#include "serial/lineSettings.h"
#include "serial/write_all.h"
#include "support/Descriptor.h"
#include "support/Logger.h"
#include "support/ifMemoryAllows.h"

#include <cerrno>
#include <cstring>
#include <fcntl.h>
#include <linux/serial.h>
#include <mutex>
#include <sys/ioctl.h>

namespace {

/// The consumer whose body runs, null when there is none: the way to it for `endOutput`, as the library owns it.
constinit SerialThread *running = nullptr;
constinit std::mutex runningLock;

/// Makes a consumer known as `running` for the length of a scope.
class RunningScope {
public:
    explicit RunningScope(SerialThread *body) { set(body); }
    RunningScope(const RunningScope &) = delete;
    RunningScope &operator=(const RunningScope &) = delete;
    ~RunningScope() { set(nullptr); }

private:
    static void set(SerialThread *body)
    {
        const std::lock_guard hold(runningLock);
        running = body;
    }
};

/// Cancels the running consumer. False when there is none, so that its port is closed.
bool cancelRunning()
{
    const std::lock_guard hold(runningLock);
    if (running != nullptr)
        running->cancel();
    return running != nullptr;
}

/// The open port. It is emptied before it is closed: the driver of a UART waits up to 30 s in close(2), or in the end
/// of the process, for what a held or slow line has not taken (closing_wait, setserial(8)).
class Port {
public:
    explicit Port(int opened) : descriptor(opened) {}
    Port(const Port &) = delete;
    Port &operator=(const Port &) = delete;
    ~Port() { static_cast<void>(::tcflush(descriptor.get(), TCOFLUSH)); }
    [[nodiscard]] int get() const { return descriptor.get(); }

private:
    const KAV::Descriptor descriptor;
};

void writeBatch(int port, const std::string &batch)
{
    KAV_LOG(DEBUG, "serial:%s", batch.c_str());
    if (write_all(port, batch.data(), batch.size()) < 0) {
        KAV_LOG(ERROR, "serial write() of [NMEA STRING DATA] failed : error code = %d : %s\n", errno,
                std::strerror(errno));
    }
}

} // namespace

SerialThread::SerialThread(const std::string &_devicePath, speed_t _speed, std::int16_t _charSize, std::int16_t _parity,
                           std::int16_t _stopBits, tcflag_t _hwFlow, bool _rs485)
    : Observer("navtwine main serial-thread"),
      subject(nmeaDataSubject::getInstance()),
      devicePath(_devicePath),
      speed(_speed),
      parity(_parity),
      stopBits(_stopBits),
      charSize(_charSize),
      hwFlow(_hwFlow),
      rs485(_rs485)
{
    queueLock = new KAV::Lock;
    KAV::Thread::start();
}

SerialThread::~SerialThread()
{
    KAV_LOG(INFO, "Serial stop");
    subject->detach(this);
    if (isAlive())
        KAV::Thread::stop();
}

void SerialThread::execute()
{
    const RunningScope known(this); // until the port is closed
    const Port port(openOrEndProcess());
    KAV_LOG(INFO, "serial port opened");
    while (!KAV::ifMemoryAllows([this] { subject->attach(this); }))
        KAV::Thread::sleep(1000);
    configureLine(port.get());
    chooseStandard(port.get());
    deliverUntilExit([&port](const std::string &batch) {
        writeBatch(port.get(), batch);
        return true; // a line that fails may come back
    });
}

void SerialThread::endOutput()
{
    constexpr int rounds = 50; // bounded: a driver may hold the close in spite of all
    for (int round = 0; round < rounds && cancelRunning(); ++round)
        KAV::Thread::sleep(20);
}

int SerialThread::openOrEndProcess() const
{
    const int port = ::open(devicePath.c_str(), O_RDWR | O_NOCTTY | O_CLOEXEC);
    if (port >= 0)
        return port;
    KAV_LOG(ERROR, "failed to open %s: errno: %d", devicePath.c_str(), errno);
    exitWithoutGpspipe(1);
}

void SerialThread::configureLine(int port) const
{
    // Best effort throughout: an old driver may refuse some of it, and the port still works.
    termios line{};
    static_cast<void>(::tcgetattr(port, &line));
    applyLineSettings(line, {speed, charSize, parity, stopBits, hwFlow});
    static_cast<void>(::tcsetattr(port, TCSANOW, &line));
    static_cast<void>(::tcflush(port, TCIOFLUSH));
}

void SerialThread::chooseStandard(int port) const
{
    serial_rs485 settings{};
    settings.flags = SER_RS485_RTS_ON_SEND;
    if (rs485) {
        KAV_LOG(INFO, "RS485 mode");
        settings.flags |= SER_RS485_ENABLED;
    } else {
        KAV_LOG(INFO, "RS232 mode");
    }
    if (::ioctl(port, TIOCSRS485, &settings) < 0)
        KAV_LOG(ERROR, "RS485 configurating error. errno:%i - %s", errno, std::strerror(errno));
}
