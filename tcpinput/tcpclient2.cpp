// SPDX-FileCopyrightText: the tcpinputplugin2 authors
// SPDX-License-Identifier: MIT

#include "tcpinput/tcpclient2.h"

#include "eventloop/epolleventdispatcher.h"
#include "plugin/cwrn.h"

#include <QtCore/QMetaMethod>
#include <QtCore/QThread>
#include <QtNetwork/QTcpSocket>

namespace {

constexpr int LogReadAboveBytes = 1000;

static_assert(static_cast<std::size_t>(EndReason::Stop) + 1 == WorkerCounters::Reasons);

} // namespace

TcpClient2::TcpClient2(QObject *parent) : QObject(parent), idle(nullptr, 0) {}

TcpClient2::TcpClient2(QObject *parent, const QString &clientId, QTcpSocket *connected,
                       int timeoutMs)
    : QObject(parent),
      id(clientId),
      idle(this, timeoutMs),
      link(connected, *this)
{
    CWRN(QtDebugMsg,
         QStringLiteral("TcpClient: id = '%1', local = '%2:%3'")
                 .arg(getId(), connected->localAddress().toString(),
                      QString::number(connected->localPort())));

    link.transport().setReader(this);
    connect(connected, &QAbstractSocket::disconnected, this, &TcpClient2::mdisconnected,
            Qt::AutoConnection);
    connect(&idle, &QTimer::timeout, this, &TcpClient2::checkIdle, Qt::DirectConnection);
    const auto cutLength = [this](int len) { cuts.ask(UnconsumedBytes::Length{len}); };
    connect(this, &TcpClient2::cut, this, cutLength, Qt::DirectConnection);
    connect(&backlog, &QTimer::timeout, this, &TcpClient2::checkData, Qt::AutoConnection);

    idle.start();
    connected->setSocketOption(QAbstractSocket::KeepAliveOption, QVariant(true));
    if (!connected->parent())
        connected->setParent(this);
}

TcpClient2::~TcpClient2()
{
    idle.stop();
    backlog.stop();
}

void TcpClient2::discard(int len)
{
    Q_EMIT cut(len);
}

void TcpClient2::afterCut(qsizetype left)
{
    if (intake)
        intake->settle();
    offerRemainder(left);
}

void TcpClient2::limit(const std::shared_ptr<HeldBytes> &held, PausedList &list)
{
    unconsumed.setHeld(held);
    Intake::Reader &reader = *this;
    intake = std::make_unique<Intake>(reader, *this, link.transport(), list, held);
}

void TcpClient2::setCounters(WorkerCounters &value)
{
    counters = &value;
    unconsumed.setCounters(value);
    outlet.setCounters(value);
}

void TcpClient2::endWriting()
{
    Q_ASSERT(QThread::currentThread() == thread());
    if (link.isThere())
        link.transport().endWriting();
}

// Other connections have taken the room. What waits for its offer would keep it from them: the host
// cannot consume what it does not know.
void TcpClient2::noRoom()
{
    intake->pause();
    if (intake->hasUnoffered())
        offerWaiting(Clock::now());
}

void TcpClient2::recordCameBack()
{
    if (isPaused()) // it may have gone on, or ended
        intake->settle();
}

void TcpClient2::endStalled(std::chrono::seconds after)
{
    ownReason = EndReason::Limit;
    CWRN(QtWarningMsg,
         QStringLiteral("TcpClient2 (%1): paused for %2 s and nothing consumed, closing"), getId(),
         static_cast<qint64>(after.count()));
    mdisconnected();
}

// left: how many bytes a cut has left. False: it makes no offer.
bool TcpClient2::offerRemainder(qsizetype left)
{
    if (left <= UnconsumedBytes::RemainderBytes)
        return false;
    CWRN(QtDebugMsg, QStringLiteral("TcpClient: inbuf still %1 bytes, triggering"),
         static_cast<qint64>(left));
    const Snapshot remainder = unconsumed.copy();
    if (remainder.data.isEmpty()) // the host has cut what it was not offered
        return false;
    offer(remainder);
    pace.begin(Clock::now());
    return true;
}

void TcpClient2::mreadyRead()
{
    Q_ASSERT(QThread::currentThread() == thread());
    if (isPaused()) {
        intake->stayPaused();
        return;
    }
    if (!appendAvailable())
        return;
    const qint64 now = Clock::now();
    // A paused connection reads no more until the host consumes, and must not wait for more.
    if (pace.isOfferDue(now) || isPaused())
        offerWaiting(now);
    else if (!offerRemainder(unconsumed.leftByRecentCut()))
        pace.wait(now);
}

void TcpClient2::offerWaiting(qint64 now)
{
    const Snapshot all = unconsumed.copy();
    if (all.data.isEmpty()) // the host has cut what it was not offered
        return;
    offer(all);
    pace.begin(now);
}

