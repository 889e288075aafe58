// SPDX-FileCopyrightText: the tcpinputplugin2 authors
// SPDX-License-Identifier: MIT

#include "tcpinput/tcpclient2.h"
#include "tests/tcpinput/connectedclient.h"

#include <QtCore/QCoreApplication>
#include <QtCore/QMetaMethod>
#include <QtTest/QSignalSpy>
#include <QtTest/QTest>

namespace {

int keepAliveOf(const QTcpSocket *socket)
{
    int value = -1;
    socklen_t length = sizeof value;
    ::getsockopt(int(socket->socketDescriptor()), SOL_SOCKET, SO_KEEPALIVE, &value, &length);
    return value;
}

} // namespace

// The class as such: its meta-object, and what its constructors set up.
class tst_TcpClient2 : public QObject
{
    Q_OBJECT

private Q_SLOTS:
    void methods_data();
    void methods();
    void nothingButMethods();

    void bareClient();
    void bareClientSurvivesEveryCall();

    void constructionLine();
    void intervalsAndParents();
    void keepAlive();
    void socketWithoutParentBecomesAChild();
    void socketKeepsItsParent();
    void idIsACopy();
};

void tst_TcpClient2::methods_data()
{
    QTest::addColumn<int>("index");
    QTest::addColumn<QMetaMethod::MethodType>("type");
    QTest::addColumn<QMetaMethod::Access>("access");
    QTest::addColumn<QByteArray>("signature");
    QTest::addColumn<QByteArrayList>("names");
    int index = 0;
    const auto row = [&](QMetaMethod::MethodType type, QMetaMethod::Access access,
                         const QByteArray &signature, const QByteArrayList &names) {
        QTest::newRow(signature) << index++ << type << access << signature << names;
    };
    const auto signal = [&](const QByteArray &signature, const QByteArrayList &names = {}) {
        row(QMetaMethod::Signal, QMetaMethod::Public, signature, names);
    };
    signal("disconnected(QString)", {"id"});
    signal("readyRead(Connection,QString)", {"c", "id"});
    signal("cut(int)", {"len"});
    signal("idChanged(QString,QString)", {"oid", "id"});
    row(QMetaMethod::Slot, QMetaMethod::Public, "mdisconnected()", {});
    row(QMetaMethod::Slot, QMetaMethod::Public, "mreadyRead()", {});
    row(QMetaMethod::Slot, QMetaMethod::Public, "cutInbuf(int)", {"len"});
    row(QMetaMethod::Slot, QMetaMethod::Private, "timeout()", {});
    row(QMetaMethod::Slot, QMetaMethod::Private, "checkData()", {});
}

void tst_TcpClient2::methods()
{
    QFETCH(int, index);
    const QMetaObject &meta = TcpClient2::staticMetaObject;
    const QMetaMethod method = meta.method(meta.methodOffset() + index);
    QTEST(method.methodType(), "type");
    QTEST(method.access(), "access");
    QTEST(method.methodSignature(), "signature");
    QTEST(method.parameterNames(), "names");
    QCOMPARE(method.returnMetaType(), QMetaType::fromType<void>());
    for (int i = 0; i < method.parameterCount(); ++i)
        QVERIFY(method.parameterMetaType(i).isValid());
}

void tst_TcpClient2::nothingButMethods()
{
    const QMetaObject &meta = TcpClient2::staticMetaObject;
    QCOMPARE(meta.className(), "TcpClient2");
    QCOMPARE(meta.superClass(), &QObject::staticMetaObject);
    QCOMPARE(meta.methodCount() - meta.methodOffset(), 9);
    QCOMPARE(meta.propertyCount() - meta.propertyOffset(), 0);
    QCOMPARE(meta.enumeratorCount() - meta.enumeratorOffset(), 0);
    QCOMPARE(meta.classInfoCount() - meta.classInfoOffset(), 0);
    QCOMPARE(meta.constructorCount(), 0);
    QCOMPARE(meta.method(meta.methodOffset() + 1).parameterMetaType(0),
             QMetaType::fromType<Connection>());
}

