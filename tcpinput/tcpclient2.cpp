// SPDX-FileCopyrightText: the tcpinputplugin2 authors
// SPDX-License-Identifier: MIT

#include "tcpinput/tcpclient2.h"

#include "plugin/cwrn.h"
#include "tcpinput/clientid.h"
#include "tcpinput/clock.h"

#include <QtNetwork/QTcpSocket>

#include <algorithm>
#include <limits>
#include <utility>

namespace {

constexpr qint64 OfferIntervalMs = 200; // at most one offer per interval on the read path
constexpr qint64 KickAfterMs = 2000; // an offer that nobody answered is repeated after this
constexpr int CheckIntervalMs = 2000;
constexpr int LogReadAboveBytes = 1000;
constexpr qsizetype ReofferAboveBytes = 20; // left after a cut
constexpr qsizetype KickAboveBytes = 80;

} // namespace

TcpClient2::TcpClient2(QObject *parent) : QObject(parent) {}

TcpClient2::TcpClient2(QObject *parent, const QString &clientId, QTcpSocket *connected,
                       int timeoutMs)
    : QObject(parent),
      socket(connected),
      id(clientId),
      idleTimer(this)
{
    idleTimer.setInterval(timeoutMs);
    checkTimer.setInterval(CheckIntervalMs);

    CWRN(QtDebugMsg,
         QStringLiteral("TcpClient: id = '%1', local = '%2:%3'")
                 .arg(id, socket->localAddress().toString(), QString::number(socket->localPort())));

    connect(socket, &QIODevice::readyRead, this, &TcpClient2::mreadyRead, Qt::AutoConnection);
    connect(socket, &QAbstractSocket::disconnected, this, &TcpClient2::mdisconnected,
            Qt::AutoConnection);
    connect(&idleTimer, &QTimer::timeout, this, &TcpClient2::timeout, Qt::QueuedConnection);
    connect(this, &TcpClient2::cut, this, &TcpClient2::cutInbuf, Qt::QueuedConnection);
    connect(&checkTimer, &QTimer::timeout, this, &TcpClient2::checkData, Qt::AutoConnection);

    idleTimer.start();
    checkTimer.start();

    const QMutexLocker locker(&socketMutex);
    socket->setSocketOption(QAbstractSocket::KeepAliveOption, QVariant(true));
    if (!socket->parent())
        socket->setParent(this);
}

TcpClient2::~TcpClient2()
{
    idleTimer.stop();
    checkTimer.stop();
    if (!socket)
        return;
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
    QMetaObject::invokeMethod(
            this, [this, position] { cutTo(position); }, Qt::QueuedConnection);
}

quint64 TcpClient2::takeOfferPosition()
{
    return positions.dequeue();
}

void TcpClient2::emitData()
{
    Connection c;
    {
        const QReadLocker locker(&inbufLock);
        c.setData(inbuf.copy());
    }
    {
        const QMutexLocker locker(&socketMutex);
        c.setSenderHost(socket->peerAddress());
        c.setSenderPort(socket->peerPort());
        c.setLocalAddress(socket->localAddress());
        c.setLocalPort(socket->localPort());
    }
    if (number != 0)
        positions.enqueue(bytesCut);
    Q_EMIT readyRead(c, id);
    idleTimer.start();
}

void TcpClient2::mdisconnected()
{
    if (!socket) // closed before, or never open
        return;
    disconnect(socket, &QIODevice::readyRead, this, &TcpClient2::mreadyRead);
    // What has come in belongs to the last offer, also what the event loop has not seen yet:
    // close() throws it away.
    if (socket->state() == QAbstractSocket::ConnectedState)
        socket->waitForReadyRead(0);
    if (!socket) // it found the peer gone, and that has run this function already
        return;
    if (socket->bytesAvailable() > 0)
        appendAvailable();

    int size = 0;
    {
        const QReadLocker locker(&inbufLock);
        size = static_cast<int>(inbuf.size());
    }
    if (size > 0) {
        emitData();
        const QWriteLocker locker(&inbufLock);
        inbuf.clear();
    }

    CWRN(QtDebugMsg,
         QStringLiteral("TcpClient: closing connection %1 (received %2 bytes, %3 msgs)"), id,
         bytesReceived, msgsReceived);
    disconnect(socket, &QAbstractSocket::disconnected, this, &TcpClient2::mdisconnected);
    idleTimer.stop();

    QTcpSocket *closing = nullptr;
    {
        const QMutexLocker locker(&socketMutex);
        closing = std::exchange(socket, nullptr);
    }
    closing->close();
    closing->deleteLater();
    Q_EMIT disconnected(id);
}

