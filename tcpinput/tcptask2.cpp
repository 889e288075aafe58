// SPDX-FileCopyrightText: the tcpinputplugin2 authors
// SPDX-License-Identifier: MIT

#include "tcpinput/tcptask2.h"

#include "eventloop/epolleventdispatcher.h"
#include "plugin/cwrn.h"
#include "plugin/decimalnumber.h"
#include "tcpinput/accept/connectionsource.h"
#include "tcpinput/connection/clientid.h"
#include "tcpinput/farewell.h"
#include "tcpinput/limits/heldbytes.h"
#include "tcpinput/receive/recordmaker.h"
#include "tcpinput/tcpclient2.h"
#include "tcpinput/workers/threadid.h"

#include <QtCore/QCoreApplication>
#include <QtCore/QEvent>
#include <QtCore/QEventLoop>
#include <QtCore/QPointer>
#include <QtCore/QThread>
#include <QtNetwork/QSslServer>
#include <QtNetwork/QTcpSocket>

#include <algorithm>
#include <limits>
#include <optional>
#include <utility>

namespace {

constexpr int StopProcessingMs = 10;

// offset + length, limited to the range of quint64.
quint64 advance(quint64 offset, int length)
{
    const auto distance = static_cast<quint64>(std::abs(static_cast<qint64>(length)));
    if (length < 0)
        return offset - std::min(offset, distance);
    return offset + std::min(distance, std::numeric_limits<quint64>::max() - offset);
}

// A record may name any server of Qt's. A ConnectionSource knows more of the connection.
TakenConnection takeFrom(QTcpServer *server)
{
    if (auto *source = dynamic_cast<ConnectionSource *>(server))
        return source->take();
    TakenConnection taken{std::unique_ptr<QTcpSocket>(server->nextPendingConnection()), {}};
    if (const QTcpSocket *socket = taken.socket.get())
        taken.acceptance.endpoints = {socket->peerAddress(), socket->localAddress(),
                                      socket->peerPort(), socket->localPort()};
    return taken;
}

} // namespace

TcpTask2::TcpTask2(QObject *parent) : QObject(parent)
{
    way.send = [this](const shared_parsedData &record) { Q_EMIT receivedData(record); };
}

TcpTask2::~TcpTask2()
{
    const EpollEventDispatcher::Turn turn; // the thread may be at its end, outside of any turn
    dying = true;
    // QPointer: at the end of the thread, an event loop in a message handler also carries out
    // deletions that were asked for before.
    const auto clientsMade = [this] {
        const auto all = findChildren<TcpClient2 *>(QString(), Qt::FindDirectChildrenOnly);
        return QList<QPointer<TcpClient2>>(all.begin(), all.end());
    };
    // Connections that are still to be added are queued calls, which would be lost with the task.
    // They make their last offer as well. Outside the task's thread nothing is queued: that thread
    // never started.
    const bool ownThread = QThread::currentThread() == thread();
    qsizetype ended = 0; // clients that are ended and not deleted
    auto all = clientsMade();
    do {
        for (const QPointer<TcpClient2> &client : std::as_const(all)) {
            if (client)
                client->mdisconnected();
        }
        if (ownThread)
            QCoreApplication::sendPostedEvents(this, QEvent::MetaCall);
        all.removeAll(QPointer<TcpClient2>());
        ended = all.size();
        all = clientsMade();
    } while (all.size() > ended);
    qDeleteAll(clientsMade()); // before the watch, which they refer to
    counters->isOver.store(true, std::memory_order_release);
}

void TcpTask2::discard(int length, const QMap<QString, QString> &subid)
{
    logDiscard(tryDiscard(length, subids::Values(subid)), subid);
}

TcpTask2::DiscardResult TcpTask2::tryDiscard(int length, const subids::Values &subid) const
{
    if (!subid.client)
        return DiscardResult::NoClientKey;
    const ReadLocker locker(clientsLock);
    TcpClient2 *client = clients.value(*subid.client);
    if (!client)
        return DiscardResult::NoSuchClient;
    // Calls across threads, and a signal under the lock. Deliberate: without the lock the client
    // could be deleted meanwhile. The calls only cut bytes, or post the cut to the client's thread.
    if (client->connectionNumber() != 0 && subid.offset)
        return discardTo(client, length, subid);
    client->discard(length);
    return DiscardResult::Posted;
}

TcpTask2::DiscardResult TcpTask2::discardTo(TcpClient2 *client, int length,
                                            const subids::Values &subid)
{
    const auto offset = decimalNumber(*subid.offset);
    const auto number = subid.connection ? decimalNumber(*subid.connection)
                                         : std::optional(client->connectionNumber());
    if (!offset || !number)
        return DiscardResult::InvalidPosition;
    if (*number == client->connectionNumber())
        client->discardTo(advance(*offset, length));
    return DiscardResult::Posted;
}

