// SPDX-FileCopyrightText: the tcpinputplugin2 authors
// SPDX-License-Identifier: MIT

#pragma once

#include "tcpinput/tcpclient2.h"
#include "tests/kit/eventlog.h"
#include "tests/kit/hangguard.h"
#include "tests/kit/nativesocket.h"
#include "tests/tcpinput/clientprobes.h"

#include <QtCore/QList>
#include <QtCore/QPointer>
#include <QtNetwork/QTcpSocket>

#include <memory>

/*!
    A client on a real connection with the device at its other end. It notes what the client emits
    among the log lines, and keeps the offers.

    Nothing here runs an event loop: a test decides when what is read.
*/
class ConnectedClient
{
public:
    explicit ConnectedClient(const QString &id = QStringLiteral("given"), int timeoutMs = 600000)
        : ConnectedClient(nullptr, id, timeoutMs)
    {}

    ConnectedClient(QObject *socketParent, const QString &id, int timeoutMs)
    {
        makeSocket(socketParent);
        makeClient(id, timeoutMs);
    }

    // For tests that prepare the socket before its client is made.
    struct WithoutClient
    {};
    explicit ConnectedClient(WithoutClient) { makeSocket(nullptr); }

    ~ConnectedClient()
    {
        client.reset();
        if (socket && !socket->parent())
            delete socket;
    }
    Q_DISABLE_COPY_MOVE(ConnectedClient)

    void makeClient(const QString &id, int timeoutMs = 600000)
    {
        client = std::make_unique<TcpClient2>(nullptr, id, socket, timeoutMs);
        TcpClient2 *const emitter = client.get();
        QObject::connect(socket, &QIODevice::aboutToClose, emitter,
                         [this, emitter] { noLockHeld = noLockHeld && holdsNoLock(*emitter); });
        QObject::connect(emitter, &TcpClient2::idChanged,
                         [this, emitter](const QString &oid, const QString &changed) {
                             noLockHeld = noLockHeld && holdsNoLock(*emitter);
                             EventLog::note(QStringLiteral("idChanged %1 to %2").arg(oid, changed));
                         });
        QObject::connect(emitter, &TcpClient2::readyRead,
                         [this, emitter](const Connection &c, const QString &by) {
                             noLockHeld = noLockHeld && holdsNoLock(*emitter);
                             offers.append(c);
                             EventLog::note(QStringLiteral("offer of %1 bytes by %2")
                                                    .arg(c.getData().size())
                                                    .arg(by));
                         });
        QObject::connect(emitter, &TcpClient2::disconnected, [this, emitter](const QString &which) {
            noLockHeld = noLockHeld && holdsNoLock(*emitter);
            EventLog::note(QStringLiteral("disconnected ") + which);
        });
    }

    // When this returns, the socket has read the bytes, and the client has read them, once.
    bool deliver(const QByteArray &bytes)
    {
        return device.send(bytes) && arrived(int(bytes.size()))
                && socket->waitForReadyRead(HangGuardMs);
    }
    // The bytes are in the kernel when this returns.
    bool sendUnseen(const QByteArray &bytes)
    {
        return device.send(bytes) && arrived(int(bytes.size()));
    }
    // The socket has read the bytes when this returns, but the client has not.
    bool deliverBehindTheClient(const QByteArray &bytes)
    {
        const QSignalBlocker blocker(socket);
        return deliver(bytes);
    }

    bool arrived(int bytes) const
    {
        return NativeSocket::waitForArrival(int(socket->socketDescriptor()), bytes);
    }
    bool peerEndArrived() const
    {
        return NativeSocket::waitForPeerEnd(int(socket->socketDescriptor()));
    }

    QList<QByteArray> takeOffers()
    {
        QList<QByteArray> data;
        for (const Connection &offer : std::exchange(offers, {}))
            data.append(offer.getData());
        return data;
    }

    // The id that the client derives.
    QString derivedId() const
    {
        return QStringLiteral("tcp2:%1:%2-%3:%4")
                .arg(localAddress())
                .arg(localPort)
                .arg(peerAddress())
                .arg(peerPort);
    }
    static QString localAddress() { return QStringLiteral("127.61.0.1"); }
    static QString peerAddress() { return QStringLiteral("127.61.0.2"); }

    NativeSocket device;
    QPointer<QTcpSocket> socket; // the client's, or its parent's
    quint16 localPort = 0;
    quint16 peerPort = 0;
    QList<Connection> offers;
    bool noLockHeld = true; // at any emission, and when the socket was closed
    std::unique_ptr<TcpClient2> client;

private:
    void makeSocket(QObject *parent)
    {
        SocketPair pair =
                SocketPair::connected(QHostAddress(localAddress()), QHostAddress(peerAddress()));
        device = std::move(pair.device);
        localPort = pair.localPort;
        peerPort = pair.peerPort;
        socket = new QTcpSocket(parent);
        socket->setSocketDescriptor(pair.accepted.release());
    }
};
