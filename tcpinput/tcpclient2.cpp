// SPDX-FileCopyrightText: the tcpinputplugin2 authors
// SPDX-License-Identifier: MIT

#include "tcpinput/tcpclient2.h"

#include "eventloop/epolleventdispatcher.h"
#include "plugin/cwrn.h"
#include "tcpinput/clientid.h"
#include "tcpinput/reentry.h"

#include <QtCore/QMetaMethod>
#include <QtCore/QThread>
#include <QtNetwork/QTcpSocket>

#include <algorithm>
#include <chrono>
#include <limits>
#include <utility>

namespace {

constexpr qint64 OfferIntervalMs = 200; // at most one offer per interval on the read path
constexpr qint64 KickAfterMs = 2000; // an offer that nobody answered is repeated after this
constexpr std::chrono::steady_clock::duration CheckInterval = std::chrono::seconds(2);
constexpr int LogReadAboveBytes = 1000;
constexpr qsizetype ReofferAboveBytes = 20; // left after a cut
constexpr qsizetype KickAboveBytes = 80;
// A cut counts as made this much later than it was asked for: see cutAhead().
constexpr std::chrono::steady_clock::duration CutDelay = std::chrono::microseconds(500);

} // namespace

TcpClient2::TcpClient2(QObject *parent) : QObject(parent) {}

TcpClient2::TcpClient2(QObject *parent, const QString &clientId, QTcpSocket *connected,
                       int timeoutMs)
    : QObject(parent),
      socket(connected),
      plain(dynamic_cast<ReceivingSocket *>(connected)),
      id(clientId),
      idleTimer(this),
      idleTimeout(timeoutMs),
      created(std::chrono::steady_clock::now()),
      active(created)
{
    idleTimer.setInterval(timeoutMs);
    checkTimer.setSingleShot(true);

    CWRN(QtDebugMsg,
         QStringLiteral("TcpClient: id = '%1', local = '%2:%3'")
                 .arg(id, socket->localAddress().toString(), QString::number(socket->localPort())));

    if (plain)
        plain->setReader(this);
    else
        connect(socket, &QIODevice::readyRead, this, &TcpClient2::mreadyRead, Qt::AutoConnection);
    connect(socket, &QAbstractSocket::disconnected, this, &TcpClient2::mdisconnected,
            Qt::AutoConnection);
    connect(&idleTimer, &QTimer::timeout, this, &TcpClient2::checkIdle, Qt::DirectConnection);
    connect(this, &TcpClient2::cut, this, &TcpClient2::requestCut, Qt::DirectConnection);
    connect(&checkTimer, &QTimer::timeout, this, &TcpClient2::checkData, Qt::AutoConnection);

    idleTimer.start();

    const QMutexLocker locker(&socketMutex);
    socket->setSocketOption(QAbstractSocket::KeepAliveOption, QVariant(true));
    if (!socket->parent())
        socket->setParent(this);
}

TcpClient2::~TcpClient2()
{
    idleTimer.stop();
    checkTimer.stop();
    if (place != BacklogWatch::None)
        watch->remove(place);
    if (!socket)
        return;
    if (plain)
        plain->setReader(nullptr);
    // First, so that closing does not run mdisconnected() on an object that is being destroyed.
    socket->disconnect(this);
    if (socket->isOpen())
        socket->close();
    socket->deleteLater();
}

QString TcpClient2::currentId() const
{
    const QMutexLocker locker(&socketMutex);
    return id;
}

void TcpClient2::discard(int len)
{
    Q_EMIT cut(len);
}

void TcpClient2::discardTo(quint64 position)
{
    {
        const QWriteLocker locker(&inbufLock);
        if (position <= bytesCut) // cuts that are on their way do not take it back
            return;
        if (cutAhead(lengthTo(position)))
            return;
        ++postedCuts;
    }
    postCut([this, position] { cutTo(position); });
}

void TcpClient2::requestCut(int len)
{
    {
        const QWriteLocker locker(&inbufLock);
        if (cutAhead(len))
            return;
        ++postedCuts;
    }
    postCut([this, len] { cutInbuf(len); });
}

