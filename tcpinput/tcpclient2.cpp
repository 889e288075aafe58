// SPDX-FileCopyrightText: the tcpinputplugin2 authors
// SPDX-License-Identifier: MIT

#include "tcpinput/tcpclient2.h"

#include "eventloop/epolleventdispatcher.h"
#include "plugin/cwrn.h"
#include "tcpinput/connection/clientid.h"

#include <QtCore/QMetaMethod>
#include <QtCore/QThread>
#include <QtNetwork/QTcpSocket>

#include <utility>

namespace {

constexpr int LogReadAboveBytes = 1000;

static_assert(static_cast<std::size_t>(EndReason::Stop) + 1 == WorkerCounters::Reasons);

} // namespace

TcpClient2::TcpClient2(QObject *parent) : QObject(parent), idle(nullptr, 0) {}

TcpClient2::TcpClient2(QObject *parent, const QString &clientId, QTcpSocket *connected,
                       int timeoutMs)
    : QObject(parent),
      id(clientId),
      socket(connected),
      transport(dynamic_cast<Transport *>(connected)),
      idle(this, timeoutMs)
{
    CWRN(QtDebugMsg,
         QStringLiteral("TcpClient: id = '%1', local = '%2:%3'")
                 .arg(id, socket->localAddress().toString(), QString::number(socket->localPort())));

    if (!transport) {
        adapter = std::make_unique<SocketTransport>(*socket);
        transport = adapter.get();
    }
    transport->setReader(this);
    connect(socket, &QAbstractSocket::disconnected, this, &TcpClient2::mdisconnected,
            Qt::AutoConnection);
    connect(&idle, &QTimer::timeout, this, &TcpClient2::checkIdle, Qt::DirectConnection);
    connect(this, &TcpClient2::cut, this, &TcpClient2::requestCut, Qt::DirectConnection);
    connect(&backlog, &QTimer::timeout, this, &TcpClient2::checkData, Qt::AutoConnection);

    idle.start();
    socket->setSocketOption(QAbstractSocket::KeepAliveOption, QVariant(true));
    if (!socket->parent())
        socket->setParent(this);
}

TcpClient2::~TcpClient2()
{
    idle.stop();
    backlog.stop();
    if (!socket)
        return;
    intake.reset();
    transport->setReader(nullptr);
    // Before the close, which would run mdisconnected() on an object that is being destroyed.
    socket->disconnect(this);
    if (socket->isOpen())
        socket->close();
    adapter.reset();
    socket->deleteLater();
}

QString TcpClient2::currentId() const
{
    const MutexLocker locker(idMutex);
    return id;
}

void TcpClient2::discard(int len)
{
    Q_EMIT cut(len);
}

void TcpClient2::requestCut(int len)
{
    if (!unconsumed.cutAhead(len, isOwnThread()))
        postCut([this, len] { cutInbuf(len); });
}

void TcpClient2::discardTo(quint64 position)
{
    if (!unconsumed.cutAheadTo(position, isOwnThread()))
        postCut([this, position] { cutTo(position); });
}

bool TcpClient2::isOwnThread() const
{
    return QThread::currentThread() == thread();
}

template<class Cut>
void TcpClient2::postCut(Cut cut)
{
    const auto carryOut = [this, cut] {
        cut();
        unconsumed.endPostedCut();
    };
    QMetaObject::invokeMethod(this, carryOut, Qt::QueuedConnection);
}

void TcpClient2::cutInbuf(int len)
{
    Q_ASSERT(isOwnThread());
    wasCut(unconsumed.cut(len));
}

void TcpClient2::cutTo(quint64 position)
{
    if (const auto left = unconsumed.cutTo(position))
        wasCut(*left);
}

void TcpClient2::wasCut(qsizetype left)
{
    if (intake)
        intake->settle();
    offerRemainder(left);
}

void TcpClient2::limit(const std::shared_ptr<HeldBytes> &held, PausedList &list)
{
    unconsumed.setHeld(held);
    Intake::Reader &reader = *this;
    intake = std::make_unique<Intake>(reader, *this, *transport, list, held);
}

void TcpClient2::setCounters(WorkerCounters &value)
{
    counters = &value;
    unconsumed.setCounters(value);
}

// Other connections have taken the room. What waits for its offer would keep it from them: the host
// cannot consume what it does not know.
void TcpClient2::noRoom()
{
    intake->pause();
    if (intake->hasUnoffered())
        offerWaiting(Clock::now());
}

