// SPDX-FileCopyrightText: the tcpinputplugin2 authors
// SPDX-License-Identifier: MIT

#include "stocktask.h"

#include "planted.h"
#include "plugin/cwrn.h"
#include "stockclient.h"

#include <QtCore/QCoreApplication>
#include <QtCore/QEvent>
#include <QtCore/QEventLoop>
#include <QtCore/QThread>
#include <QtNetwork/QSslServer>
#include <QtNetwork/QTcpSocket>

#include <utility>

namespace stock {

namespace {

constexpr int StopProcessingMs = 10;

qint64 threadNumber()
{
    return static_cast<qint64>(reinterpret_cast<quintptr>(QThread::currentThreadId()));
}

QString idOf(const QString &local, quint16 localPort, const QString &peer, quint16 peerPort)
{
    return QStringLiteral("tcp2:") + local + QStringLiteral(":%1-").arg(localPort) + peer
            + QStringLiteral(":%1").arg(peerPort);
}

} // namespace

Task::~Task()
{
    if (QThread::currentThread() == thread())
        endClients();
}

// Delivers the queued calls that would die with the task: connections to be added, and last offers.
void Task::endClients()
{
    qsizetype ended = 0;
    auto all = findChildren<Client *>(QString(), Qt::FindDirectChildrenOnly);
    do {
        ended = all.size();
        for (Client *client : std::as_const(all))
            client->mdisconnected();
        QCoreApplication::sendPostedEvents(this, QEvent::MetaCall);
        all = findChildren<Client *>(QString(), Qt::FindDirectChildrenOnly);
    } while (all.size() > ended);
}

void Task::discard(int length, const QMap<QString, QString> &subid)
{
    const auto id = subid.constFind(QStringLiteral("client"));
    if (id == subid.constEnd()) {
        CWRN(QtDebugMsg, QStringLiteral("TcpTask2: subid[client] not set"));
        return;
    }
    {
        const QReadLocker locker(&clientsLock);
        if (Client *client = clients.value(*id)) {
            client->discard(length); // only posts
            return;
        }
    }
    CWRN(QtDebugMsg, QStringLiteral("TcpTask2: discard for non-existing client %1"), *id);
}

bool Task::event(QEvent *event)
{
    // stop() processes events, and the plugin's deleteLater() may be one of them.
    if (event->type() == QEvent::DeferredDelete && stopsOnStack > 0) {
        deletionPending = true;
        return true;
    }
    return QObject::event(event);
}

void Task::logSize(const QString &id)
{
    CWRN(QtDebugMsg, QStringLiteral("  TcpTask2: id = %1, #clients = %2, id = %3"), id,
         static_cast<qint64>(clients.size()), threadNumber());
}

void Task::addConnection(Connection conn)
{
    CWRN(QtDebugMsg,
         conn.getSsl() ? QStringLiteral("TcpTask2: Handling SSL connection, %1")
                       : QStringLiteral("TcpTask2: Handling TCP connection, %1"),
         threadNumber());
    QTcpServer *server = conn.getSsl() ? conn.getSslServer() : conn.getTcpServer();
    QTcpSocket *socket = server->nextPendingConnection();
    if (!socket) {
        CWRN(QtWarningMsg, QStringLiteral("TcpTask2: Creating receiving socket failed"));
        return;
    }
    conn.setSocket(socket);
    conn.setSenderHost(socket->peerAddress());
    conn.setSenderPort(socket->peerPort());
    const QString id = idOf(conn.getLocalAddress().toString(), conn.getLocalPort(),
                            conn.getSenderHost().toString(), conn.getSenderPort());
    CWRN(QtDebugMsg, QStringLiteral("TcpTask2: new connection %1"), id);

    auto *client = new Client(this, id, socket, conn.getTimeout());
    {
        const QWriteLocker locker(&clientsLock); // also for stopTimer: see stop()
        connectClient(client);
        clients.insert(id, client);
    }
    CWRN(QtDebugMsg, QStringLiteral("TcpTask2 (%1): new client added, size = %2"), num,
         static_cast<qint64>(clients.size()));
}

void Task::connectClient(Client *client)
{
    connect(client, &Client::disconnected, this, &Task::disconnected, Qt::QueuedConnection);
    connect(client, &Client::readyRead, this, &Task::readyRead, Qt::QueuedConnection);
    connect(client, &Client::idChanged, this, &Task::idChanged, Qt::QueuedConnection);
    connect(this, &Task::stopTimer, client, &Client::mdisconnected, Qt::QueuedConnection);
}

void Task::disconnected(const QString &id)
{
    Client *client = clients.value(id);
    if (!client)
        return;
    disconnect(client, &Client::disconnected, this, &Task::disconnected);
    disconnect(client, &Client::readyRead, this, &Task::readyRead);
    disconnect(client, &Client::idChanged, this, &Task::idChanged);
    const QWriteLocker locker(&clientsLock);
    client->deleteLater();
    clients.remove(id);
}

void Task::readyRead(Connection c, const QString &id)
{
    const QString source = idOf(c.getLocalAddress().toString(), c.getLocalPort(),
                                c.getSenderHost().toString(), c.getSenderPort());
    const shared_parsedData record(new ParsedData);
    record->setPeerAddress(c.getSenderHost().toString());
    record->setPeerPort(c.getSenderPort());
    record->setOriginalMessage(c.getData());
    record->setSource(isPlanted("source") ? source : QStringLiteral("TCP:") + source);
    record->addPluginSubId(QStringLiteral("client"), id);
    record->addPluginSubId(QStringLiteral("task"), QStringLiteral("%1").arg(num));
    Q_EMIT receivedData(record);
}

void Task::stop()
{
    {
        // The plugin's destructor calls stop() from another thread, while clients may be connected.
        const QReadLocker locker(&clientsLock);
        Q_EMIT stopTimer(); // only posts
    }
    const bool ownThread = QThread::currentThread() == thread();
    if (ownThread)
        ++stopsOnStack;
    QEventLoop().processEvents(QEventLoop::AllEvents, StopProcessingMs);
    if (ownThread && --stopsOnStack == 0 && deletionPending)
        delete this;
}

QString Task::getInfo(const QString &prefix)
{
    QStringList ids;
    {
        const QReadLocker locker(&clientsLock);
        for (const Client *client : std::as_const(clients))
            ids.append(client->getId());
    }
    QString result;
    for (const QString &id : std::as_const(ids)) {
        const QStringList answer = query(QStringLiteral("lookup TCP:") + id);
        result += prefix + id + QStringLiteral("\r\n");
        if (answer.isEmpty())
            result += QStringLiteral("      (empty %1)\r\n").arg(answer.size());
        else
            result += QStringLiteral("      ") + answer.first() + QStringLiteral("\r\n");
    }
    return result;
}

void Task::idChanged(const QString &oid, const QString &id)
{
    const QWriteLocker locker(&clientsLock);
    Client *client = clients.value(oid);
    if (!client)
        return;
    clients.insert(id, client);
    clients.remove(oid);
}

} // namespace stock
