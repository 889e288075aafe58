// SPDX-FileCopyrightText: the tcpinputplugin2 authors
// SPDX-License-Identifier: MIT

#include "tcpinput/accept/sslserver.h"
#include "tcpinput/tcpclient2.h"
#include "tcpinput/tcptask2.h"
#include "tests/kit/eventlog.h"
#include "tests/kit/preparedserver.h"
#include "tests/tcpinput/tasktest.h"

#include <QtCore/QCoreApplication>
#include <QtTest/QSignalSpy>
#include <QtTest/QTest>

using namespace tasktest;

// How clients come to a task, change their id, and go.
class tst_TaskClients : public TaskTest
{
    Q_OBJECT

private Q_SLOTS:
    void init() { begin(); }
    void cleanup() { end(); }

    void addConnection();
    void addConnectionByName();
    void addConnectionTakesThePlainSocket();
    void addConnectionTakesTheTlsSocket();
    void addConnectionWithNothingPending();
    void addConnectionWithNothingPendingOverTls();
    void idOfAnIpv6Connection();

    void disconnectionRemovesTheClient();
    void disconnectionOfAnUnknownId();
    void idChange();
    void idChangeToItself();
    void idChangeOfAnUnknownId();
    void idChangeOntoAnother();
    void firstReadChangesTheKey();
};

void tst_TaskClients::addConnection()
{
    task->setNum(3);
    for (int size : {1, 2}) {
        const Accepted accepted = accept();
        QVERIFY(accepted.client);
        QCOMPARE(EventLog::take(),
                 QStringList(
                         {QStringLiteral("D: TcpTask2: Handling TCP connection, ") + threadNumber(),
                          QStringLiteral("D: TcpTask2: new connection ") + accepted.givenId(),
                          QStringLiteral("D: TcpClient: id = '%1', local = '%2:%3'")
                                  .arg(accepted.givenId(), LocalAddress.toString())
                                  .arg(accepted.pair.localPort),
                          QStringLiteral("D: TcpTask2 (3): new client added, size = %1")
                                  .arg(size)}));
        QCOMPARE(accepted.client->parent(), task.get());
        QCOMPARE(accepted.socket->parent(), accepted.client.get());
        QCOMPARE(accepted.client->idleTimer().interval(), TimeoutMs);
    }
    QCOMPARE(registry().size(), 5);
}

void tst_TaskClients::addConnectionByName()
{
    SocketPair pair = SocketPair::connected(LocalAddress, PeerAddress);
    server->prepare(pair);
    QVERIFY(QMetaObject::invokeMethod(task.get(), "addConnection", Qt::QueuedConnection,
                                      Q_ARG(Connection, connectionRecord())));
    QCOMPARE(EventLog::take(), QStringList());
    turn();
    QCOMPARE(EventLog::take().last(),
             QStringLiteral("D: TcpTask2 (0): new client added, size = 1"));
}

void tst_TaskClients::addConnectionTakesThePlainSocket()
{
    PreparedSslServer sslServer;
    SocketPair plain = SocketPair::connected(LocalAddress, PeerAddress);
    server->prepare(plain);
    Connection conn = connectionRecord();
    conn.setSslServer(&sslServer);

    task->addConnection(conn);

    QCOMPARE(server->asked, 1);
    QCOMPARE(sslServer.asked, 0);
    QCOMPARE(task->findChildren<TcpClient2 *>().size(), 1);
}

void tst_TaskClients::addConnectionTakesTheTlsSocket()
{
    PreparedSslServer sslServer;
    SocketPair pair = SocketPair::connected(LocalAddress, PeerAddress);
    sslServer.prepare(pair);
    Connection conn = connectionRecord();
    conn.setSslServer(&sslServer);
    conn.setSsl(true);

    task->addConnection(conn);

    QCOMPARE(server->asked, 0);
    QCOMPARE(sslServer.asked, 1);
    const QString id =
            idOf(ListenAddress.toString(), ListenPort, PeerAddress.toString(), pair.peerPort);
    const QStringList lines = EventLog::take();
    QCOMPARE(lines.size(), 4);
    QCOMPARE(lines[0], QStringLiteral("D: TcpTask2: Handling SSL connection, ") + threadNumber());
    QCOMPARE(lines[1], QStringLiteral("D: TcpTask2: new connection ") + id);
    QCOMPARE(lines[3], QStringLiteral("D: TcpTask2 (0): new client added, size = 1"));
    // Deletes the client before the server that its socket came from.
    task.reset();
}

void tst_TaskClients::addConnectionWithNothingPending()
{
    task->addConnection(connectionRecord());

    QCOMPARE(server->asked, 1);
    QCOMPARE(EventLog::take(),
             QStringList({QStringLiteral("D: TcpTask2: Handling TCP connection, ") + threadNumber(),
                          QStringLiteral("W: TcpTask2: Creating receiving socket failed")}));
    QVERIFY(task->children().isEmpty());
    QCOMPARE(task->getInfo(), QString());
}

void tst_TaskClients::addConnectionWithNothingPendingOverTls()
{
    if (!QSslSocket::supportsSsl())
        QSKIP("Qt has no TLS backend here", );
    SslServer sslServer(nullptr);
    Connection conn = connectionRecord();
    conn.setSslServer(&sslServer);
    conn.setSsl(true);
    EventLog::take();

    task->addConnection(conn);

    QCOMPARE(server->asked, 0);
    QCOMPARE(EventLog::take(),
             QStringList({QStringLiteral("D: TcpTask2: Handling SSL connection, ") + threadNumber(),
                          QStringLiteral("W: TcpTask2: Creating receiving socket failed")}));
    QVERIFY(task->children().isEmpty());
}

