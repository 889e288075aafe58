// SPDX-FileCopyrightText: the tcpinputplugin2 authors
// SPDX-License-Identifier: MIT

#include "host/plainreader.h"

#include "plugin/subids.h"

#include <QtCore/QCoreApplication>

#include <algorithm>
#include <limits>
#include <utility>

namespace host {
namespace {

using namespace std::chrono_literals;

// A cut is one queued call in a worker thread. After this time it counts as carried out.
constexpr std::chrono::nanoseconds CutGrace = 50ms;

constexpr std::size_t MaxClients = 100000; // unless their ends are told

QString keyOf(const ParsedData &record)
{
    return record.getPluginSubIdKey(subids::task()) + QLatin1Char('/')
            + record.getPluginSubIdKey(subids::client());
}

// discard() takes an int. Bytes beyond its range are offered again.
QByteArrayView discardablePart(QByteArrayView buffer)
{
    constexpr qsizetype most = std::numeric_limits<int>::max();
    return buffer.first(std::min(buffer.size(), most));
}

} // namespace

PlainReader::PlainReader(MessageWriter &messageWriter, Counters &total,
                         const inputkit::Answer &toOffers)
    : writer(messageWriter),
      counters(total),
      answer(toOffers)
{
    clock.start();
    settleTimer.setSingleShot(true);
    settleTimer.setTimerType(Qt::PreciseTimer);
    settleTimer.setInterval(std::chrono::duration_cast<std::chrono::milliseconds>(CutGrace));
    connect(&settleTimer, &QTimer::timeout, this, &PlainReader::postSettling);
}

void PlainReader::setAnswering(bool enable)
{
    answering = enable;
    if (!enable) // so the offers that come from now on are younger than all discards
        QCoreApplication::sendPostedEvents();
}

void PlainReader::receive(const ParsedData &record)
{
    const QString key = keyOf(record);
    if (!record.getPluginSubIdKey(subids::end()).isEmpty()) {
        if (const auto known = byKey.constFind(key); known != byKey.constEnd())
            forget(*known);
        return;
    }

    ++counters.offers;
    Client &client = clientOf(record, key);
    if (takeOffer(client, record.getOriginalMessage())) {
        client.origin = writer.originOf(record, 0);
        readMessages(client);
    }
    client.lastOfferTime = now();
}

void PlainReader::forgetAll()
{
    while (!clients.empty())
        forget(clients.begin());
}

void PlainReader::forgetSilent()
{
    if (endsTold)
        return;
    const qint64 time = now();
    while (!clients.empty() && time - clients.front().lastOfferTime > forgetAfter)
        forget(clients.begin());
}

PlainReader::Client &PlainReader::clientOf(const ParsedData &record, const QString &key)
{
    const auto known = byKey.constFind(key);
    if (known != byKey.constEnd()) {
        clients.splice(clients.end(), clients, *known);
        return **known;
    }
    counters.addConnection(record.getPluginSubIdKey(subids::client()));
    if (clients.size() == MaxClients && !endsTold)
        forget(clients.begin());
    clients.push_back({key, record.getPluginSubId(), {}, {}, {}, 0});
    byKey.insert(key, std::prev(clients.end()));
    return clients.back();
}

// False if it is unclear what is new in the offer.
bool PlainReader::takeOffer(Client &client, const QByteArray &offer)
{
    OfferTracker::Fit fit = client.tracker.accept(offer, reachedTime);
    if (fit == OfferTracker::Fit::Foreign) {
        giveUp(client);
        fit = client.tracker.accept(offer, reachedTime);
    }
    if (fit != OfferTracker::Fit::Unclear)
        return true;

    // While the plugin is being stopped, its last offer comes without being asked for.
    if (answering) {
        answer(0, client.subId);
        settleLater(client);
    }
    return false;
}

void PlainReader::readMessages(Client &client)
{
    const qsizetype taken = takeMessages(client);
    if (taken == 0 || !answering)
        return; // no answer to an offer without messages: see answer

    answer(static_cast<int>(taken), client.subId);
    // Queued: runs when all offers that wait now are handled.
    const qint64 time = now();
    QMetaObject::invokeMethod(
            this, [this, time] { reachedTime = time; }, Qt::QueuedConnection);
    settleLater(client);
}

// Consumes the complete messages. Returns the number of bytes, framing included.
qsizetype PlainReader::takeMessages(Client &client)
{
    inputkit::Allowance unlimited;
    const qsizetype taken = writer.write(discardablePart(client.tracker.unread()), 0, client.origin,
                                         client.framing, unlimited);
    if (taken > 0)
        client.tracker.consume(taken, now());
    return taken;
}

void PlainReader::settleLater(const Client &client)
{
    unsettledKeys.insert(client.key);
    if (!settleTimer.isActive())
        settleTimer.start();
}

// The call is queued: offers that wait already may have been made before the cut, and must be
// handled first.
void PlainReader::postSettling()
{
    const qint64 time = now() - CutGrace.count();
    QMetaObject::invokeMethod(
            this, [this, time] { settle(time); }, Qt::QueuedConnection);
}

void PlainReader::settle(qint64 time)
{
    const QSet<QString> keys = std::exchange(unsettledKeys, {});
    for (const QString &key : keys) {
        const auto known = byKey.constFind(key);
        if (known == byKey.constEnd())
            continue;
        const Clients::iterator client = *known;
        settleClient(*client, time);
        if (!client->isWorthKeeping())
            forget(client);
    }
}

void PlainReader::settleClient(Client &client, qint64 time)
{
    // Another offer was asked for when the unclear one came, and none has come.
    if (client.tracker.isUnclear() && client.lastOfferTime <= time) {
        client.tracker.decide();
        readMessages(client);
    }
    if (!client.tracker.isUnclear())
        client.tracker.settle(time);
    if (!client.tracker.isSettled())
        settleLater(client);
}

void PlainReader::forget(Clients::iterator client)
{
    giveUp(*client);
    byKey.remove(client->key);
    clients.erase(client);
}

// Reads and prints what is left of a connection.
void PlainReader::giveUp(Client &client)
{
    if (client.tracker.isUnclear()) {
        client.tracker.decide();
        takeMessages(client);
    }
    writer.writePartial(client.tracker.unread(), 0, client.origin);
    client.tracker.clear();
    client.framing = {};
}

qint64 PlainReader::now()
{
    lastTime = std::max(clock.nsecsElapsed(), lastTime + 1);
    return lastTime;
}

} // namespace host
