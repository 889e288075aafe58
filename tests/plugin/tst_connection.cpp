// SPDX-FileCopyrightText: the tcpinputplugin2 authors
// SPDX-License-Identifier: MIT

#include "plugin/connection.h"
#include "tests/kit/memorylayout.h"

#include <QtCore/QPointer>
#include <QtCore/QThread>
#include <QtNetwork/QSslServer>
#include <QtNetwork/QTcpServer>
#include <QtNetwork/QTcpSocket>
#include <QtNetwork/QUdpSocket>
#include <QtTest/QTest>

#include <cstddef>
#include <limits>
#include <memory>
#include <type_traits>
#include <utility>

static_assert(!std::is_polymorphic_v<Connection>);
static_assert(std::is_copy_constructible_v<Connection> && std::is_copy_assignable_v<Connection>);
static_assert(std::is_move_constructible_v<Connection> && std::is_move_assignable_v<Connection>);

//! Sends and receives records through signals and slots, in any thread.
class ConnectionRelay : public QObject
{
    Q_OBJECT

public:
    QList<Connection> received; // its own thread only
    QThread *deliveredIn = nullptr; // its own thread only

public Q_SLOTS:
    void receive(Connection conn)
    {
        received.append(conn);
        deliveredIn = QThread::currentThread();
    }

Q_SIGNALS:
    void send(Connection conn);
};

class tst_Connection : public QObject
{
    Q_OBJECT

private Q_SLOTS:
    void initTestCase();

    void metaType();
    void defaults();
    void accessors();
    void portsAndTimeoutKeepTheirWholeRange();
    void gettersReturnCopies();
    void copies();
    void copiesAreIndependent();
    void theRecordOwnsNothing();
    void memberOrder();
    void queuedToAnotherThread();

private:
    // A record with every member set. Its pointers refer to objects of this test.
    Connection complete();
    void compareToComplete(const Connection &c);

    QTcpSocket socket;
    QUdpSocket udpSocket;
    QTcpServer tcpServer;
    QSslServer sslServer;
};

Connection tst_Connection::complete()
{
    Connection c;
    c.setData(QByteArrayLiteral("bytes\0more"));
    c.setSenderHost(QHostAddress(QStringLiteral("10.0.0.7")));
    c.setLocalAddress(QHostAddress(QStringLiteral("fe80::1%2")));
    c.setSenderPort(54321);
    c.setLocalPort(7446);
    c.setPluginId(QStringLiteral("tcp"));
    c.setSocket(&socket);
    c.setUdpSocket(&udpSocket);
    c.setTimeout(60000);
    c.setSsl(true);
    c.setTcpServer(&tcpServer);
    c.setSslServer(&sslServer);
    return c;
}

void tst_Connection::compareToComplete(const Connection &c)
{
    QCOMPARE(c.getData(), QByteArrayLiteral("bytes\0more"));
    QCOMPARE(c.getSenderHost(), QHostAddress(QStringLiteral("10.0.0.7")));
    QCOMPARE(c.getLocalAddress(), QHostAddress(QStringLiteral("fe80::1%2")));
    QCOMPARE(c.getSenderPort(), 54321);
    QCOMPARE(c.getLocalPort(), 7446);
    QCOMPARE(c.getPluginId(), QStringLiteral("tcp"));
    QCOMPARE(c.getSocket(), &socket);
    QCOMPARE(c.getUdpSocket(), &udpSocket);
    QCOMPARE(c.getTimeout(), 60000);
    QCOMPARE(c.getSsl(), true);
    QCOMPARE(c.getTcpServer(), &tcpServer);
    QCOMPARE(c.getSslServer(), &sslServer);
}

void tst_Connection::initTestCase()
{
    // Nothing knows the name before the first request for the id.
    QVERIFY(!QMetaType::fromName("Connection").isValid());
    QVERIFY(qMetaTypeId<Connection>() >= QMetaType::User);
}