// The record before was handed over.
void TcpClient2::offerMerged()
{
    offerWaiting(Clock::now());
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
    Q_ASSERT(isOwnThread());
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
    if (!socket)
        return;
    pace.stopWaiting();
    if (intake && !intake->beginOffer()) { // merged into the next one
        idle.begin();
        return;
    }
    offeredPosition = all.position;
    handOut(all);
    if (socket) // the taker may have ended the connection, too
        emitOffer(all, *socket);
    idle.begin();
}

void TcpClient2::handOut(const Snapshot &all)
{
    if (!taker)
        return;
    offered = true;
    counters->offers.add(1);
    taker(all.data);
}

void TcpClient2::emitOffer(const Snapshot &all, const QTcpSocket &from)
{
    static const QMetaMethod signal = QMetaMethod::fromSignal(&TcpClient2::readyRead);
    if (!isSignalConnected(signal))
        return;
    Connection c;
    c.setData(all.data);
    c.setSenderHost(from.peerAddress());
    c.setSenderPort(from.peerPort());
    c.setLocalAddress(from.localAddress());
    c.setLocalPort(from.localPort());
    Q_EMIT readyRead(c, getId());
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
    Q_ASSERT(isOwnThread());
    if (!socket) // closed before, or never open
        return;
    transport->setReader(nullptr);
    if (intake)
        intake->open();
    // The last offer includes bytes that the event loop has not read yet. close() would drop them.
    if (socket->state() == QAbstractSocket::ConnectedState)
        socket->waitForReadyRead(0);
    // waitForReadyRead() may find that the peer has gone, and a log line may run the event loop,
    // where the end comes once more. Either has then run this function already.
    if (socket && socket->bytesAvailable() > 0)
        appendAvailable();
    if (!socket)
        return;

    // Before anything that may run the event loop, so that no other call ends this socket.
    QTcpSocket *closing = std::exchange(socket, nullptr);
    const bool endsHere = closing->state() == QAbstractSocket::ConnectedState;
    const EndReason reason = endsHere ? ownReason : transport->endReason();
    const QString failure = endsHere ? QString() : transport->failure();
    counters->ended[static_cast<std::size_t>(reason)].add(1);
    intake.reset();
    transport = nullptr;
    adapter.reset();
    disconnect(closing, &QAbstractSocket::disconnected, this, &TcpClient2::mdisconnected);
    const Snapshot last = unconsumed.takeAll();
    offeredPosition = last.position;
    if (!last.data.isEmpty())
        emitOffer(last, *closing);
    idle.stop();
    if (!failure.isEmpty())
        CWRN(QtWarningMsg, QStringLiteral("TcpClient2 (%1): reading failed: %2"), getId(), failure);
    CWRN(QtDebugMsg,
         QStringLiteral("TcpClient: closing connection %1 (received %2 bytes, %3 msgs)"), getId(),
         bytesReceived, msgsReceived);
    closing->close();
    EpollEventDispatcher::deleteLater(closing);
    // Deliberate: the host gets the last record after the line is written and the socket is closed.
    if (!last.data.isEmpty())
        handOut(last);
    if (endTaker)
        endTaker(reason, last.position + static_cast<quint64>(last.data.size()));
    Q_EMIT disconnected(getId());
}

// Reads all that the socket holds. False if there was nothing.
bool TcpClient2::appendAvailable()
{
    const int msgsize = isReadable(1) ? static_cast<int>(socket->bytesAvailable()) : -1;
    if (msgsize <= 0)
        return false;
    if (!idBuilt)
        deriveId();
    if (msgsize > LogReadAboveBytes)
        CWRN(QtInfoMsg, QStringLiteral("TcpClient2 (%1): msgsize = %2"), getId(), msgsize);

    const qsizetype size = isReadable(2) ? unconsumed.readFrom(*transport, msgsize) : 0;
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
    if (transport && transport->isUsable())
        return true;
    CWRN(QtWarningMsg, QStringLiteral("TcpClient2 (%1): socket not valid (%2)"), getId(), place);
    return false;
}

// The id that the task has formed has the address on which the server listens, which may be a
// wildcard. The socket knows the real one.
void TcpClient2::deriveId()
{
    const QString local = socket->localAddress().toString();
    const QString peer = socket->peerAddress().toString();
    const quint16 localPort = socket->localPort();
    const quint16 peerPort = socket->peerPort();
    CWRN(QtDebugMsg, QStringLiteral("TCP READ: %1:%2 (%3:%4)"), local, localPort, peer, peerPort);
    // The message handler may have run the event loop, with another read or the end.
    if (idBuilt || !socket)
        return;

    const QString oid = getId();
    {
        const MutexLocker locker(idMutex);
        id = clientId(local, localPort, peer, peerPort, idNumber);
    }
    idBuilt = true;
    if (getId() != oid)
        Q_EMIT idChanged(oid, getId());
}
