// SPDX-FileCopyrightText: the tcpinputplugin2 authors
// SPDX-License-Identifier: MIT

#pragma once

#include "plugin/connection.h"
#include "plugin/parseddata.h"
#include "plugin/subids.h"
#include "tcpinput/receive/backlogwatch.h"
#include "tcpinput/receive/pausedlist.h"
#include "tcpinput/receive/promptlist.h"
#include "tcpinput/receive/recordsender.h"
#include "tcpinput/receive/warmblocks.h"
#include "tcpinput/workers/locks.h"
#include "tcpinput/workers/memoryreturn.h"
#include "tcpinput/workers/workercounters.h"

#include <QtCore/QHash>
#include <QtCore/QMap>
#include <QtCore/QObject>
#include <QtCore/QSet>
#include <QtCore/QString>

#include <atomic>
#include <chrono>
#include <memory>
#include <utility>

struct Acceptance;
class Farewell;
class TcpClient2;

/*!
    All connections of one worker thread: adopts them, keeps the registry of their clients, turns
    each offer into a record and routes the host's discards.

    Thread: its worker thread, a WorkerThread: with another event dispatcher, a message handler must
            not deliver events. From any thread: discard() and tryDiscard(); from the plugin's
            thread: getInfo() and stop().
    Owner:  the plugin, which retires it with deleteLater(). It is deleted in its own thread.
    Locks:  clientsLock; never held while logging or where code of the host could run.
*/
class TcpTask2 : public QObject
{
    Q_OBJECT

public:
    explicit TcpTask2(QObject *parent);

    // Every client makes its last offer, and all offers made so far are passed on.
    ~TcpTask2() override;

    // Sets the task's number. Call once, before the task is moved into its thread.
    void setNum(int n) { way.task = n; }
    // value: not null. Call as setNum(). Default: nobody reads what the task counts.
    void setCounters(std::shared_ptr<WorkerCounters> value) { counters = std::move(value); }
    // value: gets receivedData() in its own thread, queued. Not owned, outlives the task. Default:
    // null; then nobody waits for records to be handed over.
    void setConsumer(QObject *value) { way.consumer = value; }

    enum class DiscardResult { Posted, NoClientKey, NoSuchClient, InvalidPosition };

    // Cuts length bytes of the client that subid names by "client"; logs if there is none. If the
    // client's offers are stamped and subid has "offset", cuts up to the position offset + length
    // instead, or nothing if "connection" names another connection.
    void discard(int length, const QMap<QString, QString> &subid);

    // The two halves of discard(), for a caller that holds a lock during the first.
    DiscardResult tryDiscard(int length, const subids::Values &subid) const;
    static void logDiscard(DiscardResult result, const QMap<QString, QString> &subid);

    // Tells the devices of all clients within that time that nothing follows from here, and those
    // that come later at once. phase: see Farewell.
    void leave(std::chrono::milliseconds spread, double phase);

    bool event(QEvent *event) override;

Q_SIGNALS:
    void receivedData(shared_parsedData data);
    QStringList query(QString q);
    void stopTimer();

public Q_SLOTS:
    // id: the plugin's.
    void logSize(const QString &id);

    // Takes one pending connection from the server named in the record.
    void addConnection(Connection conn);

    // Ends and deletes the client that holds the id, if there is one.
    void disconnected(const QString &id);
    void readyRead(Connection c, const QString &id);

    // Ends all clients. Processes the calling thread's events for at most 10 ms.
    void stop();

    // Two lines per client: its id behind the prefix, and the name that query() answers for it.
    QString getInfo(const QString &prefix = QString());

private Q_SLOTS:
    void idChanged(const QString &oid, const QString &id);

private:
    static DiscardResult discardTo(TcpClient2 *client, int length, const subids::Values &subid);
    void connectClient(TcpClient2 *client, const Acceptance &acceptance);
    void connectOutlet(TcpClient2 *client, const Acceptance &acceptance);
    // The registry, for reads in the task's thread.
    const QHash<QString, TcpClient2 *> &registry() const
    {
        clientsLock.assumeReadable();
        return clients;
    }
    void enter(TcpClient2 *client, const QString &id) REQUIRES_LOCK(clientsLock);
    void handleEnd(TcpClient2 *client, const QString &id);
    void ignore(TcpClient2 *client);

    mutable SharedMutex clientsLock;
    // By client id. Written in the task's thread only, which reads without the lock.
    QHash<QString, TcpClient2 *> clients GUARDED_BY(clientsLock);
    std::atomic<bool> running = true; // until the first stop()
    // Set once, before the task is moved.
    std::shared_ptr<WorkerCounters> counters = std::make_shared<WorkerCounters>();
    bool dying = false; // this and below: the task's thread only
    QSet<TcpClient2 *> displaced; // other clients took their ids; until their end
    RecordSender::Way way; // its number and consumer: set once, before the task is moved
    //! What its clients share.
    struct Shared
    {
        BacklogWatch watch;
        PromptList promptList;
        PausedList pausedList;
        WarmBlocks blocks;
        MemoryReturn memory;
    };
    std::unique_ptr<Farewell> farewell; // null: leave() was not called
    std::unique_ptr<Shared> shared; // made with the first client, in the task's thread
};