void TcpTask2::logDiscard(DiscardResult result, const QMap<QString, QString> &subid)
{
    if (result == DiscardResult::NoClientKey)
        CWRN(QtDebugMsg, QStringLiteral("TcpTask2: subid[client] not set"));
    if (result == DiscardResult::NoSuchClient)
        CWRN(QtDebugMsg, QStringLiteral("TcpTask2: discard for non-existing client %1"),
             subid.value(subids::client()));
    if (result == DiscardResult::InvalidPosition) {
        const QString offset = subid.value(subids::offset());
        CWRN(QtDebugMsg, QStringLiteral("TcpTask2: discard with invalid position %1"),
             decimalNumber(offset) ? subid.value(subids::connection()) : offset);
    }
}

bool TcpTask2::event(QEvent *event)
{
    // stop() processes events, and a message handler may. The plugin's deleteLater() can arrive
    // there.
    if (event->type() == QEvent::DeferredDelete && EpollEventDispatcher::isInTurn()) {
        if (!dying)
            EpollEventDispatcher::deleteLater(this);
        return true;
    }
    return QObject::event(event);
}

void TcpTask2::logSize(const QString &id)
{
    CWRN(QtDebugMsg, QStringLiteral("  TcpTask2: id = %1, #clients = %2, id = %3"), id,
         static_cast<qint64>(registry().size()), currentThreadNumber());
}

void TcpTask2::addConnection(Connection conn)
{
    Q_ASSERT(QThread::currentThread() == thread());
    CWRN(QtDebugMsg,
         conn.getSsl() ? QStringLiteral("TcpTask2: Handling SSL connection, %1")
                       : QStringLiteral("TcpTask2: Handling TCP connection, %1"),
         currentThreadNumber());

    // Before it is taken: until then the server counts it, and no moment may pass uncounted.
    counters->adopted.add(1);
    TakenConnection taken = takeFrom(conn.getSsl() ? conn.getSslServer() : conn.getTcpServer());
    if (!taken.socket) {
        counters->missed.add(1);
        CWRN(QtWarningMsg, QStringLiteral("TcpTask2: Creating receiving socket failed"));
        return;
    }
    const Endpoints &endpoints = taken.acceptance.endpoints;
    const QString id = clientId(conn.getLocalAddress().toString(), conn.getLocalPort(),
                                endpoints.peer.toString(), endpoints.peerPort, endpoints.idNumber);
    CWRN(QtDebugMsg, QStringLiteral("TcpTask2: new connection %1"), id);

    // For receivers of the client's readyRead() with a queued connection. After the first time it
    // costs next to nothing.
    qRegisterMetaType<Connection>();
    auto *client = new TcpClient2(this, id, taken.socket.release(), conn.getTimeout());
    if (!shared)
        shared = std::make_unique<Shared>();
    client->setBacklogWatch(&shared->watch);
    client->setCounters(*counters);
    client->setBlocks(shared->blocks);
    connectClient(client, taken.acceptance);
    {
        const WriteLocker locker(clientsLock);
        connect(this, &TcpTask2::stopTimer, client, &TcpClient2::mdisconnected,
                Qt::QueuedConnection); // under the lock: see stop()
        enter(client, id);
    }
    shared->memory.count(registry().size());
    if (farewell)
        Farewell::add(*client);
    CWRN(QtDebugMsg, QStringLiteral("TcpTask2 (%1): new client added, size = %2"), way.task,
         static_cast<qint64>(registry().size()));
}

void TcpTask2::connectClient(TcpClient2 *client, const Acceptance &acceptance)
{
    if (acceptance.number != 0)
        client->stampOffers(acceptance.number);
    if (acceptance.endpoints.idNumber != 0)
        client->numberId(acceptance.endpoints.idNumber);
    if (acceptance.serving.prompt)
        client->setPromptList(&shared->promptList);
    // Queued although both live in one thread: a client is never deleted inside its own signal.
    connect(
            client, &TcpClient2::disconnected, this,
            [this, ended = QPointer<TcpClient2>(client)](const QString &id) {
                if (ended)
                    handleEnd(ended, id);
            },
            Qt::QueuedConnection);
    // Direct, like the taker below: neither changes the client. The registry must know the new id
    // before the host gets a record with it.
    connect(
            client, &TcpClient2::idChanged, this,
            [this, client](const QString &oid, const QString &id) {
                if (registry().value(oid) == client)
                    idChanged(oid, id);
            },
            Qt::DirectConnection);
    connectOutlet(client, acceptance);
}

