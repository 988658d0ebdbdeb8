#include "net/ClientHandlerThread.h"

#include "net/handshake.h"
#include "nmea/nmeaDataSubject.h"
#include "nmea/statistics.h"
#include "support/Logger.h"

#include <arpa/inet.h>
#include <array>
#include <cerrno>
#include <netinet/in.h>
#include <poll.h>
#include <sys/socket.h>

namespace {

/// "192.0.2.4 port 51234"; zeros for a client that has left already.
std::string peerOf(int connection)
{
    sockaddr_in peer{};
    socklen_t size = sizeof peer;
    std::array<char, INET_ADDRSTRLEN> address{};
    ::getpeername(connection, reinterpret_cast<sockaddr *>(&peer), &size);
    ::inet_ntop(AF_INET, &peer.sin_addr, address.data(), address.size());
    return address.data() + (" port " + std::to_string(ntohs(peer.sin_port)));
}

/// True when a later send on the same connection may succeed.
bool meansTryLater(int error) { return error == EINTR || error == EAGAIN; }

} // namespace

ClientHandlerThread::ClientHandlerThread(KAV::Descriptor _socketDescriptor, const std::string &_password,
                                         std::uint16_t _maxLoginAttempts)
    : Observer("navtwine client-handler-thread for socket descriptor: " + std::to_string(_socketDescriptor.get()),
               statistics.server),
      subject(nmeaDataSubject::getInstance()),
      socketDescriptor(std::move(_socketDescriptor)),
      maxLoginAttempts(_maxLoginAttempts),
      password(_password)
{
    queueLock = new KAV::Lock;
    deleteAtEnd();
    KAV_LOG(INFO, "A remote client is trying to connect.\n");
    KAV::Thread::start();
}

ClientHandlerThread::~ClientHandlerThread()
{
    KAV_LOG(INFO, "The remote client is disconnected.\n");
    subject->detach(this);
    if (isAlive())
        KAV::Thread::stop();
}

void ClientHandlerThread::execute()
{
    const std::string peer = statistics.namesClients ? peerOf(socketDescriptor.get()) : "";
    if (!peer.empty())
        KAV_LOG(INFO, "client %d: %s\n", socketDescriptor.get(), peer.c_str());
    const bool admitted = password.empty() || login();
    wipe_string(password);
    if (admitted) {
        subject->attach(this);
        ++statistics.clients;
        deliverUntilExit([this](const std::string &batch) { return sendToClient(batch); },
                         [this] { return hasClientLeft(); });
        --statistics.clients;
    } else {
        KAV_LOG(ERROR, "failed to login.\n");
        if (!peer.empty())
            KAV_LOG(ERROR, "client %d: %s: login failed\n", socketDescriptor.get(), peer.c_str());
    }
    socketDescriptor.reset();
}

bool ClientHandlerThread::login() { return handshake::admit(socketDescriptor.get(), password, maxLoginAttempts); }

/// False when the client is unreachable. Data that could not be sent is dropped in any case.
bool ClientHandlerThread::sendToClient(const std::string &data) const
{
    KAV_LOG(DEBUG, "ClientHandlerThread:nmeaSend:%s", data.c_str());
    if (::send(socketDescriptor.get(), data.data(), data.size(), 0) >= 0)
        return true;
    KAV_LOG_ERRNO("send() of [NMEA STRING DATA] failed for client: %d : error code = %d : %s\n",
                  socketDescriptor.get());
    if (meansTryLater(errno))
        return true;
    KAV_LOG(INFO, "client is unreachable - disconnecting socket\n");
    return false;
}

/// True when the client has closed its side, or both. One that has closed its side may still read.
bool ClientHandlerThread::hasClientLeft() const
{
    pollfd connection{socketDescriptor.get(), POLLRDHUP, 0};
    if (::poll(&connection, 1, 0) <= 0)
        return false;
    KAV_LOG(INFO, "client is unreachable - disconnecting socket\n");
    return true;
}
