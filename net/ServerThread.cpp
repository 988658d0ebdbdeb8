#include "net/ServerThread.h"

#include "net/Arrivals.h"
#include "net/ClientHandlerThread.h"
#include "net/reserve.h"
#include "net/socketOptions.h"
#include "nmea/shortage.h"
#include "nmea/statistics.h"
#include "support/Logger.h"
#include "support/exitRequested.h"

#include <netinet/in.h>
#include <sys/socket.h>

using KAV::Descriptor;

namespace {

constexpr int backlog = 5;

bool bindToPort(int listener, std::uint16_t port)
{
    sockaddr_in address{};
    address.sin_family = AF_INET;
    address.sin_port = htons(port);
    address.sin_addr.s_addr = htonl(INADDR_ANY);
    return ::bind(listener, reinterpret_cast<const sockaddr *>(&address), sizeof address) == 0;
}

bool reuseAddress(int listener)
{
    const int on = 1;
    return ::setsockopt(listener, SOL_SOCKET, SO_REUSEADDR, &on, sizeof on) == 0;
}

} // namespace

ServerThread::ServerThread(std::uint16_t _port, const std::string &_password, std::uint16_t _maxLoginAttempts)
    : KAV::Thread("navtwine main-server-thread", true),
      port(_port),
      maxLoginAttempts(_maxLoginAttempts),
      password(_password)
{
    KAV::Thread::start();
}

ServerThread::~ServerThread()
{
    if (isAlive())
        KAV::Thread::stop();
}

void ServerThread::execute()
{
    Descriptor listener = listenOnPort();
    statistics.setState(statistics.server, listener.isOpen() ? ConsumerStatistics::WORKS : ConsumerStatistics::FAILS);
    if (listener.isOpen() && exitRequested == 0)
        serve(std::move(listener));
}

Descriptor ServerThread::listenOnPort() const
{
    // Non-blocking: if a client disconnects between poll and `accept`, the server must not block in accept.
    Descriptor listener(::socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC | SOCK_NONBLOCK, 0));
    if (!listener.isOpen()) {
        KAV_LOG(ERROR, "socket() failed returning invalid descriptor: %d\n", listener.get());
        return listener;
    }
    limitSendBuffer(listener.get()); // before listen(2): accepted connections inherit it
    disableNagle(listener.get());
    const char *failed = nullptr;
    if (!reuseAddress(listener.get()))
        failed = "setsockopt";
    else if (!bindToPort(listener.get(), port))
        failed = "bind";
    else if (::listen(listener.get(), backlog) != 0)
        failed = "listen";
    if (failed != nullptr) {
        KAV_LOG(ERROR, "%s() failed for socket descriptor: %d\n", failed, listener.get());
        listener.reset();
    }
    return listener;
}

void ServerThread::serve(Descriptor listener) const
{
    Arrivals arrivals(std::move(listener));
    do {
        KAV_LOG(INFO, "waiting for client connections...\n");
        Descriptor connection = arrivals.next();
        if (connection.isOpen())
            startHandler(std::move(connection));
    } while (exitRequested == 0);
}

/// Closes the connection when there is no thread for it.
void ServerThread::startHandler(Descriptor connection) const
{
    // The handler deletes itself.
    if (areTasksFree() &&
        KAV::startWorker<ClientHandlerThread>(std::move(connection), password, maxLoginAttempts) != nullptr)
        return;
    KAV_LOG(ERROR, "a client is refused: no memory, or no thread but those for gpspipe\n");
    reportShortage();
}
