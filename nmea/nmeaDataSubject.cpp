#include "nmea/nmeaDataSubject.h"

#include "nmea/Observer.h"
#include "nmea/Pulse.h"
#include "support/Logger.h"
#include "support/Text.h"

#include <vector>

namespace {

/// Bytes, some 3,000 sentences; a regular group has nine at most.
constexpr std::size_t longestGroup = 256UL * 1024;

} // namespace

nmeaDataSubject *nmeaDataSubject::instance = nullptr;
constinit std::mutex nmeaDataSubject::instanceMutex;

nmeaDataSubject::nmeaDataSubject() { observersLock = new KAV::Lock; }

nmeaDataSubject::~nmeaDataSubject() = default;

nmeaDataSubject *nmeaDataSubject::getInstance()
{
    const std::lock_guard creation(instanceMutex);
    if (instance == nullptr)
        instance = new nmeaDataSubject;
    return instance;
}

void nmeaDataSubject::attach(Observer *observer)
{
    const KAV::Hold hold(*observersLock);
    observers.push_back(observer);
}

void nmeaDataSubject::detach(Observer *observer)
{
    const KAV::Hold hold(*observersLock);
    observers.remove(observer);
}

void nmeaDataSubject::notify(const std::string &message)
{
    bool isAnybodyThere = false;
    {
        const KAV::Hold hold(*observersLock);
        for (Observer *const observer : observers)
            observer->update(message);
        isAnybodyThere = !observers.empty();
    }
    if (Pulse *const running = pulse; running != nullptr && isAnybodyThere)
        running->messageQueued();
}

bool nmeaDataSubject::collectGSV(const std::string &sentence, std::string &group)
{
    if (gsvBuffer.size() + sentence.size() > longestGroup) {
        KAV_LOG(ERROR, "nmeaDataSubject::collectGSV() : no GSV group was completed within %u bytes: dropped\n",
                static_cast<unsigned int>(longestGroup));
        std::string().swap(gsvBuffer); // an assignment would keep the memory
    }
    const std::vector<std::string> fields = KAV::Text::split(sentence, ',', 0);
    gsvBuffer += sentence;
    group.clear();
    if (fields.size() < 4 || fields[1] != fields[2])
        return false;
    group.swap(gsvBuffer);
    return true;
}
