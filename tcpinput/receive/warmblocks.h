// SPDX-FileCopyrightText: the tcpinputplugin2 authors
// SPDX-License-Identifier: MIT

#pragma once

#include "tcpinput/workers/locks.h"

#include <QtCore/QBasicTimer>
#include <QtCore/QByteArray>
#include <QtCore/QObject>

#include <vector>

/*!
    Large blocks of memory that the connections of one thread use one after the other, while they
    are in the processor's cache. A new one costs more than all that is done with its bytes: the
    kernel clears and maps each of its pages.

    A block comes back while a host may still have copies of it. It is used again when nobody else
    has it. What nobody has used for a second or two is freed.

    Thread: take() its creator's; giveBack() any.
    Owner:  the task. It outlives the connections.
    Locks:  one of its own, held during each call, and no other below it.
*/
class WarmBlocks : public QObject
{
public:
    // Smaller ones are none of its business: malloc() keeps them warm.
    static constexpr qsizetype LeastBytes = 64 * 1024;
    // That it keeps, those included that others still have.
    static constexpr qsizetype MostBytes = 16 * 1024 * 1024;
    static constexpr int LookMs = 1000;

    // Empty, without headroom, nobody else's, with a capacity of at least that and at most about
    // one and a half times as much. capacity: LeastBytes or more.
    QByteArray take(qsizetype capacity);

    // block: anything.
    void giveBack(QByteArray block);

    // Frees what nobody has used since the last look; the timer does it.
    void look();

    // Of the blocks that it keeps.
    qsizetype bytes() const;

protected:
    void timerEvent(QTimerEvent *event) override;

private:
    struct Block
    {
        QByteArray bytes;
        qsizetype capacity;
        quint64 given; // how many looks there were before
    };

    QBasicTimer timer;
    mutable Mutex mutex;
    std::vector<Block> all GUARDED_BY(mutex); // the latest at the end
    qsizetype size GUARDED_BY(mutex) = 0; // of all
    quint64 looks GUARDED_BY(mutex) = 0;
    quint64 latestTake GUARDED_BY(mutex) = 0; // how many looks there were before
    bool looking GUARDED_BY(mutex) = false; // the timer runs
};
