// SPDX-FileCopyrightText: the tcpinputplugin2 authors
// SPDX-License-Identifier: MIT

#include "tcpinput/receive/offerpace.h"

OfferPace::~OfferPace()
{
    if (list)
        list->remove(*this);
}

void OfferPace::wait(qint64 now)
{
    if (!list)
        return;
    waiting = true;
    list->add(*this, std::chrono::milliseconds(latest + OfferIntervalMs + 1 - now));
}

void OfferPace::waitIsOver()
{
    if (!waiting)
        return;
    const qint64 now = Clock::now();
    if (!isOfferDue(now)) // there was an offer meanwhile, and another read
        return wait(now);
    waiting = false;
    offerer.offerWaiting(now);
}