template<class Cut>
void TcpClient2::postCut(Cut cut)
{
    const auto carryOut = [this, cut] {
        const Reentry reentry;
        cut();
        const QWriteLocker locker(&inbufLock);
        --postedCuts;
    };
    QMetaObject::invokeMethod(this, carryOut, Qt::QueuedConnection);
}

// A cut is due in the client's thread, but most cuts leave nothing that would be offered again. To
// wake up the thread for those costs more than all the rest of a cut: their bytes are taken away at
// once, in the calling thread. Two rules keep that from being seen. No cut overtakes another one.
// And none overtakes a read: see leftByRecentCut(). False: the cut has to be posted. The caller
// holds inbufLock.
bool TcpClient2::cutAhead(qsizetype len)
{
    const qsizetype left = inbuf.size() - std::max<qsizetype>(len, 0);
    if (postedCuts > 0 || left < 0 || left > ReofferAboveBytes
        || QThread::currentThread() == thread())
        return false;
    bytesCut += static_cast<quint64>(inbuf.cutFront(len));
    recentCut = Clock::steady();
    return true;
}

// Behind a read: how much a cut has left that counts as made only now. That is a cut that would
// still be on its way to this thread, which needs some time to wake up and first reads all that was
// there when its turn began. 0: there is none.
qsizetype TcpClient2::leftByRecentCut()
{
    const QWriteLocker locker(&inbufLock);
    const auto cut = std::exchange(recentCut, std::nullopt);
    const bool onItsWay = cut
            && (Clock::steady() - *cut <= CutDelay || *cut >= EpollEventDispatcher::turnBegan());
    return onItsWay ? inbuf.size() : 0;
}

// From the front of the buffer; 0 for a position before it. The caller holds inbufLock.
qsizetype TcpClient2::lengthTo(quint64 position) const
{
    constexpr auto Longest = static_cast<quint64>(std::numeric_limits<qsizetype>::max());
    return static_cast<qsizetype>(std::min(position - std::min(position, bytesCut), Longest));
}

void TcpClient2::emitData()
{
    offer(snapshot());
}

TcpClient2::Snapshot TcpClient2::snapshot()
{
    const QWriteLocker locker(&inbufLock);
    recentCut.reset(); // made before: its bytes are missing here
    return {inbuf.copy(), bytesCut};
}

// Leaves nothing for an end within this one to offer again.
TcpClient2::Snapshot TcpClient2::takeRest()
{
    const QWriteLocker locker(&inbufLock);
    Snapshot rest{inbuf.copy(), bytesCut};
    inbuf.clear();
    return rest;
}

void TcpClient2::offer(const Snapshot &unconsumed)
{
    if (!socket) // ended in a log line, whose handler ran the event loop: that was the last offer
        return;
    offeredPosition = unconsumed.position;
    if (taker)
        taker(unconsumed.data);
    if (socket) // the taker may have ended it, too
        emitOffer(unconsumed, *socket);
    active = std::chrono::steady_clock::now();
}

// left: by a cut.
void TcpClient2::offerRemainder(qsizetype left)
{
    if (left <= ReofferAboveBytes)
        return;
    CWRN(QtDebugMsg, QStringLiteral("TcpClient: inbuf still %1 bytes, triggering"),
         static_cast<qint64>(left));
    const Snapshot unconsumed = snapshot();
    if (unconsumed.data.isEmpty()) // the host has cut what it was not offered
        return;
    offer(unconsumed);
    lastEmit = Clock::now();
}

void TcpClient2::emitOffer(const Snapshot &unconsumed, QTcpSocket &from)
{
    static const QMetaMethod signal = QMetaMethod::fromSignal(&TcpClient2::readyRead);
    if (!isSignalConnected(signal))
        return;
    Connection c;
    c.setData(unconsumed.data);
    {
        const QMutexLocker locker(&socketMutex);
        c.setSenderHost(from.peerAddress());
        c.setSenderPort(from.peerPort());
        c.setLocalAddress(from.localAddress());
        c.setLocalPort(from.localPort());
    }
    Q_EMIT readyRead(c, id);
}

