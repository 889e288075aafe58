// SPDX-FileCopyrightText: the tcpinputplugin2 authors
// SPDX-License-Identifier: MIT

#pragma once

#include "tcpinput/receive/promptlist.h"

/*!
    When a connection may make its next offer: after a read at most one in 200 ms, and a kick at the
    earliest 2 s after an offer. Bytes that are read earlier wait: for another read, a cut, a kick
    or the end; with a prompt list, only for the end of the 200 ms.

    Thread: its creator's.
    Owner:  the client, as a member.
*/
class OfferPace final : private PromptList::Waiting
{
public:
    //! Makes the offers.
    class Offerer
    {
    public:
        // The interval is over, and bytes that were not offered have waited for that.
        virtual void offerWaiting(qint64 now) = 0;

    protected:
        ~Offerer() = default;
    };

    explicit OfferPace(Offerer &owner) : offerer(owner) {}
    ~OfferPace();
    Q_DISABLE_COPY_MOVE(OfferPace)

    // value: not owned, in the same thread, outlives this. Default: null, see above.
    void setPromptList(PromptList *value) { list = value; }

    // now, here and below: of Clock::now().
    bool isOfferDue(qint64 now) const { return isOver(now, OfferIntervalMs); }
    bool isKickDue(qint64 now) const { return isOver(now, KickAfterMs); }
    // The interval begins at that time.
    void begin(qint64 now) { latest = now; }

    // Bytes were read and not offered.
    void wait(qint64 now);
    // All bytes were offered.
    void stopWaiting() { waiting = false; }

private:
    static constexpr qint64 OfferIntervalMs = 200;
    static constexpr qint64 KickAfterMs = 2000;

    void waitIsOver() override;

    // A clock that was set back counts as a long time. Otherwise offers would wait until it catches
    // up.
    bool isOver(qint64 now, qint64 intervalMs) const
    {
        return now - latest > intervalMs || now < latest;
    }

    Offerer &offerer;
    PromptList *list = nullptr;
    qint64 latest = 0; // beginning of the interval, ms since the epoch
    bool waiting = false; // with a list
};
