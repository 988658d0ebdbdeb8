#include "app/StatusThread.h"

#include "support/Logger.h"
#include "support/exitRequested.h"
#include "support/guards.h"

#include <algorithm>
#include <cstddef>
#include <cstdlib>
#include <sys/socket.h>
#include <sys/un.h>

namespace {

using enum SentenceType;

using TypeRow = std::pair<SentenceType, const char *>;

/// In the order of the usage text.
constexpr std::array<TypeRow, sentenceTypeCount> typeRows{
    {{GGA, "gga"}, {GSA, "gsa"}, {GSV, "gsv"}, {GLL, "gll"}, {RMC, "rmc"}, {VTG, "vtg"}, {ZDA, "zda"}, {GBS, "gbs"}}};
static_assert(typeRows.back().second != nullptr, "every type has its name");

} // namespace

KAV::Descriptor connectToServiceManager()
{
    const char *const path = std::getenv("NOTIFY_SOCKET");
    if (path == nullptr)
        return {};
    sockaddr_un address{};
    address.sun_family = AF_UNIX;
    const std::size_t size = std::min(std::strlen(path), sizeof address.sun_path);
    std::copy_n(path, size, address.sun_path);
    if (path[0] == '@') // in the abstract namespace (unix(7)), where names begin with a NUL
        address.sun_path[0] = '\0';
    ::unsetenv("NOTIFY_SOCKET");
    KAV::Descriptor manager(::socket(AF_UNIX, SOCK_DGRAM | SOCK_CLOEXEC, 0));
    const auto length = static_cast<socklen_t>(offsetof(sockaddr_un, sun_path) + size);
    if (::connect(manager.get(), reinterpret_cast<const sockaddr *>(&address), length) != 0)
        manager.reset();
    return manager;
}

bool notifyServiceManager(const KAV::Descriptor &manager, const std::string &assignments)
{
    return ::send(manager.get(), assignments.data(), assignments.size(), MSG_DONTWAIT) >= 0;
}

StatusThread::StatusThread(const RunSettings &_settings, const KAV::Descriptor &_manager)
    : KAV::Thread("navtwine status", true),
      settings(_settings),
      manager(_manager)
{
    KAV::Thread::start();
}

StatusThread::~StatusThread()
{
    finished = true;
    statistics.changes.send();
    KAV::Thread::wait();
}

void StatusThread::execute()
{
    const std::chrono::seconds logInterval{settings.statusInterval};
    auto nextLog = logInterval.count() > 0 ? Clock::now() + logInterval : KAV::Broadcast::never;
    auto nextNotify = manager.isOpen() ? Clock::now() : KAV::Broadcast::never;
    for (;;) {
        const std::uint32_t seen = statistics.changes.generation(); // first: no later change is missed
        if (Clock::now() >= nextNotify) {
            notifyManager();
            nextNotify = Clock::now() + std::chrono::seconds{10};
        }
        if (finished || exitRequested != 0)
            break;
        if (statistics.changes.await(seen, std::min(nextLog, nextNotify)) && manager.isOpen())
            nextNotify = Clock::now();
        if (Clock::now() >= nextLog) {
            static_cast<void>(KAV::ifMemoryAllows([this] { logReport(); })); // otherwise it is lost
            nextLog = Clock::now() + logInterval; // a log that held this up is not made up for
        }
    }
    notifyServiceManager(manager, "STOPPING=1");
}

StatusThread::Counts::Counts()
    : time(Clock::now()),
      lines(statistics.linesRead),
      lost{statistics.server.lost, statistics.uplink.lost, statistics.serial.lost}
{
    std::copy(statistics.passed.begin(), statistics.passed.end(), passed.begin());
}

/// "10 s: 120 lines read; passed gga 10; server: 3 clients, 0 lost", counted since `last`. `isError`: nothing was read,
/// something was lost, or a consumer does not work.
std::string StatusThread::report(Counts &last, bool &isError) const
{
    const Counts now;
    const auto seconds = std::chrono::round<std::chrono::seconds>(now.time - last.time).count();
    std::string text = std::to_string(seconds) + " s: " + std::to_string(now.lines - last.lines) +
                       " lines read; passed" + typesPassed(now, last);
    isError = now.lines == last.lines;

    const auto add = [&](std::size_t index, const ConsumerStatistics &consumer, const std::string &works,
                         const std::string &fails) {
        const std::uint32_t lost = now.lost[index] - last.lost[index];
        const bool isWorking = consumer.state == ConsumerStatistics::WORKS;
        text += "; " + (isWorking ? works : fails) + ", " + std::to_string(lost) + " lost";
        isError = isError || lost > 0 || !isWorking;
    };
    const std::uint32_t clients = statistics.clients;
    const std::string served = "server: " + std::to_string(clients) + (clients == 1 ? " client" : " clients");
    if (settings.serverEnabled)
        add(0, statistics.server, served, "server: not listening");
    if (settings.clientEnabled)
        add(1, statistics.uplink, "uplink: connected", "uplink: not connected");
    if (!settings.serialPort.empty())
        add(2, statistics.serial, "serial: open", "serial: not open");
    last = now;
    return text;
}

/// " gga 10, rmc 9"; the types that are on.
std::string StatusThread::typesPassed(const Counts &now, const Counts &last)
{
    std::string text;
    for (const auto &[type, option] : typeRows) {
        const auto index = static_cast<std::size_t>(type);
        if (!filterOf(type).enabled)
            continue;
        text.append(text.empty() ? " " : ", ").append(option).append(" ");
        text += std::to_string(now.passed[index] - last.passed[index]);
    }
    return text;
}

void StatusThread::logReport()
{
    bool isError = false;
    const std::string line = report(logged, isError);
    if (isError)
        KAV_LOG(ERROR, "status: %s\n", line.c_str());
    else
        KAV_LOG(INFO, "status: %s\n", line.c_str());
}

void StatusThread::notifyManager()
{
    const bool isServerSetUp = !settings.serverEnabled || statistics.server.state != ConsumerStatistics::STARTING;
    isReady = isReady || (isServerSetUp && notifyServiceManager(manager, "READY=1"));
    bool isError = false;
    static_cast<void>(
        KAV::ifMemoryAllows([&] { notifyServiceManager(manager, "STATUS=" + report(notified, isError)); }));
}
