#include "net/ClientHandlerThread.h"

#include "net/handshake.h"
#include "nmea/nmeaDataSubject.h"
#include "support/Descriptor.h"
#include "support/Logger.h"
#include "support/wipe_string.h"

#include <cerrno>
#include <cstring>
#include <sys/socket.h>

ClientHandlerThread::ClientHandlerThread(int _socketDescriptor, const std::string &_password,
                                         std::uint16_t _maxLoginAttempts)
    : Observer("navtwine client-handler-thread for socket descriptor: " + std::to_string(_socketDescriptor)),
      subject(nmeaDataSubject::getInstance()),
      socketDescriptor(_socketDescriptor),
      maxLoginAttempts(_maxLoginAttempts),
      password(_password)
{
    queueLock = new KAV::Lock;
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
    const KAV::Descriptor connection(socketDescriptor);
    if (!password.empty()) {
        const bool loggedIn = login();
        wipe_string(password);
        if (!loggedIn) {
            KAV_LOG(ERROR, "failed to login.\n");
            return;
        }
    }
    subject->attach(this);
    deliverUntilExit([this](const std::string &batch) { return sendToClient(batch); });
}

bool ClientHandlerThread::login()
{
    for (unsigned int failed = 0; maxLoginAttempts == 0 || failed < maxLoginAttempts; ++failed) {
        if (!handshake::sendLine(socketDescriptor, "PASSWORD\r\n")) {
            KAV_LOG(ERROR, "send() of [PASSWORD_PROMPT] failed with error code: %d : %s\n", errno,
                    std::strerror(errno));
            return false;
        }
        handshake::Line answer;
        if (!answer.receive(socketDescriptor)) {
            KAV_LOG(ERROR, "read_line_from_socket() failed or timed out\n");
            return false;
        }
        if (answer.is(password)) {
            if (handshake::sendLine(socketDescriptor, "OK\r\n")) {
                KAV_LOG(INFO, "successfully logged in!\n");
                return true;
            }
            KAV_LOG(ERROR, "send() of [PASSWORD_OK] failed with error code: %d : %s\n", errno, std::strerror(errno));
        } else if (!handshake::sendLine(socketDescriptor, "ERROR\r\n")) {
            KAV_LOG(ERROR, "send() of [PASSWORD_WRONG] failed with error code: %d : %s\n", errno, std::strerror(errno));
        }
    }
    return false;
}

/// False when the client cannot be reached any more; what could not be sent is dropped either way.
bool ClientHandlerThread::sendToClient(const std::string &data) const
{
    KAV_LOG(DEBUG, "ClientHandlerThread:nmeaSend:%s", data.c_str());
    if (::send(socketDescriptor, data.data(), data.size(), 0) >= 0)
        return true;
    KAV_LOG(ERROR, "send() of [NMEA STRING DATA] failed for client: %d : error code = %d : %s\n", socketDescriptor,
            errno, std::strerror(errno));
    if (errno == EINTR || errno == EAGAIN)
        return true;
    KAV_LOG(INFO, "client is unreachable - disconnecting socket\n");
    return false;
}
