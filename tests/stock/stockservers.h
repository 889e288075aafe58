// SPDX-FileCopyrightText: the tcpinputplugin2 authors
// SPDX-License-Identifier: MIT

#pragma once

#include <QtCore/QMutex>
#include <QtNetwork/QSslServer>
#include <QtNetwork/QTcpServer>

#include <deque>

namespace stock {

/*!
    Qt's servers, with only the changes that let another thread take their connections. Unchanged,
    Qt hands out sockets that stay in the server's thread.

    Thread: their creator's, except hasPendingConnections() and nextPendingConnection(): any.
    Owner:  the plugin.
    Locks:  mutex; never held while emitting.
*/
class TcpServer : public QTcpServer
{
public:
    explicit TcpServer(QObject *parent);
    ~TcpServer() override;

    void close(); // hides QTcpServer's, which is not virtual
    bool hasPendingConnections() const override;
    // Made in the calling thread; null if none is pending.
    QTcpSocket *nextPendingConnection() override;

protected:
    void incomingConnection(qintptr descriptor) override;

private:
    struct Accepted;

    mutable QMutex mutex;
    std::deque<Accepted> pending; // guarded by mutex
};

//! The same for TLS: a socket whose handshake is done is detached from the server's thread.
class SslServer : public QSslServer
{
public:
    explicit SslServer(QObject *parent);
    ~SslServer() override;

    void close(); // hides QTcpServer's, which is not virtual
    bool hasPendingConnections() const override;
    // Moved into the calling thread; null if none is pending.
    QTcpSocket *nextPendingConnection() override;

private:
    void finishedInQt();
    void detachFinished();

    bool detaching = false; // this and the next: the server's thread only
    bool announcing = false;
    mutable QMutex mutex;
    std::deque<QTcpSocket *> ready; // guarded by mutex; the sockets live in no thread
};

} // namespace stock
