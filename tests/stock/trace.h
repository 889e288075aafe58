// SPDX-FileCopyrightText: the tcpinputplugin2 authors
// SPDX-License-Identifier: MIT

#pragma once

#include "logtap.h"

#include <QtCore/QHash>
#include <QtCore/QList>
#include <QtCore/QString>

struct TracedLine
{
    qint64 order = 0;
    Clock::time_point at;
    QString text; // without what differs from run to run
};

struct TracedOffer
{
    qint64 order = 0;
    Clock::time_point at; // with the host
    qsizetype begin = 0; // in the device's stream
    qsizetype length = 0;
    bool intact = true; // these are the bytes of that part of the stream
    QString record; // all that the record says beside them, by the names of a course
};

//! What was seen of one connection.
struct Trace
{
    Clock::time_point zero; // when its script began
    Clock::time_point created; // the client
    QList<Clock::time_point> messages; // when the device began to send each
    Clock::time_point end; // when device, or plugin, was told to end it
    qsizetype sent = 0;
    QList<TracedLine> lines;
    QList<TracedOffer> offers;
    QHash<qsizetype, Clock::time_point> discards; // the first that answers an offer, by its number
    qsizetype discarded = 0; // the most that the host can have consumed
    bool ended = false; // with a closing line, which says
    Clock::time_point endedAt;
    qsizetype received = 0;
    std::chrono::nanoseconds workerWaited{}; // in all, see timeHeldUp(): its client's thread
    std::chrono::nanoseconds deviceWaited{}; // and the device's
    std::chrono::milliseconds heldUp{}; // the longest that the machine can have held one up
    bool overdue = false; // it was still open when all had to be over
};
