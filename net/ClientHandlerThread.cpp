#include "net/ClientHandlerThread.h"

#include "net/handshake.h"
#include "nmea/nmeaDataSubject.h"
#include "support/Logger.h"

#include <cerrno>
#include <sys/socket.h>

namespace {

/// True when a later send on the same connection may succeed.
bool meansTryLater(int error) { return error == EINTR || error == EAGAIN; }

} // namespace

ClientHandlerThread::ClientHandlerThread(KAV::Descriptor _socketDescriptor, const std::string &_password,
                                         std::uint16_t _maxLoginAttempts)
    : Observer("navtwine client-handler-thread for socket descriptor: " + std::to_string(_socketDescriptor.get())),
      subject(nmeaDataSubject::getInstance()),
      socketDescriptor(std::move(_socketDescriptor)),
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
    const bool admitted = password.empty() || login();
    wipe_string(password);
    if (admitted) {
        subject->attach(this);
        deliverUntilExit([this](const std::string &batch) { return sendToClient(batch); });
    } else {
        KAV_LOG(ERROR, "failed to login.\n");
    }
    socketDescriptor.reset();
}

bool ClientHandlerThread::login()
{
    for (unsigned int failed = 0; maxLoginAttempts == 0 || failed < maxLoginAttempts; ++failed) {
        if (!handshake::sendLine(socketDescriptor.get(), "PASSWORD\r\n")) {
            KAV_LOG_ERRNO("send() of [PASSWORD_PROMPT] failed with error code: %d : %s\n");
            return false;
        }
        handshake::Line answer;
        if (!answer.receive(socketDescriptor.get())) {
            KAV_LOG(ERROR, "read_line_from_socket() failed or timed out\n");
            return false;
        }
        if (answer.is(password)) {
            if (handshake::sendLine(socketDescriptor.get(), "OK\r\n")) {
                KAV_LOG(INFO, "successfully logged in!\n");
                return true;
            }
            KAV_LOG_ERRNO("send() of [PASSWORD_OK] failed with error code: %d : %s\n");
        } else if (!handshake::sendLine(socketDescriptor.get(), "ERROR\r\n")) {
            KAV_LOG_ERRNO("send() of [PASSWORD_WRONG] failed with error code: %d : %s\n");
        }
    }
    return false;
}

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