void tst_Connection::metaType()
{
    const QMetaType type = QMetaType::fromName("Connection");
    QVERIFY(type.isValid());
    QCOMPARE(type.id(), qMetaTypeId<Connection>());
    QCOMPARE(type.name(), "Connection");
    QCOMPARE(type.sizeOf(), qsizetype(sizeof(Connection)));
    QVERIFY(type.flags() & QMetaType::NeedsConstruction);
    QVERIFY(type.flags() & QMetaType::NeedsDestruction);

    const Connection original = complete();
    void *copy = type.create(&original);
    QVERIFY(copy);
    compareToComplete(*static_cast<Connection *>(copy));
    type.destroy(copy);

    void *fresh = type.create();
    QVERIFY(fresh);
    QCOMPARE(static_cast<Connection *>(fresh)->getData(), QByteArray());
    QCOMPARE(static_cast<Connection *>(fresh)->getSocket(), nullptr);
    type.destroy(fresh);
}

void tst_Connection::defaults()
{
    const Connection c;
    QVERIFY(c.getData().isEmpty());
    QVERIFY(c.getSenderHost().isNull());
    QVERIFY(c.getLocalAddress().isNull());
    QCOMPARE(c.getSenderPort(), 0);
    QCOMPARE(c.getLocalPort(), 0);
    QVERIFY(c.getPluginId().isEmpty());
    QCOMPARE(c.getSocket(), nullptr);
    QCOMPARE(c.getUdpSocket(), nullptr);
    QCOMPARE(c.getTimeout(), 0);
    QCOMPARE(c.getSsl(), false);
    QCOMPARE(c.getTcpServer(), nullptr);
    QCOMPARE(c.getSslServer(), nullptr);
}

void tst_Connection::accessors()
{
    compareToComplete(complete());

    // Each setter can reset its member.
    Connection c = complete();
    c.setData(QByteArray());
    c.setSenderHost(QHostAddress());
    c.setLocalAddress(QHostAddress());
    c.setPluginId(QString());
    c.setSocket(nullptr);
    c.setUdpSocket(nullptr);
    c.setSsl(false);
    c.setTcpServer(nullptr);
    c.setSslServer(nullptr);
    QVERIFY(c.getData().isEmpty());
    QVERIFY(c.getSenderHost().isNull());
    QVERIFY(c.getLocalAddress().isNull());
    QVERIFY(c.getPluginId().isEmpty());
    QCOMPARE(c.getSocket(), nullptr);
    QCOMPARE(c.getUdpSocket(), nullptr);
    QCOMPARE(c.getSsl(), false);
    QCOMPARE(c.getTcpServer(), nullptr);
    QCOMPARE(c.getSslServer(), nullptr);
}

void tst_Connection::portsAndTimeoutKeepTheirWholeRange()
{
    Connection c;
    c.setSenderPort(65535);
    QCOMPARE(c.getSenderPort(), 65535);
    QCOMPARE(c.getLocalPort(), 0);
    c.setLocalPort(65535);
    c.setSenderPort(1);
    QCOMPARE(c.getLocalPort(), 65535);
    QCOMPARE(c.getSenderPort(), 1);
    c.setTimeout(std::numeric_limits<int>::max());
    QCOMPARE(c.getTimeout(), std::numeric_limits<int>::max());
    c.setTimeout(-1);
    QCOMPARE(c.getTimeout(), -1);
}

void tst_Connection::gettersReturnCopies()
{
    const Connection c = complete();
    c.getData().append("changed");
    c.getPluginId().append(QStringLiteral("changed"));
    c.getSenderHost().clear();
    compareToComplete(c);
}

void tst_Connection::copies()
{
    const Connection original = complete();
    const auto copy = std::make_unique<Connection>(original);
    compareToComplete(*copy);
    // The bytes are shared, not copied: a record may carry a whole buffer.
    QCOMPARE(static_cast<const void *>(copy->getData().constData()),
             static_cast<const void *>(original.getData().constData()));

    Connection assigned;
    assigned = original;
    compareToComplete(assigned);

    const Connection moved = std::move(assigned);
    compareToComplete(moved);
    compareToComplete(original);
}

