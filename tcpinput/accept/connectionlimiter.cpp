// SPDX-FileCopyrightText: the tcpinputplugin2 authors
// SPDX-License-Identifier: MIT

#include "tcpinput/accept/connectionlimiter.h"

#include "tcpinput/workers/locks.h"

#include <QtCore/QHash>
#include <QtCore/QtEndian>

#include <algorithm>
#include <atomic>
#include <functional>
#include <utility>

namespace {

// How often the guard of a paused server looks: fewer at once would lose some of the rate.
constexpr int LooksPerSecond = 100;

// What is the same in all addresses that count as one.
QByteArray keyOf(const QHostAddress &address, const AcceptLimits &limits)
{
    constexpr int BitsPerByte = 8;
    bool isIpv4 = false;
    const quint32 ipv4 = qToBigEndian(address.toIPv4Address(&isIpv4)); // also of a mapped one
    const Q_IPV6ADDR ipv6 = address.toIPv6Address();
    QByteArray key = isIpv4 ? QByteArray(reinterpret_cast<const char *>(&ipv4), sizeof ipv4)
                            : QByteArray(reinterpret_cast<const char *>(ipv6.c), sizeof ipv6.c);
    int bits = isIpv4 ? limits.ipv4Bits : limits.ipv6Bits;
    for (char &byte : key) {
        const int kept = std::clamp(bits, 0, BitsPerByte);
        byte = static_cast<char>(byte & (0xff00 >> kept));
        bits -= kept;
    }
    return key;
}

//! What a connection keeps until its end.
class Place
{
public:
    explicit Place(std::function<void()> whatIsCalledThen) : atEnd(std::move(whatIsCalledThen)) {}
    ~Place() { atEnd(); }
    Q_DISABLE_COPY_MOVE(Place)

private:
    const std::function<void()> atEnd;
};

std::shared_ptr<const void> placeUntil(std::function<void()> atEnd)
{
    return std::make_shared<const Place>(std::move(atEnd));
}

} // namespace

//! How many connections are open, in all and by address.
class ConnectionLimiter::Table
{
public:
    explicit Table(Count openOnes) : open(std::move(openOnes)) {}

    const Count open;

    // False: there are as many as may be.
    bool add(const QByteArray &address, int most)
    {
        const MutexLocker locker(mutex);
        int &connections = byAddress[address];
        if (connections >= most)
            return false;
        ++connections;
        return true;
    }
    void remove(const QByteArray &address)
    {
        const MutexLocker locker(mutex);
        const auto connections = byAddress.find(address);
        if (--*connections == 0)
            byAddress.erase(connections);
    }

private:
    Mutex mutex;
    QHash<QByteArray, int> byAddress GUARDED_BY(mutex);
};

ConnectionLimiter::ConnectionLimiter(int minuteMs)
    : table(std::make_shared<Table>(std::make_shared<std::atomic<int>>(0))),
      refusals(minuteMs)
{
    episode.setSingleShot(true);
    episode.setInterval(minuteMs);
    connect(&episode, &QTimer::timeout, this, &ConnectionLimiter::endEpisode);
    connect(&refusals, &MinuteNotice::due, this, &ConnectionLimiter::refused);
}

ConnectionLimiter::~ConnectionLimiter() = default;

void ConnectionLimiter::setCount(Count value)
{
    table = std::make_shared<Table>(std::move(value));
}

ConnectionLimiter::Count ConnectionLimiter::count() const
{
    return table->open;
}

void ConnectionLimiter::setLimits(const AcceptLimits &value)
{
    limits = value;
    episode.stop(); // of another limit
    pace.reset();
    if (limits.perSecond > 0)
        pace.emplace(limits.perSecond,
                     std::max({limits.burst > 0 ? limits.burst : limits.perSecond,
                               limits.perSecond / LooksPerSecond, 1}));
}

void ConnectionLimiter::enter(Acceptance &acceptance, Time now)
{
    if (!limits.areOn())
        return;
    ++*table->open;
    acceptance.places.push_back(placeUntil([open = table->open] { --*open; }));
    if (pace)
        pace->take(now);
}

bool ConnectionLimiter::keeps(Acceptance &acceptance)
{
    const Endpoints &endpoints = acceptance.endpoints;
    const int most = limits.connectionsPerAddress;
    if (most == 0
        || std::any_of(limits.exempt.begin(), limits.exempt.end(),
                       [&](const Network &network) { return network.contains(endpoints.peer); }))
        return true;
    const QByteArray key = keyOf(endpoints.peer, limits);
    if (!table->add(key, most)) {
        refusals.add(
                QStringLiteral("%1:%2").arg(endpoints.peer.toString()).arg(endpoints.peerPort));
        return false;
    }
    // Before its other places: who sees that it is open no more finds the address free, too.
    auto others = std::exchange(acceptance.places, {});
    acceptance.places.push_back(
            placeUntil([table = table, key, others = std::move(others)] { table->remove(key); }));
    return true;
}

bool ConnectionLimiter::mayAccept(qsizetype handshakes, Time now)
{
    const bool some = !isFull() && (limits.handshakes == 0 || handshakes < limits.handshakes)
            && (!pace || pace->hasToken(now));
    paused = !some;
    return some;
}

bool ConnectionLimiter::isFull()
{
    if (limits.connections == 0 || *table->open < limits.connections)
        return false;
    const bool first = !episode.isActive();
    episode.start();
    if (first) // queued: the guard asks in the middle of its work
        QMetaObject::invokeMethod(
                this, [this, most = limits.connections] { Q_EMIT full(most); },
                Qt::QueuedConnection);
    return true;
}

// The guard may not have asked for a minute, if something else keeps the server paused.
void ConnectionLimiter::endEpisode()
{
    if (*table->open >= limits.connections)
        return episode.start();
    Q_EMIT fullNoMore(limits.connections);
}

QString ConnectionLimiter::status() const
{
    if (!limits.areOn())
        return {};
    return QStringLiteral("Limits: %1 connections open, %2 refused%3\r\n")
            .arg(table->open->load())
            .arg(refusedInAll())
            .arg(paused ? QStringLiteral(", accepting paused") : QString());
}
