#include "serial/SerialThread.h"

#include "nmea/Pulse.h"
#include "nmea/gpspipe.h"
#include "nmea/nmeaDataSubject.h"
#include "nmea/statistics.h"
#include "serial/write_all.h"
#include "support/Logger.h"
#include "support/guards.h"

#include <algorithm>
#include <array>
#include <cerrno>
#include <cstring>
#include <fcntl.h>
#include <linux/serial.h>
#include <sys/ioctl.h>
#include <utility>

namespace {

/// Messages that a line carries in two seconds, of 80 bytes with 10 bits each: with --immediate no more are kept, so
/// that what a slow line sends is not old.
std::uint32_t mailboxFor(speed_t speed)
{
    using Row = std::pair<speed_t, std::uint32_t>;
    constexpr std::array slow{Row{B4800, 4800}, Row{B9600, 9600}, Row{B19200, 19200}};
    for (const auto &[code, baud] : slow) {
        if (code == speed)
            return std::max(baud * 2 / (80 * 10), Observer::defaultMailbox);
    }
    return Observer::immediateMailbox;
}

/// The open port. Discards its pending output before closing: otherwise close(2), or the end of the process, waits up
/// to 30 s for a line that is slow or held up by flow control (closing_wait, setserial(8)).
class Port {
public:
    explicit Port(KAV::Descriptor opened) : descriptor(std::move(opened)) {}
    Port(const Port &) = delete;
    Port &operator=(const Port &) = delete;
    ~Port()
    {
        const KAV::CancelShield shield; // ioctl(2) may be a cancellation point
        ::tcflush(descriptor.get(), TCOFLUSH);
    }
    [[nodiscard]] int get() const { return descriptor.get(); }

private:
    const KAV::Descriptor descriptor;
};

// A body is cancelled here. AddressSanitizer does not track that unwinding and would leave this frame poisoned.
[[gnu::no_sanitize_address]] void writeBatch(int port, const std::string &batch)
{
    KAV_LOG(DEBUG, "serial:%s", batch.c_str());
    const bool wasWritten = write_all(port, batch.data(), batch.size()) >= 0;
    if (!wasWritten)
        KAV_LOG_ERRNO("serial write() of [NMEA STRING DATA] failed : error code = %d : %s\n");
    statistics.setState(statistics.serial, wasWritten ? ConsumerStatistics::WORKS : ConsumerStatistics::FAILS);
    // On a slow line the newest messages go out next, and not what fills the driver's buffer of some seconds.
    if (pulse != nullptr)
        ::tcdrain(port);
}

} // namespace

SerialThread::SerialThread(const std::string &_devicePath, speed_t _speed, std::int16_t _charSize, std::int16_t _parity,
                           std::int16_t _stopBits, tcflag_t _hwFlow, bool _rs485)
    : Observer("navtwine main serial-thread", statistics.serial, mailboxFor(_speed)),
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
    const Port port(openOrEndProcess());
    KAV_LOG(INFO, "serial port opened");
    statistics.setState(statistics.serial, ConsumerStatistics::WORKS);
    while (!KAV::ifMemoryAllows([this] { subject->attach(this); }))
        KAV::Thread::sleep(1000);
    configureLine(port.get());
    setRs485Mode(port.get());
    deliverUntilExit([&port](const std::string &batch) {
        writeBatch(port.get(), batch);
        return true; // a failed line may recover
    });
}

void SerialThread::endOutput()
{
    constexpr int rounds = 50; // bounded: a driver may block in close even so
    for (int round = 0; round < rounds && isAlive(); ++round) {
        KAV::Thread::cancel();
        KAV::Thread::sleep(20);
    }
}

KAV::Descriptor SerialThread::openOrEndProcess() const
{
    KAV::Descriptor port(::open(devicePath.c_str(), O_RDWR | O_NOCTTY | O_CLOEXEC));
    if (port.isOpen())
        return port;
    KAV_LOG(ERROR, "failed to open %s: errno: %d", devicePath.c_str(), errno);
    endProcess(1);
}

void SerialThread::configureLine(int port) const
{
    // Best effort: an old driver may reject some settings, and the port still works. CLOCAL and CREAD stay unchanged,
    // and so does the speed if the platform does not support the requested one.
    termios line{};
    ::tcgetattr(port, &line);
    ::cfmakeraw(&line);
    ::cfsetspeed(&line, speed);
    constexpr tcflag_t replaced = CSIZE | PARENB | PARODD | CSTOPB | CRTSCTS;
    line.c_cflag = (line.c_cflag & ~replaced) | static_cast<tcflag_t>(charSize | parity | stopBits) | hwFlow;
    ::tcsetattr(port, TCSANOW, &line);
    ::tcflush(port, TCIOFLUSH);
}

void SerialThread::setRs485Mode(int port) const
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
        KAV_LOG_ERRNO("RS485 configurating error. errno:%i - %s");
}
