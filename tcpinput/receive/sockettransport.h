// SPDX-FileCopyrightText: the tcpinputplugin2 authors
// SPDX-License-Identifier: MIT

#pragma once

#include "tcpinput/receive/peerend.h"
#include "tcpinput/receive/transport.h"

#include <QtCore/QSocketNotifier>
#include <QtNetwork/QTcpSocket>

#include <sys/socket.h>

/*!
    Receives from any socket of Qt's, by its signal and through its device layer.

    Thread: the socket's.
    Owner:  its maker, who deletes it before the socket.
*/
class SocketTransport final : public Transport
{
public:
    explicit SocketTransport(QTcpSocket &from) : socket(from) {}
    ~SocketTransport() override { SocketTransport::setReader(nullptr); }
    Q_DISABLE_COPY_MOVE(SocketTransport)

    void setReader(TransportReader *value) override
    {
        QObject::disconnect(connection);
        if (value)
            connection = QObject::connect(&socket, &QIODevice::readyRead, &socket,
                                          [value] { value->bytesCame(); });
    }
    bool isUsable() const override { return socket.isValid(); }
    // Qt does not tell a reset from a FIN.
    EndReason endReason() const override
    {
        switch (socket.error()) {
        case QAbstractSocket::SslInternalError:
        case QAbstractSocket::SslInvalidUserDataError:
            return EndReason::Tls;
        case QAbstractSocket::NetworkError:
        case QAbstractSocket::SocketTimeoutError:
            return EndReason::Reset;
        default:
            return EndReason::Peer;
        }
    }
    QString failure() const override
    {
        return endReason() == EndReason::Reset ? socket.errorString() : QString();
    }
    // Qt receives in its notifiers.
    void setPaused(bool on) override
    {
        const auto notifiers = socket.findChildren<QSocketNotifier *>();
        for (QSocketNotifier *notifier : notifiers) {
            if (notifier->type() == QSocketNotifier::Read)
                notifier->setEnabled(!on);
        }
        if (on)
            return;
        // Has Qt go on with what it has received and not decrypted: nothing else would.
        char first = 0;
        socket.peek(&first, 1);
        // What came meanwhile was not read.
        QMetaObject::invokeMethod(
                &socket,
                [from = &socket] {
                    if (from->bytesAvailable() > 0)
                        Q_EMIT from->readyRead();
                },
                Qt::QueuedConnection);
    }
    // Qt cannot say close_notify and read on: with TLS, the FIN comes alone.
    void endWriting() override
    {
        if (socket.state() == QAbstractSocket::ConnectedState)
            ::shutdown(static_cast<int>(socket.socketDescriptor()), SHUT_WR);
    }
    bool peerHasEnded() const override { return hasPeerEnded(socket.socketDescriptor()); }
    void setLimited(bool on) override { socket.setReadBufferSize(on ? MostAheadBytes : 0); }
    QByteArray takeBlock(qint64) override { return {}; }
    qint64 take(char *data, qint64 maxSize) override { return socket.read(data, maxSize); }

private:
    static constexpr qint64 MostAheadBytes = 64 * 1024; // and as many before decryption

    QTcpSocket &socket;
    QMetaObject::Connection connection;
};