void tst_Connection::copiesAreIndependent()
{
    const Connection original = complete();
    Connection copy = original;
    copy.setData(QByteArrayLiteral("other"));
    copy.setSenderHost(QHostAddress(QHostAddress::LocalHost));
    copy.setPluginId(QStringLiteral("other"));
    copy.setSocket(nullptr);
    copy.setSsl(false);
    compareToComplete(original);
}

void tst_Connection::theRecordOwnsNothing()
{
    QTcpServer server;
    QPointer<QTcpSocket> livingSocket = new QTcpSocket(&server);
    {
        Connection c;
        c.setSocket(livingSocket);
        c.setTcpServer(&server);
        const Connection copy = c;
    }
    QVERIFY(livingSocket);
    QCOMPARE(livingSocket->parent(), &server);
    QVERIFY(!server.isListening());
}

void tst_Connection::memberOrder()
{
    struct Layout
    {
        QByteArray data;
        QHostAddress senderHost, localAddress;
        unsigned short senderPort, localPort;
        QString pluginId;
        QTcpSocket *socket;
        QUdpSocket *udpSocket;
        int timeout;
        bool ssl;
        QTcpServer *tcpServer;
        QSslServer *sslServer;
    };
    QCOMPARE(sizeof(Connection), sizeof(Layout));

    Connection c = complete();
    QCOMPARE(memberAt<QByteArray>(c, offsetof(Layout, data)), c.getData());
    QCOMPARE(memberAt<QHostAddress>(c, offsetof(Layout, senderHost)), c.getSenderHost());
    QCOMPARE(memberAt<QHostAddress>(c, offsetof(Layout, localAddress)), c.getLocalAddress());
    QCOMPARE(memberAt<unsigned short>(c, offsetof(Layout, senderPort)), c.getSenderPort());
    QCOMPARE(memberAt<unsigned short>(c, offsetof(Layout, localPort)), c.getLocalPort());
    QCOMPARE(memberAt<QString>(c, offsetof(Layout, pluginId)), c.getPluginId());
    QCOMPARE(memberAt<QTcpSocket *>(c, offsetof(Layout, socket)), c.getSocket());
    QCOMPARE(memberAt<QUdpSocket *>(c, offsetof(Layout, udpSocket)), c.getUdpSocket());
    QCOMPARE(memberAt<int>(c, offsetof(Layout, timeout)), c.getTimeout());
    QCOMPARE(memberAt<bool>(c, offsetof(Layout, ssl)), c.getSsl());
    QCOMPARE(memberAt<QTcpServer *>(c, offsetof(Layout, tcpServer)), c.getTcpServer());
    QCOMPARE(memberAt<QSslServer *>(c, offsetof(Layout, sslServer)), c.getSslServer());
}

void tst_Connection::queuedToAnotherThread()
{
    ConnectionRelay sender;
    auto receiver = std::make_unique<ConnectionRelay>();
    QThread thread;
    receiver->moveToThread(&thread);
    QVERIFY(connect(&sender, &ConnectionRelay::send, receiver.get(), &ConnectionRelay::receive,
                    Qt::QueuedConnection));
    thread.start();

    // Records are sent in two ways: with a signal, and with a call by name.
    Q_EMIT sender.send(complete());
    QVERIFY(QMetaObject::invokeMethod(receiver.get(), "receive", Qt::QueuedConnection,
                                      Q_ARG(Connection, complete())));
    // Runs when everything queued before it has run.
    QVERIFY(QMetaObject::invokeMethod(
            receiver.get(), [] {}, Qt::BlockingQueuedConnection));
    thread.quit();
    QVERIFY(thread.wait());

    QCOMPARE(receiver->received.size(), 2);
    for (const Connection &c : std::as_const(receiver->received))
        compareToComplete(c);
    QCOMPARE(receiver->deliveredIn, &thread);
}

QTEST_GUILESS_MAIN(tst_Connection)

#include "tst_connection.moc"
