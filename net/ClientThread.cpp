#include "net/ClientThread.h"

#include "net/handshake.h"
#include "net/socketOptions.h"
#include "nmea/nmeaDataSubject.h"
#include "nmea/statistics.h"
#include "support/Logger.h"
#include "support/exitRequested.h"
#include "support/guards.h"

#include <arpa/inet.h>
#include <array>
#include <cstring>
#include <netdb.h>
#include <sys/socket.h>

using KAV::Descriptor;

namespace {

constexpr char tcp = 't';
constexpr char udp = 'u';

/// Looks up the first IPv4 address of `host`. False, after an ERROR line, when there is none.
bool resolve(const std::string &host, in_addr &address)
{
    hostent entry{};
    hostent *found = nullptr;
    std::array<char, 1024> work;
    int error = 0;
    ::gethostbyname2_r(host.c_str(), AF_INET, &entry, work.data(), work.size(), &found, &error);
    if (found == nullptr) {
        KAV_LOG(ERROR, "connect_to_host() : gethostbyname2_r() failed with error code: %d : %s\n", error,
                ::hstrerror(error));
        return false;
    }
    std::memcpy(&address, found->h_addr_list[0], sizeof address);
    return true;
}

void logAddress(const in_addr &address)
{
    std::array<char, INET_ADDRSTRLEN> text{};
    ::inet_ntop(AF_INET, &address, text.data(), text.size());
    KAV_LOG(INFO, "connect_to_host() : remote server ip addr: %s", text.data());
}

} // namespace

ClientThread::ClientThread(const std::string &_remoteHost, std::uint16_t _port, char _protocol,
                           const std::string &_password)
    : Observer("navtwine main client-thread", statistics.uplink),
      retryDelay(30000),
      subject(nmeaDataSubject::getInstance()),
      protocol(_protocol),
      remoteHost(_remoteHost),
      password(_password),
      port(_port)
{
    queueLock = new KAV::Lock;
    KAV::Thread::start();
}

ClientThread::~ClientThread()
{
    KAV_LOG(INFO, "The client is disconnected from remote server\n");
    subject->detach(this);
    if (isAlive())
        KAV::Thread::stop();
}

void ClientThread::execute()
{
    while (exitRequested == 0) {
        if (!KAV::ifMemoryAllows([this] { runSession(); }))
            KAV_LOG(ERROR, "ClientThread::out of memory : retrying login in %u ms...\n", retryDelay);
        statistics.setState(statistics.uplink, ConsumerStatistics::FAILS);
        socketDescriptor.reset();
        KAV::Thread::sleep(retryDelay);
    }
}

void ClientThread::runSession()
{
    socketDescriptor = connect_to_host();
    if (!socketDescriptor.isOpen()) {
        KAV_LOG(ERROR, "connect_to_host() failed. (see error message above for reason) : retrying login in %u ms...\n",
                retryDelay);
        return;
    }
    if (protocol == tcp && !password.empty() && !authentificate()) {
        KAV_LOG(ERROR,
                "ClientThread::login to server failed. (see error message above for reason) : "
                "retrying login in %u ms...\n",
                retryDelay);
        return;
    }
    KAV_LOG(INFO, "ClientThread::This client has successful logged into remote server.\n");
    statistics.setState(statistics.uplink, ConsumerStatistics::WORKS);
    registerOnce();
    deliverUntilExit([this](const std::string &batch) { return sendToCollector(batch); });
}

void ClientThread::registerOnce()
{
    if (!registered)
        subject->attach(this);
    registered = true;
}

bool ClientThread::sendToCollector(const std::string &data) const
{
    KAV_LOG(DEBUG, "ClientThread::nmeaSend:%s", data.c_str());
    if (::send(socketDescriptor.get(), data.data(), data.size(), 0) >= 0)
        return true;
    KAV_LOG_ERRNO("send() of [NMEA STRING DATA] failed : error code = %d : %s\n");
    return false;
}

Descriptor ClientThread::connect_to_host() const
{
    sockaddr_in peer{};
    peer.sin_family = AF_INET;
    peer.sin_port = htons(port);
    if (!resolve(remoteHost, peer.sin_addr))
        return {};
    const int type = protocol == udp ? SOCK_DGRAM : SOCK_STREAM;
    Descriptor connection(::socket(AF_INET, type | SOCK_CLOEXEC, 0));
    if (!connection.isOpen()) {
        KAV_LOG_ERRNO("connect_to_host() : socket() failed with error code: %d : %s\n");
        return {};
    }
    if (type == SOCK_STREAM) {
        limitSendBuffer(connection.get());
        giveUpDeadPeer(connection.get());
        disableNagle(connection.get());
    }
    logAddress(peer.sin_addr);
    if (::connect(connection.get(), reinterpret_cast<const sockaddr *>(&peer), sizeof peer) != 0) {
        KAV_LOG_ERRNO("connect_to_host() : connect() failed with error code: %d : %s\n");
        return {};
    }
    KAV_LOG(INFO, "connect_to_host() : connect() succeeded with valid socket: %d\n", connection.get());
    return connection;
}

bool ClientThread::authentificate() const { return handshake::logIn(socketDescriptor.get(), password); }
