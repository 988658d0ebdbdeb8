#include "net/ServerThread.h"

#include "net/Arrivals.h"
#include "net/ClientHandlerThread.h"
#include "net/socketOptions.h"
#include "support/Logger.h"
#include "support/exitRequested.h"
#include "support/startWorker.h"

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
    const Descriptor listener = listenOnPort();
    if (listener.isOpen() && exitRequested == 0)
        serve(listener.get());
}

Descriptor ServerThread::listenOnPort() const
{
    // Not blocking: a client that gives up between the wait and `accept` must not hold the server in it.
    Descriptor listener(::socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC | SOCK_NONBLOCK, 0));
    if (!listener.isOpen()) {
        KAV_LOG(ERROR, "socket() failed returning invalid descriptor: %d\n", listener.get());
        return listener;
    }
    limitSendBuffer(listener.get()); // before it listens, so that the first connection inherits it, too
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

void ServerThread::serve(int listener) const
{
    Arrivals arrivals(listener);
    do {
        KAV_LOG(INFO, "waiting for client connections...\n");
        Descriptor connection = arrivals.next();
        if (connection.isOpen())
            handOver(std::move(connection));
    } while (exitRequested == 0);
}

void ServerThread::handOver(Descriptor connection) const
{
    if (KAV::startWorker<ClientHandlerThread>(connection.get(), password, maxLoginAttempts) != nullptr)
        static_cast<void>(connection.release()); // the handler's now; it may have closed it already
}
