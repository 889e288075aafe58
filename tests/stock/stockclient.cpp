// SPDX-FileCopyrightText: the tcpinputplugin2 authors
// SPDX-License-Identifier: MIT

#include "stockclient.h"

#include "planted.h"
#include "plugin/cwrn.h"

#include <QtCore/QDateTime>
#include <QtCore/QVariant>
#include <QtNetwork/QTcpSocket>

namespace stock {

namespace {

const qint64 OfferIntervalMs = plantedOr("interval-100", 100, 200);
const qint64 KickAfterMs = plantedOr("kick-soon", 900, 2000);
const int CheckIntervalMs = plantedOr("kick-soon", 1000, 2000);
constexpr int LogReadAboveBytes = 1000;
const qsizetype ReofferAboveBytes = plantedOr("reoffer-19", 19, 20);
const qsizetype KickAboveBytes = plantedOr("kick-79", 79, 80);

} // namespace

Client::Client(QObject *parent, const QString &clientId, QTcpSocket *connected, int timeoutMs)
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

    connect(socket, &QIODevice::readyRead, this, &Client::mreadyRead, Qt::AutoConnection);
    connect(socket, &QAbstractSocket::disconnected, this, &Client::mdisconnected,
            Qt::AutoConnection);
    connect(&idleTimer, &QTimer::timeout, this, &Client::timeout, Qt::QueuedConnection);
    connect(this, &Client::cut, this, &Client::cutInbuf, Qt::QueuedConnection);
    connect(&checkTimer, &QTimer::timeout, this, &Client::checkData, Qt::AutoConnection);

    idleTimer.start();
    checkTimer.start();

    const QMutexLocker locker(&socketMutex);
    socket->setSocketOption(QAbstractSocket::KeepAliveOption, QVariant(true));
    if (!socket->parent())
        socket->setParent(this);
}

Client::~Client()
{
    idleTimer.stop();
    checkTimer.stop();
    if (!socket)
        return;
    socket->disconnect(this); // closing runs no slot of an object that is being destroyed
    if (socket->isOpen())
        socket->close();
    socket->deleteLater();
}

QString Client::getId() const
{
    const QMutexLocker locker(&socketMutex);
    return id;
}

void Client::discard(int len)
{
    Q_EMIT cut(len);
}

void Client::emitData()
{
    Connection c;
    {
        const QReadLocker locker(&inbufLock);
        c.setData(inbuf);
    }
    {
        const QMutexLocker locker(&socketMutex);
        c.setSenderHost(socket->peerAddress());
        c.setSenderPort(socket->peerPort());
        c.setLocalAddress(socket->localAddress());
        c.setLocalPort(socket->localPort());
    }
    Q_EMIT readyRead(c, id);
    if (!isPlanted("idle-not-renewed"))
        idleTimer.start();
}

void Client::mdisconnected()
{
    if (!socket) // a second call: it has ended before
        return;
    if (bufferedSize() > 0) {
        if (!isPlanted("no-last-offer"))
            emitData();
        const QWriteLocker locker(&inbufLock);
        inbuf.clear();
    }
    CWRN(QtDebugMsg,
         QStringLiteral("TcpClient: closing connection %1 (received %2 bytes, %3 msgs)"), id,
         bytesReceived, msgsReceived);
    disconnect(socket, &QAbstractSocket::disconnected, this, &Client::mdisconnected);
    disconnect(socket, &QIODevice::readyRead, this, &Client::mreadyRead);
    idleTimer.stop();
    {
        const QMutexLocker locker(&socketMutex);
        socket->close();
        socket->deleteLater();
        socket = nullptr;
    }
    Q_EMIT disconnected(id);
}

void Client::mreadyRead()
{
    const int msgsize = availableSize();
    if (msgsize <= 0)
        return;
    if (!idBuilt)
        buildId();
    if (msgsize > LogReadAboveBytes)
        CWRN(QtInfoMsg, QStringLiteral("TcpClient2 (%1): msgsize = %2"), id, msgsize);

    const QByteArray data = readAvailable(msgsize);
    if (data.isEmpty())
        return;
    const qint64 now = QDateTime::currentMSecsSinceEpoch();
    bytesReceived += msgsize;
    ++msgsReceived;
    {
        const QWriteLocker locker(&inbufLock);
        inbuf.append(data);
    }
    if (now - lastEmit > OfferIntervalMs) {
        emitData();
        lastEmit = now;
    }
}

int Client::availableSize()
{
    {
        const QMutexLocker locker(&socketMutex);
        if (socket->isValid())
            return static_cast<int>(socket->bytesAvailable());
    }
    CWRN(QtWarningMsg, QStringLiteral("TcpClient2 (%1): socket not valid (1)"), id);
    return -1;
}

void Client::buildId()
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
        id = QStringLiteral("tcp2:") + local + QStringLiteral(":%1-").arg(localPort) + peer
                + QStringLiteral(":%1").arg(peerPort);
    }
    CWRN(QtDebugMsg, QStringLiteral("TCP READ: %1:%2 (%3:%4)"), local, localPort, peer, peerPort);
    idBuilt = true;
    if (id != oid)
        Q_EMIT idChanged(oid, id);
}

QByteArray Client::readAvailable(int msgsize)
{
    {
        const QMutexLocker locker(&socketMutex);
        if (socket->isValid())
            return socket->read(msgsize);
    }
    CWRN(QtWarningMsg, QStringLiteral("TcpClient2 (%1): socket not valid (2)"), id);
    return {};
}

void Client::cutInbuf(int len)
{
    qsizetype remaining = 0;
    {
        const QWriteLocker locker(&inbufLock);
        if (len > 0)
            inbuf.remove(0, plantedOr("cuts-one-more", len + 1, len));
        remaining = inbuf.size();
    }
    if (remaining <= ReofferAboveBytes)
        return;
    CWRN(QtDebugMsg, QStringLiteral("TcpClient: inbuf still %1 bytes, triggering"),
         static_cast<qint64>(remaining));
    emitData();
    lastEmit = QDateTime::currentMSecsSinceEpoch();
}

void Client::timeout()
{
    CWRN(QtDebugMsg, QStringLiteral("TcpClient: timeout"));
    idleTimer.stop();
    QTcpSocket *closing = nullptr;
    {
        const QMutexLocker locker(&socketMutex);
        closing = socket;
    }
    if (closing) // not under the mutex: this runs mdisconnected(), which takes it
        closing->close();
}

void Client::checkData()
{
    const qint64 now = QDateTime::currentMSecsSinceEpoch();
    const qsizetype size = bufferedSize();
    if (size <= KickAboveBytes || now - lastEmit <= KickAfterMs)
        return;
    CWRN(QtInfoMsg, QStringLiteral("TcpClient: inbuf parsing stopped, kicking"),
         static_cast<qint64>(size));
    emitData();
    lastEmit = now;
}

qsizetype Client::bufferedSize() const
{
    const QReadLocker locker(&inbufLock);
    return inbuf.size();
}

} // namespace stock
