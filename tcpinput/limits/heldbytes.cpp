// SPDX-FileCopyrightText: the tcpinputplugin2 authors
// SPDX-License-Identifier: MIT

#include "tcpinput/limits/heldbytes.h"

#include <algorithm>
#include <utility>

void HeldBytes::setReceiver(QObject *object, Calls functions)
{
    const MutexLocker locker(mutex);
    receiver = object;
    calls = std::move(functions);
}

void HeldBytes::removeReceiver()
{
    const MutexLocker locker(mutex);
    receiver = nullptr;
}

qint64 HeldBytes::reserve(qint64 wanted)
{
    const qint64 most = budget->limits.connectionBuffer;
    const MutexLocker locker(mutex);
    const qint64 had = held() + reserved;
    const qint64 allowed = most > 0 ? std::clamp<qint64>(most - had, 0, wanted) : wanted;
    const qint64 bytes = budget->reserve(had, allowed);
    reserved += bytes;
    counted += bytes;
    return bytes;
}

void HeldBytes::receivedNothing()
{
    const MutexLocker locker(mutex);
    reserved = 0;
    settle();
}

void HeldBytes::received(qint64 bytes)
{
    const MutexLocker locker(mutex);
    reserved = 0;
    inBuffer += bytes;
    sinceLatest += bytes;
    settle();
}

void HeldBytes::consumed(qint64 bytes)
{
    const MutexLocker locker(mutex);
    inBuffer -= bytes;
    sinceLatest = std::min(sinceLatest, inBuffer);
    all += static_cast<quint64>(bytes);
    settle();
}

quint64 HeldBytes::lend(qint64 bytes)
{
    const MutexLocker locker(mutex);
    inRecords += bytes;
    sinceLatest = 0;
    latestIsOut = true;
    settle();
    return ++latest;
}

bool HeldBytes::hasUnlent() const
{
    const MutexLocker locker(mutex);
    return sinceLatest > 0;
}

void HeldBytes::giveBack(quint64 record, qint64 bytes)
{
    const MutexLocker locker(mutex);
    inRecords -= bytes;
    if (record == latest)
        latestIsOut = false;
    settle();
    if (isPaused() && receiver)
        QMetaObject::invokeMethod(receiver, calls.cameBack, Qt::QueuedConnection);
}

bool HeldBytes::beginHandOver()
{
    const MutexLocker locker(mutex);
    merged = onItsWay;
    return !std::exchange(onItsWay, true);
}

void HeldBytes::handedOver()
{
    const MutexLocker locker(mutex);
    onItsWay = false;
    if (std::exchange(merged, false) && receiver)
        QMetaObject::invokeMethod(receiver, calls.offerMerged, Qt::QueuedConnection);
}

qint64 HeldBytes::unconsumed() const
{
    const MutexLocker locker(mutex);
    return inBuffer;
}

quint64 HeldBytes::consumedInAll() const
{
    const MutexLocker locker(mutex);
    return all;
}

void HeldBytes::setPaused(bool on)
{
    if (paused.exchange(on) != on)
        budget->paused += on ? 1 : -1;
}

void HeldBytes::settle()
{
    const qint64 now = inRecords + (latestIsOut ? sinceLatest : inBuffer);
    budget->add(now + reserved - counted);
    counted = now + reserved;
    heldNow.store(now, std::memory_order_relaxed);
}
