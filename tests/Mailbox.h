#pragma once

#include "nmea/Observer.h"
#include "nmea/nmeaDataSubject.h"

/// An observer whose thread never starts: only its mailbox is looked at.
struct Mailbox : Observer {
    Mailbox() : Observer("navtwine mailbox")
    {
        queueLock = new KAV::Lock;
        nmeaDataSubject::getInstance()->attach(this);
    }
    ~Mailbox() override { nmeaDataSubject::getInstance()->detach(this); }
    void execute() override {}
};