void TcpClient2::mreadyRead()
{
    if (!appendAvailable())
        return;
    const qint64 now = Clock::now();
    if (!isOfferDue(now, OfferIntervalMs))
        return;
    emitData();
    lastEmit = now;
}

void TcpClient2::cutInbuf(int len)
{
    cutFront(len);
}

void TcpClient2::cutTo(quint64 position)
{
    if (position <= bytesCut)
        return;
    constexpr auto Longest = static_cast<quint64>(std::numeric_limits<qsizetype>::max());
    cutFront(static_cast<qsizetype>(std::min(position - bytesCut, Longest)));
}

void TcpClient2::cutFront(qsizetype len)
{
    qsizetype remaining = 0;
    {
        const QWriteLocker locker(&inbufLock);
        bytesCut += static_cast<quint64>(inbuf.cutFront(len));
        remaining = inbuf.size();
    }
    if (remaining <= ReofferAboveBytes)
        return;

    CWRN(QtDebugMsg, QStringLiteral("TcpClient: inbuf still %1 bytes, triggering"),
         static_cast<qint64>(remaining));
    emitData();
    lastEmit = Clock::now();
}

void TcpClient2::timeout()
{
    CWRN(QtDebugMsg, QStringLiteral("TcpClient: timeout"));
    mdisconnected();
}

void TcpClient2::checkData()
{
    const qint64 now = Clock::now();
    qsizetype size = 0;
    {
        const QReadLocker locker(&inbufLock);
        size = inbuf.size();
    }
    if (size <= KickAboveBytes || !isOfferDue(now, KickAfterMs))
        return;

    // Deliberate: the size is passed although the text has no place for it. Qt warns of that, and
    // operators search for both lines.
    CWRN(QtInfoMsg, QStringLiteral("TcpClient: inbuf parsing stopped, kicking"),
         static_cast<qint64>(size));
    emitData();
    lastEmit = now;
}

// Reads all that the socket holds; false if that was nothing.
bool TcpClient2::appendAvailable()
{
    int msgsize = -1;
    bool valid = false;
    {
        const QMutexLocker locker(&socketMutex);
        valid = socket && socket->isValid();
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

    QByteArray data;
    {
        const QMutexLocker locker(&socketMutex);
        valid = socket && socket->isValid();
        if (valid)
            data = socket->read(msgsize);
    }
    if (!valid)
        CWRN(QtWarningMsg, QStringLiteral("TcpClient2 (%1): socket not valid (2)"), id);
    if (data.isEmpty())
        return false;

    bytesReceived += msgsize;
    ++msgsReceived;
    const QWriteLocker locker(&inbufLock);
    inbuf.append(std::move(data));
    return true;
}

// The task forms the id with the address that the server listens on, which may be a wildcard; the
// socket knows the real one.
void TcpClient2::deriveId()
{
    const QString oid = id;
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
        id = clientId(local, localPort, peer, peerPort);
    }
    CWRN(QtDebugMsg, QStringLiteral("TCP READ: %1:%2 (%3:%4)"), local, localPort, peer, peerPort);
    idBuilt = true;
    if (id != oid)
        Q_EMIT idChanged(oid, id);
}

// A clock that was set back counts as a long time: nothing may wait for it to catch up.
bool TcpClient2::isOfferDue(qint64 now, qint64 intervalMs) const
{
    return now - lastEmit > intervalMs || now < lastEmit;
}