void TcpClient2::mdisconnected()
{
    const Reentry reentry;
    if (!socket) // closed before, or never open
        return;
    if (plain)
        plain->setReader(nullptr);
    else
        disconnect(socket, &QIODevice::readyRead, this, &TcpClient2::mreadyRead);
    // What has come in belongs to the last offer, also what the event loop has not seen yet:
    // close() throws it away.
    if (socket->state() == QAbstractSocket::ConnectedState)
        socket->waitForReadyRead(0);
    if (!socket) // it found the peer gone, and that has run this function already
        return;
    if (socket->bytesAvailable() > 0)
        appendAvailable();

    if (!socket) // the end came once more, from within a log line
        return;

    // Before anything that may run the event loop: nobody else ends this socket.
    QTcpSocket *closing = nullptr;
    {
        const QMutexLocker locker(&socketMutex);
        closing = std::exchange(socket, nullptr);
        plain = nullptr;
    }
    disconnect(closing, &QAbstractSocket::disconnected, this, &TcpClient2::mdisconnected);
    const Snapshot last = takeRest();
    offeredPosition = last.position;
    if (!last.data.isEmpty())
        emitOffer(last, *closing);
    idleTimer.stop();
    CWRN(QtDebugMsg,
         QStringLiteral("TcpClient: closing connection %1 (received %2 bytes, %3 msgs)"), id,
         bytesReceived, msgsReceived);
    closing->close();
    Reentry::deleteLater(closing);
    // Deliberate: the host sees the last record when the line is written and the socket is closed.
    if (!last.data.isEmpty() && taker)
        taker(last.data);
    Q_EMIT disconnected(id);
}

void TcpClient2::mreadyRead()
{
    const Reentry reentry;
    if (!appendAvailable())
        return;
    const qint64 now = Clock::now();
    if (!isOfferDue(now, OfferIntervalMs)) {
        offerRemainder(leftByRecentCut());
        return;
    }
    const Snapshot unconsumed = snapshot();
    if (unconsumed.data.isEmpty()) // the host has cut what it was not offered
        return;
    offer(unconsumed);
    lastEmit = now;
}

void TcpClient2::cutInbuf(int len)
{
    cutFront(len);
}

void TcpClient2::cutTo(quint64 position)
{
    qsizetype len = 0;
    {
        const QReadLocker locker(&inbufLock);
        len = lengthTo(position);
    }
    if (len > 0)
        cutFront(len);
}

void TcpClient2::cutFront(qsizetype len)
{
    qsizetype left = 0;
    {
        const QWriteLocker locker(&inbufLock);
        bytesCut += static_cast<quint64>(inbuf.cutFront(len));
        recentCut.reset(); // that one was made before
        left = inbuf.size();
    }
    offerRemainder(left);
}

// Offers put the time-out off. They come far more often than the timer, so they only leave word,
// and the timer is set to the rest when its time has come.
void TcpClient2::checkIdle()
{
    using namespace std::chrono;
    const auto rest = ceil<milliseconds>(active + idleTimeout - steady_clock::now());
    if (rest > 0ms)
        idleTimer.start(rest);
    else // never from inside the timer
        QMetaObject::invokeMethod(this, &TcpClient2::timeout, Qt::QueuedConnection);
}

void TcpClient2::timeout()
{
    const Reentry reentry;
    CWRN(QtDebugMsg, QStringLiteral("TcpClient: timeout"));
    mdisconnected();
}

void TcpClient2::checkData()
{
    const Reentry reentry;
    const qint64 now = Clock::now();
    const Snapshot unconsumed = snapshot();
    const qsizetype size = unconsumed.data.size();
    if (size <= KickAboveBytes)
        return;
    startCheckTimer();
    if (!isOfferDue(now, KickAfterMs))
        return;

    // Deliberate: the size is passed although the text has no place for it. Qt warns of that, and
    // operators search for both lines.
    CWRN(QtInfoMsg, QStringLiteral("TcpClient: inbuf parsing stopped, kicking"),
         static_cast<qint64>(size));
    offer(unconsumed);
    lastEmit = now;
}