void tst_TaskClients::idOfAnIpv6Connection()
{
    const QHostAddress loopback(QHostAddress::LocalHostIPv6);
    SocketPair pair = SocketPair::connected(loopback, loopback);
    if (!pair.accepted.isValid())
        QSKIP("IPv6 has no loopback here", );
    server->prepare(pair);
    Connection conn = connectionRecord();
    conn.setLocalAddress(QHostAddress(QHostAddress::AnyIPv6));
    conn.setLocalPort(1);

    task->addConnection(conn);
    QCOMPARE(registry()[0], QStringLiteral("tcp2::::1-::1:%1").arg(pair.peerPort));
}

void tst_TaskClients::disconnectionRemovesTheClient()
{
    Accepted first = accept();
    const Accepted second = accept();
    QVERIFY(first.end());
    QCOMPARE(registry().size(), 5);
    EventLog::take();

    QCoreApplication::sendPostedEvents();
    QCOMPARE(registry(), linesOf({second.givenId()}) + QStringList(QString()));
    QVERIFY(first.client);
    QCoreApplication::sendPostedEvents();
    QVERIFY(!first.client);
    QVERIFY(second.client);

    task->disconnected(first.givenId());
    turn();
    QCOMPARE(registry(), linesOf({second.givenId()}) + QStringList(QString()));
    QCOMPARE(EventLog::take(), QStringList());
}

void tst_TaskClients::disconnectionOfAnUnknownId()
{
    const Accepted accepted = accept();
    EventLog::take();

    task->disconnected(QStringLiteral("unknown"));
    turn();
    deleteLaterNow();

    QVERIFY(accepted.client);
    QCOMPARE(EventLog::take(), QStringList());
    QCOMPARE(registry().size(), 3);
}

void tst_TaskClients::idChange()
{
    const Accepted accepted = accept();
    QSignalSpy cut(accepted.client, &TcpClient2::cut);
    EventLog::take();
    const auto change = [&](const QString &from, const QString &to) {
        return QMetaObject::invokeMethod(task.get(), "idChanged", Q_ARG(QString, from),
                                         Q_ARG(QString, to));
    };

    QVERIFY(change(accepted.givenId(), QStringLiteral("b")));
    QCOMPARE(EventLog::take(), QStringList());

    task->discard(1, clientSubId(QStringLiteral("b")));
    QCOMPARE(cut.size(), 1);
    QCOMPARE(EventLog::take(), QStringList());
    task->discard(1, clientSubId(accepted.givenId()));
    QCOMPARE(cut.size(), 1);
    QCOMPARE(EventLog::take(), QStringList(nonExisting(accepted.givenId())));
}

void tst_TaskClients::idChangeToItself()
{
    Accepted accepted = accept();
    const QString id = accepted.givenId();
    EventLog::take();

    QVERIFY(QMetaObject::invokeMethod(task.get(), "idChanged", Q_ARG(QString, id),
                                      Q_ARG(QString, id)));
    QCOMPARE(EventLog::take(), QStringList());
    QCOMPARE(task->getInfo(), QString());
    task->discard(1, clientSubId(id));
    QCOMPARE(EventLog::take(), QStringList(nonExisting(id)));

    // The client stays alive, whatever happens to it, until the task dies.
    QVERIFY(accepted.deliver("abc"));
    QVERIFY(accepted.end());
    turn();
    deleteLaterNow();
    QVERIFY(accepted.client);
    QCOMPARE(accepted.client->parent(), task.get());
    task.reset();
    QVERIFY(!accepted.client);
    QCOMPARE(records.size(), 2);
}

void tst_TaskClients::idChangeOfAnUnknownId()
{
    const Accepted accepted = accept();
    const QStringList before = registry();
    EventLog::take();

    QVERIFY(QMetaObject::invokeMethod(task.get(), "idChanged",
                                      Q_ARG(QString, QStringLiteral("unknown")),
                                      Q_ARG(QString, accepted.givenId())));
    QCOMPARE(registry(), before);
    QCOMPARE(EventLog::take(), QStringList());
}

void tst_TaskClients::idChangeOntoAnother()
{
    const Accepted first = accept();
    const Accepted second = accept();
    QSignalSpy cut(first.client, &TcpClient2::cut);

    QVERIFY(QMetaObject::invokeMethod(task.get(), "idChanged", Q_ARG(QString, first.givenId()),
                                      Q_ARG(QString, second.givenId())));

    QCOMPARE(registry().size(), 3);
    task->discard(1, clientSubId(second.givenId()));
    QCOMPARE(cut.size(), 1);
    QVERIFY(second.client);
}

void tst_TaskClients::firstReadChangesTheKey()
{
    const Accepted accepted = accept();
    QSignalSpy cut(accepted.client, &TcpClient2::cut);
    QVERIFY(accepted.deliver("abc"));
    turn();
    EventLog::take();

    task->discard(1, clientSubId(accepted.derivedId()));
    QCOMPARE(cut.size(), 1);
    task->discard(1, clientSubId(accepted.givenId()));
    QCOMPARE(cut.size(), 1);
    QCOMPARE(EventLog::take(), QStringList(nonExisting(accepted.givenId())));
}

QTEST_GUILESS_MAIN(tst_TaskClients)
#include "tst_taskclients.moc"
