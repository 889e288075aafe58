// SPDX-FileCopyrightText: the tcpinputplugin2 authors
// SPDX-License-Identifier: MIT

#pragma once

#include "tcpinput/receive/transport.h"

#include <QtNetwork/QTcpSocket>

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
    QByteArray takeBlock(qint64) override { return {}; }
    qint64 take(char *data, qint64 maxSize) override { return socket.read(data, maxSize); }

private:
    QTcpSocket &socket;
    QMetaObject::Connection connection;
};