void TcpClient2::offer(const Snapshot &all)
{
    // The connection may have ended inside a log line, if the message handler ran the event loop.
    // The last offer was made there.
    if (!link.isThere())
        return;
    pace.stopWaiting();
    if (intake && !intake->beginOffer()) { // merged into the next one
        idle.begin();
        return;
    }
    outlet.begin(all.position);
    outlet.offer(all.data);
    if (link.isThere()) // the taker may have ended the connection, too
        emitOffer(all, link.socket());
    idle.begin();
}

void TcpClient2::emitOffer(const Snapshot &all, const QTcpSocket &from)
{
    static const QMetaMethod signal = QMetaMethod::fromSignal(&TcpClient2::readyRead);
    if (isSignalConnected(signal))
        Q_EMIT readyRead(Link::describe(from, all.data), getId());
}

void TcpClient2::checkData()
{
    const qint64 now = Clock::now();
    const Snapshot all = unconsumed.copy();
    const qsizetype size = all.data.size();
    if (size <= BacklogCheck::AboveBytes)
        return;
    backlog.startNext();
    if (!pace.isKickDue(now))
        return;

    // Deliberate: the text has no marker for the size. Qt warns of that, and operators search for
    // both lines.
    CWRN(QtInfoMsg, QStringLiteral("TcpClient: inbuf parsing stopped, kicking"),
         static_cast<qint64>(size));
    offer(all);
    pace.begin(now);
}

void TcpClient2::checkIdle()
{
    if (isPaused()) // no idle time
        idle.begin();
    if (idle.isOver()) // queued: never from inside the timer
        QMetaObject::invokeMethod(this, &TcpClient2::timeout, Qt::QueuedConnection);
}

void TcpClient2::timeout()
{
    CWRN(QtDebugMsg, QStringLiteral("TcpClient: timeout"));
    ownReason = EndReason::Idle;
    mdisconnected();
}

void TcpClient2::mdisconnected()
{
    Q_ASSERT(QThread::currentThread() == thread());
    if (!link.isThere()) // closed before, or never open
        return;
    link.transport().setReader(nullptr);
    if (intake)
        intake->open();
    link.fetchLast(); // belongs to the last offer
    // The socket may have found that the peer has gone, and a log line may run the event loop,
    // where the end comes once more. Either has then run this function already.
    if (link.isThere() && link.socket().bytesAvailable() > 0)
        appendAvailable();
    if (!link.isThere())
        return;

    // Before anything that may run the event loop, so that no other call ends this socket.
    intake.reset();
    const Link::End end = link.end(ownReason);
    counters->ended[static_cast<std::size_t>(end.reason)].add(1);
    const Snapshot last = unconsumed.takeAll();
    outlet.begin(last.position);
    if (!last.data.isEmpty())
        emitOffer(last, *end.socket);
    idle.stop();
    if (!end.failure.isEmpty())
        CWRN(QtWarningMsg, QStringLiteral("TcpClient2 (%1): reading failed: %2"), getId(),
             end.failure);
    CWRN(QtDebugMsg,
         QStringLiteral("TcpClient: closing connection %1 (received %2 bytes, %3 msgs)"), getId(),
         bytesReceived, msgsReceived);
    end.socket->close();
    EpollEventDispatcher::deleteLater(end.socket);
    // Deliberate: the host gets the last record after the line is written and the socket is closed.
    if (!last.data.isEmpty())
        outlet.offer(last.data);
    outlet.tellEnd(end.reason, last.position + static_cast<quint64>(last.data.size()));
    Q_EMIT disconnected(getId());
}

// Reads all that the socket holds. False if there was nothing.
bool TcpClient2::appendAvailable()
{
    const int msgsize = isReadable(1) ? static_cast<int>(link.socket().bytesAvailable()) : -1;
    if (msgsize <= 0)
        return false;
    if (!id.isDerived())
        deriveId();
    if (msgsize > LogReadAboveBytes)
        CWRN(QtInfoMsg, QStringLiteral("TcpClient2 (%1): msgsize = %2"), getId(), msgsize);

    const qsizetype size = isReadable(2) ? unconsumed.readFrom(link.transport(), msgsize) : 0;
    if (size == 0)
        return false;
    bytesReceived += msgsize;
    ++msgsReceived;
    counters->reads.add(1);
    backlog.bytesCame(size);
    if (intake)
        intake->settle();
    return true;
}

bool TcpClient2::isReadable(int place)
{
    if (link.isUsable())
        return true;
    CWRN(QtWarningMsg, QStringLiteral("TcpClient2 (%1): socket not valid (%2)"), getId(), place);
    return false;
}

void TcpClient2::deriveId()
{
    const Link::Names names = link.names();
    CWRN(QtDebugMsg, QStringLiteral("TCP READ: %1:%2 (%3:%4)"), names.local, names.localPort,
         names.peer, names.peerPort);
    // The message handler may have run the event loop, with another read or the end.
    if (id.isDerived() || !link.isThere())
        return;
    const QString oid = id.derive(names);
    if (getId() != oid)
        Q_EMIT idChanged(oid, getId());
}
