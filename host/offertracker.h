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

    Nothing marks a repeat. A host that took A and B for new would print them twice and, on a
    connection that lives on, have as many bytes cut that it has never seen.

    What is certain: cuts are carried out in the order of their discards, and between cuts a buffer
    only grows. So an offer begins with the whole last offer, less what was cut of it, and that can
    only be one or more of the pieces that the host has discarded one after the other. The tracker
    keeps the last offer and the places where the next one may begin ("starts"):

    - A start is out of the question while offers that were on their way before its discard are
      still being handled, and once the discard of the bytes behind it is settled, some grace time
      later. The host tells both times.
    - It is out of the question if the new offer does not go on with the same bytes. With data that
      hardly repeats itself, this alone decides, and late cuts do no harm.
    - If no start is left, the offer comes from another connection that goes by the same id.
    - If several are left, the device sends the same bytes again and again, or there is nothing but
      a repeat, and the offer is unclear. The host puts it aside and discards 0 bytes, which the
      plugin answers, after all cuts that wait, with another offer of what is still there. So if a
      further offer comes, it begins at the last start that fits. If none comes within the grace
      time, the connection is closed, or nearly nothing was left: then the offer was a repeat, from
      the first start, unless it has more bytes than that, and those go on repeating the others.

    What stays ambiguous: a device that sends the very bytes of its last offer once more within the
    grace time, and then closes. They are taken for a repeat and are lost. (If they are so few that
    the plugin does not offer them again by itself, and the connection stays, they are delayed.) A
    worker that takes longer than the grace time to carry out a cut: bytes that repeat are taken for
    new. Only offers that tell their place in the stream could be exact.

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

    // reached: the time of the last discard before which no offer is left to be handled.
    Fit accept(const QByteArray &offer, qint64 reached);

    // There is an offer put aside.
    bool isUnclear() const { return !unclearOffer.isNull(); }
    // Takes it: no further offer came.
    void decide();

    // The end of the last offer taken: bytes that are not consumed.
    QByteArrayView unread() const;

    // The host has consumed that many bytes of unread(). now: any clock that never stands still.
    void consume(qsizetype bytes, qint64 now);

    // All cuts of bytes consumed at that time or earlier are carried out, and all offers made
    // before them were accepted. Lets go of bytes that can no longer be repeated. Not while an
    // offer is unclear.
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
    qsizetype consumed = 0; // of its bytes; one more start, behind all others
    QList<Start> starts; // of bytes that are consumed but maybe not cut; ascending

    QByteArray unclearOffer; // null: none
    qsizetype firstFit = 0; // of the unclear offer
    qsizetype lastFit = 0;
};

} // namespace host
