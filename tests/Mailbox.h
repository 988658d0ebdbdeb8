#pragma once

#include "nmea/Observer.h"
#include "nmea/nmeaDataSubject.h"
#include "nmea/statistics.h"

/// An observer whose thread never starts: only its mailbox is looked at.
struct Mailbox : Observer {
    Mailbox() : Observer("navtwine mailbox", statistics.server)
    {
        queueLock = new KAV::Lock;
        nmeaDataSubject::getInstance()->attach(this);
    }
    ~Mailbox() override { nmeaDataSubject::getInstance()->detach(this); }
    void execute() override {}
};
