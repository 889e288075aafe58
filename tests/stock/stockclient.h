// SPDX-FileCopyrightText: the tcpinputplugin2 authors
// SPDX-License-Identifier: MIT

#pragma once

#include "plugin/connection.h"

#include <QtCore/QByteArray>
#include <QtCore/QMutex>
#include <QtCore/QObject>
#include <QtCore/QReadWriteLock>
#include <QtCore/QString>
#include <QtCore/QTimer>

class QTcpSocket;

namespace stock {

/*!
    One accepted connection in its plainest form: reads, buffers, offers, cuts, each by Qt's own
    means and with no regard for what it costs.

    Thread: its task's worker thread; discard() and getId() from any.
    Owner:  the Task that made it (QObject parent).
    Locks:  inbufLock, socketMutex; never held together, never while emitting.
*/
class Client : public QObject
{
    Q_OBJECT

public:
    // connected: not null. timeoutMs: idle time-out.
    Client(QObject *parent, const QString &clientId, QTcpSocket *connected, int timeoutMs);
    ~Client() override;

    QString getId() const;
    // Cuts later, in the client's thread.
    void discard(int len);

Q_SIGNALS:
    void disconnected(QString id);
    void readyRead(Connection c, QString id);
    void cut(int len);
    void idChanged(const QString &oid, const QString &id);

public Q_SLOTS:
    void mdisconnected();
    void mreadyRead();
    void cutInbuf(int len);

private Q_SLOTS:
    void timeout();
    void checkData();

private:
    void emitData();
    int availableSize();
    void buildId();
    QByteArray readAvailable(int msgsize);
    qsizetype bufferedSize() const;

    mutable QReadWriteLock inbufLock;
    mutable QMutex socketMutex;
    QTcpSocket *socket; // guarded by socketMutex; null when the connection has ended
    QString id; // guarded by socketMutex where other threads read it
    QTimer idleTimer; // this and all that follows, except inbuf: the client's thread only
    QTimer checkTimer;
    QByteArray inbuf; // guarded by inbufLock
    qint64 lastEmit = 0; // ms since the epoch
    qint64 bytesReceived = 0;
    qint64 msgsReceived = 0;
    bool idBuilt = false;
};

} // namespace stock