void tst_TcpClient2::bareClient()
{
    const EventLog log;
    QObject parent;
    const auto *client = new TcpClient2(&parent);
    QCOMPARE(client->parent(), &parent);
    QVERIFY(client->children().isEmpty());

    TcpClient2 orphan;
    QCOMPARE(orphan.parent(), nullptr);
    QCOMPARE(orphan.getId(), QString());
    QCOMPARE(orphan.currentId(), QString());
    for (const QTimer *timer :
         std::initializer_list<const QTimer *>{&orphan.idleTimer(), &orphan.backlogCheck()}) {
        QCOMPARE(timer->parent(), nullptr);
        QCOMPARE(timer->interval(), 0);
        QVERIFY(!timer->isActive());
    }
    QCOMPARE(EventLog::take(), QStringList());
}

void tst_TcpClient2::bareClientSurvivesEveryCall()
{
    const EventLog log;
    TcpClient2 client;
    QSignalSpy cut(&client, &TcpClient2::cut);
    QSignalSpy disconnected(&client, &TcpClient2::disconnected);
    QSignalSpy offers(&client, &TcpClient2::readyRead);

    client.discard(5);
    client.cutInbuf(5);
    client.mdisconnected();
    QVERIFY(QMetaObject::invokeMethod(&client, "checkData"));
    QCoreApplication::sendPostedEvents();
    QCOMPARE(EventLog::take(), QStringList());
    client.mreadyRead();
    QCOMPARE(EventLog::take(),
             QStringList(QStringLiteral("W: TcpClient2 (): socket not valid (1)")));

    QCOMPARE(cut.size(), 1);
    QCOMPARE(disconnected.size(), 0);
    QCOMPARE(offers.size(), 0);
}

void tst_TcpClient2::constructionLine()
{
    const EventLog log;
    const ConnectedClient connection(QStringLiteral("an id"));
    QCOMPARE(EventLog::take(),
             QStringList(QStringLiteral("D: TcpClient: id = 'an id', local = '%1:%2'")
                                 .arg(ConnectedClient::localAddress())
                                 .arg(connection.localPort)));
}

void tst_TcpClient2::intervalsAndParents()
{
    const EventLog log;
    ConnectedClient connection(QStringLiteral("id"), 47110);
    const QTimer &idle = connection.client->idleTimer();
    QCOMPARE(idle.interval(), 47110);
    QVERIFY(idle.isActive());
    QVERIFY(!idle.isSingleShot());
    QCOMPARE(idle.parent(), connection.client.get());

    const QTimer &check = connection.client->backlogCheck();
    QVERIFY(!check.isActive()); // until there is something to check
    QCOMPARE(check.parent(), nullptr);
}

void tst_TcpClient2::keepAlive()
{
    const EventLog log;
    ConnectedClient connection(ConnectedClient::WithoutClient{});
    QCOMPARE(keepAliveOf(connection.socket), 0);
    connection.makeClient(QStringLiteral("id"));
    QCOMPARE(keepAliveOf(connection.socket), 1);
}

void tst_TcpClient2::socketWithoutParentBecomesAChild()
{
    const EventLog log;
    ConnectedClient connection;
    QCOMPARE(connection.socket->parent(), connection.client.get());
    connection.client.reset();
    QVERIFY(connection.socket.isNull());
}

void tst_TcpClient2::socketKeepsItsParent()
{
    const EventLog log;
    QObject parent;
    const ConnectedClient connection(&parent, QStringLiteral("id"), 60000);
    QCOMPARE(connection.socket->parent(), &parent);
}

void tst_TcpClient2::idIsACopy()
{
    const EventLog log;
    const ConnectedClient connection(QStringLiteral("id"));
    QCOMPARE(connection.client->getId(), QStringLiteral("id"));
    QCOMPARE(connection.client->currentId(), QStringLiteral("id"));
    QCOMPARE(connection.client->parent(), nullptr);
}

QTEST_GUILESS_MAIN(tst_TcpClient2)
#include "tst_tcpclient2.moc"
