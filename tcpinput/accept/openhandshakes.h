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
    the longest time. A device among thousands of silent peers is served. Handshakes that must stay
    are spared: they do not count.

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
        bool isSpared = false; // as excess() was told
    };
    //! The handshakes of an address. The one without progress for the longest time is the first of
    //! its list.
    struct Peers
    {
        std::list<Entry> &listOf(const Entry &entry) { return entry.isSpared ? spared : waiting; }
        // Asks anew of each one. How many are spared.
        template<class Spared>
        qsizetype spare(Spared isSpared)
        {
            waiting.merge(spared,
                          [](const Entry &a, const Entry &b) { return a.progress < b.progress; });
            for (auto next = waiting.begin(); next != waiting.end();) {
                const auto each = next++;
                each->isSpared = isSpared(each->handshake);
                if (each->isSpared)
                    spared.splice(spared.end(), waiting, each);
            }
            return static_cast<qsizetype>(spared.size());
        }

        std::list<Entry> waiting;
        std::list<Entry> spared;
    };

public:
    // Of an open handshake; valid until leave().
    using Place = typename std::list<Entry>::iterator;

    Place enter(const QHostAddress &peer, Handshake handshake)
    {
        const QByteArray address = keyOf(peer);
        std::list<Entry> &waiting = byAddress[address].waiting;
        ++count;
        return waiting.insert(waiting.end(), Entry{std::move(handshake), address, ++steps});
    }
    // It has made progress.
    void moveOn(Place place)
    {
        std::list<Entry> &same = byAddress[place->address].listOf(*place);
        same.splice(same.end(), same, place);
        place->progress = ++steps;
    }
    void leave(Place place)
    {
        const auto same = byAddress.find(place->address);
        same->listOf(*place).erase(place);
        if (same->waiting.empty() && same->spared.empty())
            byAddress.erase(same);
        --count;
    }

    qsizetype size() const { return count; }

    // How many have to go if no more than most may be open. isSpared: says of a handshake whether
    // it must stay; such a one does not count, here and in goesFirst() until this is called again.
    template<class Spared>
    qsizetype excess(qsizetype most, Spared isSpared)
    {
        qsizetype result = count - most;
        for (Peers &same : byAddress) {
            if (result <= 0)
                return 0;
            result -= same.spare(isSpared);
        }
        return std::max<qsizetype>(result, 0);
    }

    // The one to go next, when excess() has said that one has to. Nothing if all are spared.
    std::optional<Handshake> goesFirst() const
    {
        const auto most = std::max_element(
                byAddress.cbegin(), byAddress.cend(), [](const Peers &a, const Peers &b) {
                    if (a.waiting.size() != b.waiting.size() || a.waiting.empty())
                        return a.waiting.size() < b.waiting.size();
                    return a.waiting.front().progress > b.waiting.front().progress;
                });
        if (most == byAddress.cend() || most->waiting.empty())
            return {};
        return most->waiting.front().handshake;
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

    QHash<QByteArray, Peers> byAddress; // those that have any
    qsizetype count = 0; // of all
    quint64 steps = 0; // counts progress
};

// How many a server has at most, in all threads, unless a test sets it.
inline constexpr int MostOpenHandshakes = 4096;
// So often is looked which of too many have to go. To look at all takes some milliseconds.
inline constexpr int MakeRoomIntervalMs = 20;
