// SPDX-FileCopyrightText: the tcpinputplugin2 authors
// SPDX-License-Identifier: MIT

#pragma once

#include "plugin/decimalnumber.h"
#include "plugin/parseddata.h"
#include "plugin/subids.h"

#include <QtCore/QByteArray>
#include <QtCore/QByteArrayView>
#include <QtCore/QHash>
#include <QtCore/QtDebug>

#include <algorithm>
#include <chrono>
#include <iterator>
#include <limits>
#include <list>
#include <optional>
#include <utility>

/*!
    Tells which bytes of an offer are new. For hosts that take every byte exactly once.

    Needs "offsets": true in the plugin's configuration. Each offer then carries its position in the
    connection's stream; a record without one brings a warning, once. This class remembers the
   position up to which the host has consumed each connection. For each record:

        const auto offer = offers.open(*record);
        const qsizetype used = parse(offer.fresh());
        if (const int len = offers.consume(offer, used))
            plugin->discard(len, record->getPluginSubId());

    With "ends": true in the configuration, too, the plugin tells the end of each connection, and
    this class forgets the connection then. Without, it forgets connections by age and by number. If
    it forgets one too early, an offer that was made before the connection's last
    cut, and is handled later, counts as new. So the age must exceed the longest time that a record
    waits in the host, and the number must exceed that of the connections active within it. A host
    that can stall for any time passes times of a clock that stops while the host stalls.

    Thread: one at a time.
    Owner:  the host.
*/
class ExactOffers
{
public:
    using Clock = std::chrono::steady_clock;

    //! What is forgotten without being told an end.
    struct Limits
    {
        std::chrono::milliseconds age = std::chrono::minutes(10); // since the last offer
        std::size_t connections = 100000; // at least 1; forgets the one longest without an offer
    };

    //! One offer, and what was known when it was opened. A value; shares the record's bytes.
    class Offer
    {
    public:
        // The bytes that were not consumed yet; empty if the offer only repeats. The view is valid
        // as long as the Offer. Repeated and fresh bytes together are at most 2 GiB - 1: discard()
        // takes an int.
        QByteArrayView fresh() const { return QByteArrayView(buffer).sliced(repeated); }

        // How many of the connection's bytes lie before the first fresh one.
        quint64 position() const { return offset + static_cast<quint64>(repeated); }

        // The connection's number, unique in the process. 0 if the record carries no position: all
        // of its bytes then count as fresh.
        quint64 connection() const { return number; }

        // The connection is over; there are no more offers, and this one has no bytes.
        bool isEnd() const { return end; }

    private:
        friend class ExactOffers;
        QByteArray buffer;
        qsizetype repeated = 0;
        quint64 offset = 0;
        quint64 number = 0;
        bool end = false;
    };

    //! What a record says of its place in the connection's stream.
    struct Place
    {
        explicit Place(const subids::Values &values) : isEnd(values.end)
        {
            offset = values.offset ? decimalNumber(*values.offset) : std::nullopt;
            if (offset && values.connection)
                connection = decimalNumber(*values.connection).value_or(0);
        }

        std::optional<quint64> offset; // nothing: the record carries no position
        quint64 connection = 0; // 0: likewise
        bool isEnd = false;
    };

    ExactOffers() : ExactOffers(Limits()) {}
    explicit ExactOffers(const Limits &values) : limits(values) {}
    ExactOffers(const ExactOffers &) = delete;
    ExactOffers &operator=(const ExactOffers &) = delete;

    Offer open(const ParsedData &record, Clock::time_point now = Clock::now())
    {
        const auto subIds = record.getPluginSubId();
        return open(record, Place(subids::Values(subIds)), now);
    }
    // place: the record's.
    Offer open(const ParsedData &record, const Place &place, Clock::time_point now = Clock::now())
    {
        forgetOld(now);
        Offer offer;
        offer.buffer = record.getOriginalMessage();
        offer.buffer.truncate(std::numeric_limits<int>::max());
        offer.end = place.isEnd;
        if (place.connection == 0)
            warnOfMissingPosition();
        if (!place.offset)
            return offer;
        offer.offset = *place.offset;
        offer.number = place.connection;
        const auto known = find(offer.number);
        if (offer.end) {
            forget(known);
            return offer;
        }
        if (known != entries.end()) {
            touch(known, now);
            offer.repeated = overlap(offer, known->consumed);
        }
        return offer;
    }

    // used: bytes consumed at the front of offer.fresh(), 0 to its size. More is a bug of the host:
    // an assertion fails, or in a build without them it counts as all. Returns the length for
    // discard(). 0: nothing to discard, do not call discard().
    int consume(const Offer &offer, qsizetype used, Clock::time_point now = Clock::now())
    {
        Q_ASSERT_X(used <= offer.fresh().size(), "ExactOffers::consume()",
                   "more bytes than were offered");
        used = std::min(used, offer.fresh().size());
        if (used <= 0)
            return 0;
        if (offer.number != 0)
            remember(offer.number, offer.position() + static_cast<quint64>(used), now);
        return static_cast<int>(offer.repeated + used);
    }

    // How many connections are remembered.
    std::size_t size() const { return entries.size(); }

private:
    struct Entry
    {
        quint64 number;
        quint64 consumed; // bytes, from the connection's first one on
        Clock::time_point seen;
    };
    using Entries = std::list<Entry>;

    void warnOfMissingPosition()
    {
        if (!std::exchange(hasWarned, true))
            qWarning("ExactOffers: a record without a position. Bytes that are offered again will "
                     "count as new. Set \"offsets\": true in the plugin's configuration.");
    }

    static qsizetype overlap(const Offer &offer, quint64 consumed)
    {
        const quint64 size = static_cast<quint64>(offer.buffer.size());
        return consumed <= offer.offset
                ? 0
                : static_cast<qsizetype>(std::min(consumed - offer.offset, size));
    }

    // Usually the last entry: consume() follows open().
    Entries::iterator find(quint64 number)
    {
        if (!entries.empty() && entries.back().number == number)
            return std::prev(entries.end());
        return index.value(number, entries.end());
    }

    void touch(Entries::iterator entry, Clock::time_point now)
    {
        entry->seen = now;
        entries.splice(entries.end(), entries, entry);
    }

    void remember(quint64 number, quint64 consumed, Clock::time_point now)
    {
        const auto known = find(number);
        if (known != entries.end()) {
            known->consumed = std::max(known->consumed, consumed);
            touch(known, now);
            return;
        }
        index.insert(number, entries.insert(entries.end(), {number, consumed, now}));
        if (entries.size() > limits.connections)
            forgetFirst();
    }

    void forgetOld(Clock::time_point now)
    {
        while (!entries.empty() && now - entries.front().seen > limits.age)
            forgetFirst();
    }

    void forgetFirst() { forget(entries.begin()); }

    void forget(Entries::iterator entry)
    {
        if (entry == entries.end())
            return;
        index.remove(entry->number);
        entries.erase(entry);
    }

    const Limits limits;
    Entries entries; // by the time of their last offer, the oldest first
    QHash<quint64, Entries::iterator> index; // into entries, by connection
    bool hasWarned = false; // of a record without a position
};
