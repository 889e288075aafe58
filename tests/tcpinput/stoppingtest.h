// SPDX-FileCopyrightText: the tcpinputplugin2 authors
// SPDX-License-Identifier: MIT

#pragma once

#include "tcpinput/tcptask2.h"
#include "tests/kit/eventlog.h"
#include "tests/kit/otherthread.h"
#include "tests/kit/preparedserver.h"
#include "tests/kit/worker.h"

#include <QtCore/QMutex>
#include <QtCore/QPointer>
#include <QtCore/QThread>
#include <QtTest/QTest>

#include <atomic>
#include <memory>
#include <vector>

namespace stoppingtest {

inline const QHostAddress LocalAddress(QStringLiteral("127.63.0.1"));
inline const QHostAddress PeerAddress(QStringLiteral("127.63.0.2"));

inline QByteArray bytesOf(int number)
{
    return "bytes of device " + QByteArray::number(number);
}

// Whether another thread can read in the registry.
inline bool isUnlocked(const TcpTask2 &task)
{
    return returnsInAnotherThread([&task] {
        const QMap<QString, QString> subid{{QStringLiteral("client"), QString()}};
        task.tryDiscard(0, subids::Values(subid));
    });
}

//! The records of a task, taken in the task's thread: so no other thread's events matter.
class Records
{
public:
    explicit Records(const TcpTask2 *task)
    {
        QObject::connect(
                task, &TcpTask2::receivedData, task,
                [this, task](const shared_parsedData &data) {
                    if (looksForLock)
                        lockHeld = lockHeld || !isUnlocked(*task);
                    const QMutexLocker locker(&mutex);
                    messages.append(data->getOriginalMessage());
                    subIds.append(data->getPluginSubId());
                },
                Qt::DirectConnection);
    }

    qsizetype size()
    {
        const QMutexLocker locker(&mutex);
        return messages.size();
    }
    QList<QByteArray> takeMessages()
    {
        const QMutexLocker locker(&mutex);
        return std::exchange(messages, {});
    }
    // The last count records. A worker may read once more before it stops, and then offers the same
    // bytes twice.
    QList<QByteArray> takeLast(qsizetype count)
    {
        const QList<QByteArray> all = takeMessages();
        return all.mid(qMax(qsizetype(0), all.size() - count));
    }
    QMap<QString, QString> lastSubId()
    {
        const QMutexLocker locker(&mutex);
        return subIds.isEmpty() ? QMap<QString, QString>() : subIds.last();
    }

    std::atomic<bool> looksForLock = false; // takes a thread for each record
    std::atomic<bool> lockHeld = false; // while a record was emitted

private:
    QMutex mutex;
    QList<QByteArray> messages; // guarded by mutex
    QList<QMap<QString, QString>> subIds; // guarded by mutex
};

// A task with clients, in a thread of its own.
class StoppingTest : public QObject
{
protected:
    void begin();
    void end();

    void makeTask(QThread *thread);
    void addClient();
    void addClients(int count);
    bool sendToAll();
    static QList<QByteArray> messagesOf(int count);
    static void addSeenRows();

    std::unique_ptr<EventLog> log;
    std::unique_ptr<PreparedTcpServer> server;
    std::vector<SocketPair> pairs;
    std::unique_ptr<Worker> worker;
    QPointer<TcpTask2> task;
    std::unique_ptr<Records> records;
};

inline void StoppingTest::begin()
{
    log = std::make_unique<EventLog>();
    server = std::make_unique<PreparedTcpServer>();
}

inline void StoppingTest::end()
{
    if (worker)
        worker->quitAndWait();
    worker.reset();
    delete task;
    records.reset();
    pairs.clear();
    server.reset();
    log.reset();
}

// thread: null for the test's thread.
inline void StoppingTest::makeTask(QThread *thread)
{
    task = new TcpTask2(nullptr);
    records = std::make_unique<Records>(task);
    if (!thread)
        return;
    task->moveToThread(thread);
    connect(thread, &QThread::finished, task, &QObject::deleteLater, Qt::DirectConnection);
}

// Call in the task's thread.
inline void StoppingTest::addClient()
{
    pairs.push_back(SocketPair::connected(LocalAddress, PeerAddress));
    server->prepare(pairs.back());
    Connection conn;
    conn.setTimeout(600000);
    conn.setTcpServer(server.get());
    task->addConnection(conn);
}

inline void StoppingTest::addClients(int count)
{
    for (int i = 0; i < count; ++i)
        addClient();
}

// What the devices send stays in the kernel: nothing runs an event loop.
inline bool StoppingTest::sendToAll()
{
    int number = 0;
    for (const SocketPair &pair : pairs) {
        if (!pair.device.send(bytesOf(number++)))
            return false;
    }
    number = 0;
    for (const auto *socket : task->findChildren<QTcpSocket *>()) {
        if (!NativeSocket::waitForArrival(int(socket->socketDescriptor()),
                                          int(bytesOf(number++).size())))
            return false;
    }
    return true;
}

inline QList<QByteArray> StoppingTest::messagesOf(int count)
{
    QList<QByteArray> messages;
    for (int i = 0; i < count; ++i)
        messages.append(bytesOf(i));
    return messages;
}

// Whether the bytes of the last offer have been offered before, or are still in the kernel.
inline void StoppingTest::addSeenRows()
{
    QTest::addColumn<bool>("seen");
    QTest::newRow("seen") << true;
    QTest::newRow("unseen") << false;
}

} // namespace stoppingtest
