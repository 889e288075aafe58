// SPDX-FileCopyrightText: the tcpinputplugin2 authors
// SPDX-License-Identifier: MIT

#pragma once

#include "tcpinput/tcpclient2.h"
#include "tcpinput/tcptask2.h"
#include "tests/kit/eventlog.h"
#include "tests/kit/hangguard.h"
#include "tests/kit/movableclock.h"
#include "tests/kit/preparedserver.h"

#include <QtCore/QCoreApplication>
#include <QtCore/QPointer>
#include <QtCore/QThread>

#include <memory>

namespace tasktest {

inline constexpr int TimeoutMs = 600000;

// The record's address need not be the socket's: the plugin may listen on a wildcard.
inline const QHostAddress ListenAddress(QHostAddress::AnyIPv4);

inline constexpr quint16 ListenPort = 7446;

inline const QHostAddress LocalAddress(QStringLiteral("127.62.0.1"));
inline const QHostAddress PeerAddress(QStringLiteral("127.62.0.2"));

inline QString idOf(const QString &local, quint16 localPort, const QString &peer, quint16 peerPort)
{
    return QStringLiteral("tcp2:%1:%2-%3:%4").arg(local).arg(localPort).arg(peer).arg(peerPort);
}

inline QString threadNumber()
{
    return QString::number(reinterpret_cast<qint64>(QThread::currentThreadId()));
}

inline QMap<QString, QString> clientSubId(const QString &id)
{
    return {{QStringLiteral("client"), id}, {QStringLiteral("task"), QStringLiteral("99")}};
}

inline QString nonExisting(const QString &id)
{
    return QStringLiteral("D: TcpTask2: discard for non-existing client ") + id;
}

inline QStringList linesOf(const QStringList &ids)
{
    QStringList lines;
    for (const QString &id : ids)
        lines += {id, QStringLiteral("      (empty 0)")};
    return lines;
}

inline void deleteLaterNow()
{
    QCoreApplication::sendPostedEvents(nullptr, QEvent::DeferredDelete);
}

//! A device, and the client that a task has for it.
struct Accepted
{
    bool deliver(const QByteArray &bytes) const
    {
        return sendUnseen(bytes) && socket->waitForReadyRead(HangGuardMs);
    }
    bool sendUnseen(const QByteArray &bytes) const
    {
        return pair.device.send(bytes)
                && NativeSocket::waitForArrival(int(socket->socketDescriptor()), int(bytes.size()));
    }
    // When this returns, the client has run mdisconnected(), but the task does not know yet.
    bool end()
    {
        pair.device.close();
        return socket->waitForDisconnected(HangGuardMs);
    }

    QString givenId() const
    {
        return idOf(ListenAddress.toString(), ListenPort, PeerAddress.toString(), pair.peerPort);
    }
    QString derivedId() const
    {
        return idOf(LocalAddress.toString(), pair.localPort, PeerAddress.toString(), pair.peerPort);
    }

    SocketPair pair;
    QPointer<TcpClient2> client;
    QPointer<QTcpSocket> socket;
};

// The task lives in the test's own thread: each test decides when its queue is delivered.
class TaskTest : public QObject
{
protected:
    void begin();
    void end();

    Accepted accept(const QHostAddress &local = LocalAddress,
                    const QHostAddress &peer = PeerAddress, quint16 peerPort = 0);
    Connection connectionRecord();
    QStringList registry() const { return task->getInfo().split(QStringLiteral("\r\n")); }
    void turn();

    std::unique_ptr<EventLog> log;
    std::unique_ptr<MovableClock> clock;
    std::unique_ptr<PreparedTcpServer> server;
    std::unique_ptr<TcpTask2> task;
    QList<shared_parsedData> records;
};

inline void TaskTest::begin()
{
    log = std::make_unique<EventLog>();
    clock = std::make_unique<MovableClock>();
    server = std::make_unique<PreparedTcpServer>();
    task = std::make_unique<TcpTask2>(nullptr);
    connect(task.get(), &TcpTask2::receivedData, this, [this](const shared_parsedData &data) {
        records.append(data);
        EventLog::note(QStringLiteral("record of %1 bytes by %2")
                               .arg(data->getDataLength())
                               .arg(data->getPluginSubIdKey(QStringLiteral("client"))));
    });
}

inline void TaskTest::end()
{
    task.reset();
    server.reset();
    records.clear();
    clock.reset();
    log.reset();
}

inline Connection TaskTest::connectionRecord()
{
    Connection conn;
    conn.setLocalAddress(ListenAddress);
    conn.setLocalPort(ListenPort);
    conn.setTimeout(TimeoutMs);
    conn.setTcpServer(server.get());
    return conn;
}

inline Accepted TaskTest::accept(const QHostAddress &local, const QHostAddress &peer,
                                 quint16 peerPort)
{
    const auto before = task->findChildren<TcpClient2 *>();
    Accepted result;
    result.pair = SocketPair::connected(local, peer, peerPort);
    server->prepare(result.pair);
    task->addConnection(connectionRecord());
    for (TcpClient2 *client : task->findChildren<TcpClient2 *>()) {
        if (!before.contains(client))
            result.client = client;
    }
    result.socket = result.client ? result.client->findChild<QTcpSocket *>() : nullptr;
    return result;
}

// Repeats until nothing is posted any more: calls that a call posts wait for the next pass.
inline void TaskTest::turn()
{
    for (int pass = 0; pass < 5; ++pass)
        QCoreApplication::sendPostedEvents();
}

} // namespace tasktest