void TcpTask2::connectOutlet(TcpClient2 *client, const Acceptance &acceptance)
{
    std::shared_ptr<HeldBytes> held; // null: buffers are not limited
    if (const auto &budget = acceptance.serving.budget) {
        held = std::make_shared<HeldBytes>(budget);
        client->limit(held, shared->pausedList);
    }
    const auto sender = std::make_shared<RecordSender>(way, acceptance, held);
    client->offerTo([client, sender](const QByteArray &data) {
        sender->offer(data, client->getId(), client->offerPosition());
    });
    const Serving::Ends ends = acceptance.serving.ends;
    if (ends == Serving::Ends::None)
        return;
    client->tellEndTo([client, sender, ends](EndReason reason, quint64 position) {
        if (ends == Serving::Ends::All || client->hasOffered())
            sender->end(reason, client->getId(), position);
    });
}

// Requires clientsLock for writing. Deliberate: a client that held the id before lives on, but
// discards no longer reach it. Its device was reset and has come back from the same port.
void TcpTask2::enter(TcpClient2 *client, const QString &id)
{
    TcpClient2 *&holder = clients[id];
    if (holder && holder != client)
        displaced.insert(holder);
    holder = client;
}

// Queued: by now another client may hold the id. That one is left alone.
void TcpTask2::handleEnd(TcpClient2 *client, const QString &id)
{
    if (registry().value(id) == client) {
        disconnected(id);
    } else if (displaced.remove(client)) {
        ignore(client);
        EpollEventDispatcher::deleteLater(client);
    }
}

void TcpTask2::disconnected(const QString &id)
{
    Q_ASSERT(QThread::currentThread() == thread());
    TcpClient2 *client = registry().value(id);
    if (!client)
        return;
    // A copy: id may be the client's own, which its first read changes.
    const QString key = id; // NOLINT(performance-unnecessary-copy-initialization)
    ignore(client); // the next call would report this end again
    client->mdisconnected(); // makes the last offer, if it was not made yet

    const WriteLocker locker(clientsLock);
    EpollEventDispatcher::deleteLater(client);
    displaced.remove(client);
    if (clients.value(key) == client) // no other client took the id during a log line
        clients.remove(key);
    shared->memory.count(clients.size());
}

void TcpTask2::ignore(TcpClient2 *client)
{
    disconnect(client, &TcpClient2::disconnected, this, nullptr);
    disconnect(client, &TcpClient2::idChanged, this, nullptr);
}

void TcpTask2::readyRead(Connection c, const QString &id)
{
    const Endpoints endpoints{c.getSenderHost(), c.getLocalAddress(), c.getSenderPort(),
                              c.getLocalPort()};
    RecordMaker maker(way.task, endpoints);
    Q_EMIT receivedData(maker.make(c.getData(), id, way.clock.now()));
}

void TcpTask2::stop()
{
    {
        // Qt walks a signal's list of connections without a lock, and another thread may be adding
        // a client to it. The lock prevents that data race. Under it, the signal only posts.
        const ReadLocker locker(clientsLock);
        Q_EMIT stopTimer();
    }
    // The plugin's destructor calls this in the plugin's thread. Then the task's own state must not
    // be read, and the events are those of the plugin's thread.
    const bool ownThread = QThread::currentThread() == thread();
    if (!(ownThread && dying))
        QEventLoop().processEvents(QEventLoop::AllEvents, StopProcessingMs);
    running = false;
}

void TcpTask2::leave(std::chrono::milliseconds spread, double phase)
{
    Q_ASSERT(QThread::currentThread() == thread());
    if (!farewell)
        farewell = std::make_unique<Farewell>();
    farewell->begin(findChildren<TcpClient2 *>(QString(), Qt::FindDirectChildrenOnly), spread,
                    phase);
}

QString TcpTask2::getInfo(const QString &prefix)
{
    QMap<QString, QString> ids; // by the registry's id, and in its order
    {
        const ReadLocker locker(clientsLock);
        for (auto entry = clients.constBegin(); entry != clients.constEnd(); ++entry)
            ids.insert(entry.key(), (*entry)->currentId());
    }

    QString result;
    for (const QString &id : std::as_const(ids)) {
        const QStringList answer = query(QLatin1String("lookup TCP:") + id);
        result += prefix + id + QLatin1String("\r\n");
        if (answer.isEmpty())
            result += QStringLiteral("      (empty %1)\r\n").arg(answer.size());
        else
            result += QLatin1String("      ") + answer.first() + QLatin1String("\r\n");
    }
    return result;
}

void TcpTask2::idChanged(const QString &oid, const QString &id)
{
    const WriteLocker locker(clientsLock);
    TcpClient2 *client = clients.value(oid);
    if (!client)
        return;
    // Deliberate: first insert, then remove. A change from an id to itself removes the client from
    // the registry, and discards for it are then logged as for a client that does not exist.
    enter(client, id);
    clients.remove(oid);
}
