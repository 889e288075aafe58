// SPDX-FileCopyrightText: the tcpinputplugin2 authors
// SPDX-License-Identifier: MIT

#pragma once

#include <QtCore/QByteArray>
#include <QtCore/QByteArrayView>
#include <QtCore/QList>

namespace host {

/*!
    Finds out which bytes of an offer the host has consumed before.

    Every offer carries all bytes of its connection that are not cut yet. The cut that discard()
    asks for is carried out later, in another thread, and offers made until then repeat the bytes:

        host                                plugin's worker
                 <--- offer  A B ----       first read
        reads A and B
                 <--- offer  A B C ---      the device closes: last offer, A and B not cut yet
        discard(A B) ---------------->
        offer A B C: only C is new

    Nothing marks a repeat. A host that took A and B for new would print them twice. If the
    connection lives on, its discard would also cut as many bytes that the host has never seen.

    Two things are certain: cuts are carried out in the order of their discards, and between cuts a
    buffer only grows. So an offer begins with the last offer, without the pieces of it that were
    cut. These are the first few of the pieces that the host has discarded: none, some or all. The
    tracker keeps the last offer and the places in it where the next offer may begin ("starts"):

    - A start becomes possible when the host has discarded the bytes before it, and has handled all
      offers made before that discard. It stays possible until the host has discarded the bytes
      behind it and a grace time has passed. The host tells both times.
    - A start is not possible if the new offer does not repeat the bytes of the last offer from
      there on. If the data hardly repeats itself, this alone decides, and late cuts do no harm.
    - If no start is left, the offer comes from another connection with the same id.
    - If several starts are left, the offer is unclear: the device sends the same bytes again and
      again, or the offer has no new bytes. The host puts the offer aside and discards 0 bytes. The
      plugin carries out all cuts that wait, and then offers again what is left. So if a further
      offer comes, it begins at the last start that fits. If none comes within the grace time, the
      connection is closed, or nearly nothing was left. Then the offer counts as a repeat from the
      first start, unless it has more bytes than that repeat, and these continue the repetition.

    Two cases stay ambiguous. A device sends the very bytes of its last offer once more within the
    grace time, and then closes: these bytes are taken for a repeat and are lost. (If the connection
    stays open, and they are too few for the plugin to offer them again by itself, they are only
    delayed.) A worker takes longer than the grace time to carry out a cut: repeated bytes are taken
    for new ones. Only offers that carry their position are read exactly, see inputkit::OfferReader.

    Thread: any one; no shared state. One object a connection.
*/
class OfferTracker
{
public:
    enum class Fit {
        Fits, // the offer is taken: go on with unread()
        Unclear, // put aside: wait for the next one, or decide
        Foreign, // of another connection: clear(), and accept it again
    };

    // reached: the time of the latest discard of which all earlier offers are handled.
    Fit accept(const QByteArray &offer, qint64 reached);

    // An offer is put aside.
    bool isUnclear() const { return !unclearOffer.isNull(); }
    // Takes the offer that was put aside: no further one came.
    void decide();

    // The end of the last offer taken: the bytes that are not consumed.
    QByteArrayView unread() const;

    // The host has consumed that many bytes of unread(). now: of any clock; later at each call.
    void consume(qsizetype bytes, qint64 now);

    // Call when all cuts of bytes consumed at that time or earlier are carried out, and all offers
    // made before these cuts were accepted. Drops bytes that can no longer be repeated. Not while
    // an offer is unclear.
    void settle(qint64 time);

    // True if unread() is all that is kept.
    bool isSettled() const { return starts.isEmpty() && !isUnclear(); }

    void clear() { *this = OfferTracker(); }

private:
    struct Start
    {
        qsizetype offset = 0; // in the last offer
        qint64 time = 0; // when the host consumed the bytes from here on
    };

    qsizetype offsetOf(qsizetype start) const;
    bool fits(const QByteArray &offer, qsizetype start) const;
    void take(const QByteArray &offer, qsizetype start);

    QByteArray lastOffer; // the last one taken
    qsizetype consumed = 0; // of its bytes; also the last start
    QList<Start> starts; // of bytes that are consumed but maybe not cut; ascending

    QByteArray unclearOffer; // null: none
    qsizetype firstFit = 0; // the first start that fits the unclear offer
    qsizetype lastFit = 0;
};

} // namespace host
