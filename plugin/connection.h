// SPDX-FileCopyrightText: the tcpinputplugin2 authors
// SPDX-License-Identifier: MIT

#pragma once

#include <QtCore/QByteArray>
#include <QtCore/QMetaType>
#include <QtCore/QString>
#include <QtNetwork/QHostAddress>

class QSslServer;
class QTcpServer;
class QTcpSocket;
class QUdpSocket;

/*!
    A value that describes one accepted connection, or one chunk of data received on it.

    Thread: any; a value, each thread works on its own copy.
    Owner:  owns nothing. The sockets and servers that it points to belong to other objects and live
            in other threads.
*/
class Q_DECL_EXPORT Connection
{
public:
    QByteArray getData() const { return data; }
    void setData(const QByteArray &value) { data = value; }

    QHostAddress getSenderHost() const { return senderHost; }
    void setSenderHost(const QHostAddress &value) { senderHost = value; }

    QHostAddress getLocalAddress() const { return localAddress; }
    void setLocalAddress(const QHostAddress &value) { localAddress = value; }

    unsigned short getSenderPort() const { return senderPort; }
    void setSenderPort(unsigned short value) { senderPort = value; }

    unsigned short getLocalPort() const { return localPort; }
    void setLocalPort(unsigned short value) { localPort = value; }

    QString getPluginId() const { return pluginId; }
    void setPluginId(const QString &value) { pluginId = value; }

    QTcpSocket *getSocket() const { return socket; }
    void setSocket(QTcpSocket *value) { socket = value; }

    // For other kinds of input plugin; this one neither sets nor reads it.
    QUdpSocket *getUdpSocket() const { return udpSocket; }
    void setUdpSocket(QUdpSocket *value) { udpSocket = value; }

    // Idle time-out in milliseconds.
    int getTimeout() const { return timeout; }
    void setTimeout(int value) { timeout = value; }

    // True if the connection came through the TLS server.
    bool getSsl() const { return ssl; }
    void setSsl(bool value) { ssl = value; }

    QTcpServer *getTcpServer() const { return tcpServer; }
    void setTcpServer(QTcpServer *value) { tcpServer = value; }

    QSslServer *getSslServer() const { return sslServer; }
    void setSslServer(QSslServer *value) { sslServer = value; }

private:
    // Binary interface: the order is fixed.
    QByteArray data;
    QHostAddress senderHost;
    QHostAddress localAddress;
    unsigned short senderPort = 0;
    unsigned short localPort = 0;
    QString pluginId;
    QTcpSocket *socket = nullptr;
    QUdpSocket *udpSocket = nullptr;
    int timeout = 0;
    bool ssl = false;
    QTcpServer *tcpServer = nullptr;
    QSslServer *sslServer = nullptr;
};
Q_DECLARE_METATYPE(Connection)