// Reads all that the socket holds; false if that was nothing.
bool TcpClient2::appendAvailable()
{
    int msgsize = -1;
    bool valid = false;
    {
        const QMutexLocker locker(&socketMutex);
        valid = isSocketValid();
        if (valid)
            msgsize = static_cast<int>(socket->bytesAvailable());
    }
    if (!valid)
        CWRN(QtWarningMsg, QStringLiteral("TcpClient2 (%1): socket not valid (1)"), id);
    if (msgsize <= 0)
        return false;

    if (!idBuilt)
        deriveId();
    if (msgsize > LogReadAboveBytes)
        CWRN(QtInfoMsg, QStringLiteral("TcpClient2 (%1): msgsize = %2"), id, msgsize);

    {
        const QMutexLocker locker(&socketMutex);
        valid = isSocketValid();
    }
    if (!valid)
        CWRN(QtWarningMsg, QStringLiteral("TcpClient2 (%1): socket not valid (2)"), id);
    const qsizetype size = valid ? takeIn(msgsize) : 0;
    if (size == 0)
        return false;

    bytesReceived += msgsize;
    ++msgsReceived;
    if (size > KickAboveBytes && !checkTimer.isActive())
        checkLater();
    return true;
}

// A ReceivingSocket stays valid until its client closes it. The caller holds socketMutex.
bool TcpClient2::isSocketValid() const
{
    return plain || (socket && socket->isValid());
}

// Reads what is available straight into the buffer, which emits nothing; its size, or 0 if nothing
// came.
qsizetype TcpClient2::takeIn(int msgsize)
{
    const QWriteLocker locker(&inbufLock);
    if (QByteArray block = plain ? plain->takeBlock(msgsize) : QByteArray(); !block.isEmpty()) {
        inbuf.appendBlock(std::move(block));
        return inbuf.size();
    }
    char *const room = inbuf.extend(msgsize);
    const qint64 size = plain ? plain->take(room, msgsize) : socket->read(room, msgsize);
    const qint64 came = std::max<qint64>(size, 0);
    inbuf.chop(msgsize - came);
    return came > 0 ? inbuf.size() : 0;
}

void TcpClient2::checkLater()
{
    if (!watch)
        startCheckTimer();
    else if (place == BacklogWatch::None)
        place = watch->add(this);
}

void TcpClient2::endWatch()
{
    place = BacklogWatch::None;
    bool stale = false;
    {
        const QReadLocker locker(&inbufLock);
        stale = inbuf.size() > KickAboveBytes;
    }
    if (stale && !checkTimer.isActive())
        startCheckTimer();
}

// Checks come at multiples of the interval since the client was made. A thread with thousands of
// clients would do little else than check buffers, most of them empty: those are left out.
void TcpClient2::startCheckTimer()
{
    const auto age = std::chrono::steady_clock::now() - created;
    checkTimer.start(
            std::chrono::ceil<std::chrono::milliseconds>(CheckInterval - age % CheckInterval));
}

// The task forms the id with the address that the server listens on, which may be a wildcard; the
// socket knows the real one.
void TcpClient2::deriveId()
{
    QString local;
    QString peer;
    quint16 localPort = 0;
    quint16 peerPort = 0;
    {
        const QMutexLocker locker(&socketMutex);
        local = socket->localAddress().toString();
        localPort = socket->localPort();
        peer = socket->peerAddress().toString();
        peerPort = socket->peerPort();
    }
    CWRN(QtDebugMsg, QStringLiteral("TCP READ: %1:%2 (%3:%4)"), local, localPort, peer, peerPort);
    if (idBuilt || !socket) // another read, or the end, came from within the line
        return;

    const QString oid = id;
    {
        const QMutexLocker locker(&socketMutex);
        id = clientId(local, localPort, peer, peerPort);
    }
    idBuilt = true;
    if (id != oid)
        Q_EMIT idChanged(oid, id);
}

// A clock that was set back counts as a long time: nothing may wait for it to catch up.
bool TcpClient2::isOfferDue(qint64 now, qint64 intervalMs) const
{
    return now - lastEmit > intervalMs || now < lastEmit;
}
