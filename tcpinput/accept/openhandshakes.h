// SPDX-FileCopyrightText: the tcpinputplugin2 authors
// SPDX-License-Identifier: MIT

#pragma once

#include <QtCore/QByteArray>
#include <QtCore/QHash>
#include <QtNetwork/QHostAddress>

#include <algorithm>
#include <list>
#include <optional>
#include <utility>

/*!
    The open handshakes of a thread, by the address of their peers, and which one goes first when
    there are too many.

    That address loses which has most, and of its handshakes the one that has made no progress for
    the longest time. A device among thousands of silent peers is served.

    Handshake: what the owner knows it by; copied.

    Thread: one.
    Owner:  as a member.
*/
template<class Handshake>
class OpenHandshakes
{
    struct Entry
    {
        Handshake handshake;
        QByteArray address; // addresses with the same one count as one
        quint64 progress; // when: see steps
    };

public:
    // Of an open handshake; valid until leave().
    using Place = typename std::list<Entry>::iterator;

    Place enter(const QHostAddress &peer, Handshake handshake)
    {
        const QByteArray address = keyOf(peer);
        std::list<Entry> &same = byAddress[address];
        ++count;
        return same.insert(same.end(), Entry{std::move(handshake), address, ++steps});
    }
    // It has made progress.
    void moveOn(Place place)
    {
        std::list<Entry> &same = byAddress[place->address];
        same.splice(same.end(), same, place);
        place->progress = ++steps;
    }
    void leave(Place place)
    {
        const auto same = byAddress.find(place->address);
        same->erase(place);
        if (same->empty())
            byAddress.erase(same);
        --count;
    }

    qsizetype size() const { return count; }

    // How many have to go if no more than most may be open. isSpared: says of a handshake whether
    // it must stay; such a one does not count.
    template<class Spared>
    qsizetype excess(qsizetype most, Spared isSpared) const
    {
        qsizetype result = count - most;
        for (const std::list<Entry> &same : byAddress) {
            for (auto each = same.begin(); each != same.end() && result > 0; ++each)
                result -= isSpared(each->handshake) ? 1 : 0;
        }
        return std::max<qsizetype>(result, 0);
    }

    // The one of these to go next. Nothing if all stay that the address with most has.
    template<class Spared>
    std::optional<Handshake> goesFirst(Spared isSpared) const
    {
        if (byAddress.empty())
            return {};
        const std::list<Entry> &most =
                *std::max_element(byAddress.cbegin(), byAddress.cend(),
                                  [](const std::list<Entry> &a, const std::list<Entry> &b) {
                                      if (a.size() != b.size())
                                          return a.size() < b.size();
                                      return a.front().progress > b.front().progress;
                                  });
        const auto first = std::find_if(most.begin(), most.end(), [&](const Entry &each) {
            return !isSpared(each.handshake);
        });
        return first != most.end() ? std::optional(first->handshake) : std::nullopt;
    }

private:
    static constexpr int Ipv6NetworkBytes = 8; // a device's own network: it may have all of it

    static QByteArray keyOf(const QHostAddress &peer)
    {
        bool isIpv4 = false;
        const quint32 ipv4 = peer.toIPv4Address(&isIpv4); // also of a mapped one
        const Q_IPV6ADDR ipv6 = peer.toIPv6Address();
        return isIpv4 ? QByteArray(reinterpret_cast<const char *>(&ipv4), sizeof ipv4)
                      : QByteArray(reinterpret_cast<const char *>(ipv6.c), Ipv6NetworkBytes);
    }

    // The one without progress for the longest time is the first of its list. No list is empty.
    QHash<QByteArray, std::list<Entry>> byAddress;
    qsizetype count = 0; // of all
    quint64 steps = 0; // counts progress
};

// How many a server has at most, in all threads, unless a test sets it.
inline constexpr int MostOpenHandshakes = 4096;
// So often is looked which of too many have to go. To look at all takes some milliseconds.
inline constexpr int MakeRoomIntervalMs = 20;
