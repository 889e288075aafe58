// SPDX-FileCopyrightText: the tcpinputplugin2 authors
// SPDX-License-Identifier: MIT

#include "tcpinput/receive/intake.h"

#include "tcpinput/receive/clock.h"
#include "tcpinput/receive/transport.h"

#include <algorithm>
#include <limits>
#include <utility>

namespace {

constexpr std::chrono::seconds EndLookInterval{1};
constexpr qint64 Unlimited = std::numeric_limits<qint64>::max();

} // namespace

Intake::Intake(Reader &owner, QObject &context, Transport &from, PausedList &pausedList,
               std::shared_ptr<HeldBytes> heldBytes)
    : reader(owner),
      transport(from),
      list(pausedList),
      held(std::move(heldBytes))
{
    held->setReceiver(
            &context,
            {[&owner] { owner.offerWaiting(Clock::now()); }, [&owner] { owner.recordCameBack(); }});
    transport.setLimited(true);
}

Intake::~Intake()
{
    held->removeReceiver();
    held->receivedNothing();
    held->setPaused(false);
    list.remove(*this);
}

qsizetype Intake::room(qsizetype wanted)
{
    if (isOpen)
        return wanted;
    return isPaused() ? 0 : held->reserve(wanted);
}

qint64 Intake::roomLeft() const
{
    const qint64 most = held->total().limits.connectionBuffer;
    const qint64 ofConnection = most > 0 ? most - held->held() : Unlimited;
    return std::min(ofConnection, held->total().room(held->held()));
}

void Intake::settle()
{
    // It may have been paused before its bytes were counted, in an event loop within the read.
    if (isPaused() && mayResume())
        resume();
    if (!isPaused() && !isOpen && roomLeft() <= 0)
        pause();
}

bool Intake::mayResume() const
{
    const BufferBudget &total = held->total();
    if (total.room(held->held()) == 0)
        return false;
    const qint64 most = total.limits.connectionBuffer;
    if (most == 0)
        return true;
    const qint64 resumeAt = bufferIsFull ? most / 2 : std::max(most / 2, held->unconsumed());
    return held->held() <= resumeAt;
}

void Intake::pause()
{
    if (isPaused())
        return;
    const qint64 most = held->total().limits.connectionBuffer;
    bufferIsFull = most > 0 && held->unconsumed() >= most;
    consumedBefore = held->consumedInAll();
    consumedAt = std::chrono::steady_clock::now();
    nextEndLook = consumedAt + EndLookInterval;
    held->setPaused(true);
    transport.setPaused(true);
    list.add(*this);
}

// A socket of Qt's goes on by itself when it had bytes to decrypt.
void Intake::stayPaused()
{
    transport.setPaused(true);
}

void Intake::resume()
{
    list.remove(*this);
    held->setPaused(false);
    transport.setPaused(false);
}

void Intake::open()
{
    isOpen = true;
    transport.setLimited(false);
    if (isPaused())
        resume();
}

void Intake::look(Time now)
{
    if (mayResume())
        return resume();
    if (now >= nextEndLook) {
        nextEndLook = now + EndLookInterval;
        if (transport.peerHasEnded())
            return open();
    }
    if (const quint64 consumed = held->consumedInAll(); consumed != consumedBefore) {
        consumedBefore = consumed;
        consumedAt = now;
    }
    const std::chrono::seconds longest = held->total().limits.stalledTimeout;
    if (longest.count() > 0 && now - consumedAt >= longest)
        reader.endStalled(longest);
}
