// SPDX-FileCopyrightText: the tcpinputplugin2 authors
// SPDX-License-Identifier: MIT

#pragma once

#include "plugin/connection.h"
#include "tcpinput/receive/backlogcheck.h"
#include "tcpinput/receive/cutqueue.h"
#include "tcpinput/receive/derivedid.h"
#include "tcpinput/receive/endreason.h"
#include "tcpinput/receive/idletimer.h"
#include "tcpinput/receive/intake.h"
#include "tcpinput/receive/link.h"
#include "tcpinput/receive/offerpace.h"
#include "tcpinput/receive/outlet.h"
#include "tcpinput/receive/unconsumedbytes.h"
#include "tcpinput/workers/workercounters.h"

#include <QtCore/QObject>
#include <QtCore/QString>

#include <memory>
#include <utility>

/*!
    One accepted connection: buffers its bytes, offers them to the task, cuts what was consumed.

    Thread: its task's worker thread; discard(), discardTo() and currentId() from any thread.
    Owner:  the TcpTask2 that made it (QObject parent). It never deletes itself.
    Locks:  those of the id and of the unconsumed bytes; never held together or while emitting.
*/
class TcpClient2 : public QObject,
                   private TransportReader,
                   private OfferPace::Offerer,
                   private Intake::Reader
{
    Q_OBJECT

public:
    // A bare client for the meta-type system: no socket, no id, nothing runs.
    explicit TcpClient2(QObject *parent = nullptr);

    // connected: not null; becomes a child unless it has a parent. timeoutMs: idle time-out.
    TcpClient2(QObject *parent, const QString &clientId, QTcpSocket *connected, int timeoutMs);

    // Closes a socket that is still open, without emitting disconnected().
    ~TcpClient2() override;

    // In the client's thread only; see currentId().
    QString &getId() { return id.inThread(); }

    // A copy of the id, from any thread.
    QString currentId() const { return id.copy(); }

    // Cuts len bytes from the front. Its effects show later and in the client's thread, even when
    // called from there. len <= 0 cuts nothing, a len beyond the buffer empties it.
    void discard(int len);

    // Stamps this connection's offers with their positions. connectionNumber: not 0. Call once,
    // before the first offer and before another thread sees the client.
    void stampOffers(quint64 connectionNumber) { number = connectionNumber; }

    // The id ends with this number, see clientId(). Call before the first read.
    void numberId(quint64 value) { id.setNumber(value); }

    // 0 if offers are not stamped. From any thread.
    quint64 connectionNumber() const { return number; }

    // As discard(), but cuts up to the position, which counts from the connection's first byte. A
    // position at or before the front cuts nothing and causes no offer; one beyond the received
    // bytes empties the buffer.
    void discardTo(quint64 position) { cuts.ask(UnconsumedBytes::Position{position}); }

    // Stream position of the current offer; valid in its slots and taker. It is the number of the
    // connection's bytes before the first byte of the offer.
    quint64 offerPosition() const { return outlet.position(); }

    // Offers the whole unconsumed buffer and restarts the idle time-out.
    void emitData() { offer(unconsumed.copy()); }

    // Is called with the bytes of each offer, at a fraction of the cost of readyRead(). Default:
    // empty, nobody is called.
    void offerTo(Outlet::Taker value) { outlet.offerTo(std::move(value)); }

    // Is called once, after the last offer. Default: empty.
    void tellEndTo(Outlet::EndTaker value) { outlet.tellEndTo(std::move(value)); }
    // Whether the taker was ever called.
    bool hasOffered() const { return outlet.hasOffered(); }

    // value: not owned, in the same thread, outlives the client. Default: null; the client then
    // checks its backlog by itself.
    void setBacklogWatch(BacklogWatch *value) { backlog.setWatch(value); }

    // Limits what the connection may hold. list: as above. Call before the first read. Default: no
    // limit.
    void limit(const std::shared_ptr<HeldBytes> &held, PausedList &list);

    // Large reads use its blocks. value: outlives the client, in the same thread. Default: none.
    void setBlocks(WarmBlocks &value) { unconsumed.setBlocks(value); }

    // Counts reads, offers and the end there. value: outlives the client. Default: nobody reads it.
    void setCounters(WorkerCounters &value);

    // value: not owned, in the same thread, outlives the client. Default: null; bytes that come
    // within 200 ms of an offer then wait, see OfferPace.
    void setPromptList(PromptList *value) { pace.setPromptList(value); }

    // Tells the device that nothing follows from here. Its bytes are received as before, until it
    // ends the connection.
    void endWriting();

    // In the client's thread.
    IdleTimer &idleTimer() { return idle; }
    BacklogCheck &backlogCheck() { return backlog; }

Q_SIGNALS:
    // The connection is gone. Emitted once, after the last offer.
    void disconnected(QString id);

    // An offer: c carries a copy of the whole buffer and both endpoints, nothing else. Emitted only
    // if somebody is connected.
    void readyRead(Connection c, QString id);

    void cut(int len);

    // The first read has found another id than the one given at construction.
    void idChanged(const QString &oid, const QString &id);

public Q_SLOTS:
    // Closes the socket, offers what is left and reports the end. A second call does nothing.
    void mdisconnected();
    void mreadyRead();
    void cutInbuf(int len) { cuts.carryOut(UnconsumedBytes::Length{len}); }

private Q_SLOTS:
    void timeout();
    void checkData();

private:
    using Snapshot = UnconsumedBytes::Snapshot;

    void bytesCame() override { mreadyRead(); }
    qsizetype room(qsizetype wanted) override { return intake ? intake->room(wanted) : wanted; }
    void noRoom() override;
    QByteArray emptyBlock(qsizetype size) override { return unconsumed.emptyBlock(size); }
    void nothingCame() override
    {
        if (intake)
            intake->readNothing();
    }
    void offerWaiting(qint64 now) override;
    void recordCameBack() override;
    void endStalled(std::chrono::seconds after) override;
    bool isPaused() const { return intake && intake->isPaused(); }
    bool appendAvailable();
    bool isReadable(int place);
    void deriveId();

    void checkIdle();
    void offer(const Snapshot &unconsumed);
    void afterCut(qsizetype left);
    bool offerRemainder(qsizetype left);
    void emitOffer(const Snapshot &unconsumed, const QTcpSocket &from);

    DerivedId id;
    UnconsumedBytes unconsumed;
    CutQueue cuts{unconsumed, *this, [this](qsizetype left) { afterCut(left); }};
    quint64 number = 0; // set once, see stampOffers()

    // All below: the client's thread only.
    WorkerCounters *counters = &WorkerCounters::unread();
    IdleTimer idle;
    BacklogCheck backlog{unconsumed};
    OfferPace pace{*this};
    Outlet outlet;
    // Below all that a close may still lead to, and above what needs it.
    Link link; // gone after the end
    std::unique_ptr<Intake> intake; // null: not limited
    qint64 bytesReceived = 0;
    qint64 msgsReceived = 0; // reads, not messages of the data stream
    EndReason ownReason = EndReason::Stop; // if this side ends the connection
};
