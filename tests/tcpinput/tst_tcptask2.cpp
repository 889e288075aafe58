// SPDX-FileCopyrightText: the tcpinputplugin2 authors
// SPDX-License-Identifier: MIT

#include "tcpinput/accept/sslserver.h"
#include "tcpinput/tcpclient2.h"
#include "tcpinput/tcptask2.h"
#include "tests/kit/eventlog.h"
#include "tests/kit/hangguard.h"
#include "tests/kit/movableclock.h"
#include "tests/kit/preparedserver.h"

#include <QtCore/QCoreApplication>
#include <QtCore/QMetaMethod>
#include <QtCore/QPointer>
#include <QtCore/QThread>
#include <QtTest/QSignalSpy>
#include <QtTest/QTest>

#include <memory>
#include <vector>

namespace {

constexpr int TimeoutMs = 600000;
// The record's address need not be the socket's: the plugin may listen on a wildcard.
const QHostAddress ListenAddress(QHostAddress::AnyIPv4);
constexpr quint16 ListenPort = 7446;

const QHostAddress LocalAddress(QStringLiteral("127.62.0.1"));
const QHostAddress PeerAddress(QStringLiteral("127.62.0.2"));

QString idOf(const QString &local, quint16 localPort, const QString &peer, quint16 peerPort)
{
    return QStringLiteral("tcp2:%1:%2-%3:%4").arg(local).arg(localPort).arg(peer).arg(peerPort);
}

QString threadNumber()
{
    return QString::number(reinterpret_cast<qint64>(QThread::currentThreadId()));
}

QMap<QString, QString> clientSubId(const QString &id)
{
    return {{QStringLiteral("client"), id}, {QStringLiteral("task"), QStringLiteral("99")}};
}

QString nonExisting(const QString &id)
{
    return QStringLiteral("D: TcpTask2: discard for non-existing client ") + id;
}

QStringList linesOf(const QStringList &ids)
{
    QStringList lines;
    for (const QString &id : ids)
        lines += {id, QStringLiteral("      (empty 0)")};
    return lines;
}

void deleteLaterNow()
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
    // The client has run its mdisconnected(), the task does not know yet.
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

} // namespace

// The task in the test's own thread: a test decides when its queue is turned.
class tst_TcpTask2 : public QObject
{
    Q_OBJECT

private Q_SLOTS:
    void init();
    void cleanup();

    void registersTheRecordsType(); // first: it is registered for the whole process
    void methods_data();
    void methods();
    void nothingButMethods();

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

    void equalIds();
    void equalIdsTheSecondEndsFirst();
    void equalIdsTheFirstReadsAtItsEnd();
    void endsALiveClientAfterItsLastOffer();
    void equalIdsDoNotReachAThirdClient();

    void record();
    void recordThatNobodyAnswersIsRepeated();
    void taskGoesWhileAClientIsWatched();
    void recordsInOrder();
    void firstRecordIsAnsweredAtOnce();
    void recordsShareNoSubIds();
    void recordOfAnUnregisteredClient();
    void recordIsNotKept();

    void discardWithoutClient();
    void discardOfANonExistingClient();
    void discardPassesTheLengthOn_data();
    void discardPassesTheLengthOn();
    void discardReachesAClientUntilItIsRemoved();
    void discardInTwoSteps();

    void infoWithoutClients();
    void infoWithoutAnswers();
    void infoWithAnswers();
    void infoWithQueuedReceiver();
    void infoShowsTheCurrentId();

    void logSize();

private:
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

void tst_TcpTask2::init()
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

void tst_TcpTask2::cleanup()
{
    task.reset();
    server.reset();
    records.clear();
    clock.reset();
    log.reset();
}

Connection tst_TcpTask2::connectionRecord()
{
    Connection conn;
    conn.setLocalAddress(ListenAddress);
    conn.setLocalPort(ListenPort);
    conn.setTimeout(TimeoutMs);
    conn.setTcpServer(server.get());
    return conn;
}

Accepted tst_TcpTask2::accept(const QHostAddress &local, const QHostAddress &peer, quint16 peerPort)
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

// Until nothing is posted any more: what a call posts is not sent in the same pass.
void tst_TcpTask2::turn()
{
    for (int pass = 0; pass < 5; ++pass)
        QCoreApplication::sendPostedEvents();
}

// Without a plugin, which registers it too: a receiver in another thread gets
// readyRead(Connection).
void tst_TcpTask2::registersTheRecordsType()
{
    QVERIFY(!QMetaType::fromName("Connection").isValid());
    const Accepted accepted = accept();
    QVERIFY(accepted.client);
    QCOMPARE(QMetaType::fromName("Connection"), QMetaType::fromType<Connection>());
}

void tst_TcpTask2::methods_data()
{
    QTest::addColumn<int>("index");
    QTest::addColumn<QMetaMethod::MethodType>("type");
    QTest::addColumn<QMetaMethod::Access>("access");
    QTest::addColumn<QByteArray>("signature");
    QTest::addColumn<QByteArrayList>("names");
    QTest::addColumn<QMetaType>("returns");
    int index = 0;
    const auto row = [&](QMetaMethod::MethodType type, const QByteArray &signature,
                         const QByteArrayList &names = {},
                         QMetaType returns = QMetaType::fromType<void>(),
                         QMetaMethod::Access access = QMetaMethod::Public) {
        QTest::newRow(signature) << index++ << type << access << signature << names << returns;
    };
    const auto text = QMetaType::fromType<QString>();
    row(QMetaMethod::Signal, "receivedData(shared_parsedData)", {"data"});
    row(QMetaMethod::Signal, "query(QString)", {"q"}, QMetaType::fromType<QStringList>());
    row(QMetaMethod::Signal, "stopTimer()");
    row(QMetaMethod::Slot, "logSize(QString)", {"id"});
    row(QMetaMethod::Slot, "addConnection(Connection)", {"conn"});
    row(QMetaMethod::Slot, "disconnected(QString)", {"id"});
    row(QMetaMethod::Slot, "readyRead(Connection,QString)", {"c", "id"});
    row(QMetaMethod::Slot, "stop()");
    row(QMetaMethod::Slot, "getInfo(QString)", {"prefix"}, text);
    row(QMetaMethod::Slot, "getInfo()", {}, text);
    row(QMetaMethod::Slot, "idChanged(QString,QString)", {"oid", "id"}, QMetaType::fromType<void>(),
        QMetaMethod::Private);
}

void tst_TcpTask2::methods()
{
    QFETCH(int, index);
    const QMetaObject &meta = TcpTask2::staticMetaObject;
    const QMetaMethod method = meta.method(meta.methodOffset() + index);
    QTEST(method.methodType(), "type");
    QTEST(method.access(), "access");
    QTEST(method.methodSignature(), "signature");
    QTEST(method.parameterNames(), "names");
    QTEST(method.returnMetaType(), "returns");
    for (int i = 0; i < method.parameterCount(); ++i)
        QVERIFY(method.parameterMetaType(i).isValid());
}

void tst_TcpTask2::nothingButMethods()
{
    const QMetaObject &meta = TcpTask2::staticMetaObject;
    QCOMPARE(meta.className(), "TcpTask2");
    QCOMPARE(meta.superClass(), &QObject::staticMetaObject);
    QCOMPARE(meta.methodCount() - meta.methodOffset(), 11);
    QCOMPARE(meta.propertyCount() - meta.propertyOffset(), 0);
    QCOMPARE(meta.enumeratorCount() - meta.enumeratorOffset(), 0);
    QCOMPARE(meta.classInfoCount() - meta.classInfoOffset(), 0);
    QCOMPARE(meta.constructorCount(), 0);
}

void tst_TcpTask2::addConnection()
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

void tst_TcpTask2::addConnectionByName()
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

void tst_TcpTask2::addConnectionTakesThePlainSocket()
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

void tst_TcpTask2::addConnectionTakesTheTlsSocket()
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
    task.reset(); // the client, before the server that its socket came from
}

void tst_TcpTask2::addConnectionWithNothingPending()
{
    task->addConnection(connectionRecord());

    QCOMPARE(server->asked, 1);
    QCOMPARE(EventLog::take(),
             QStringList({QStringLiteral("D: TcpTask2: Handling TCP connection, ") + threadNumber(),
                          QStringLiteral("W: TcpTask2: Creating receiving socket failed")}));
    QVERIFY(task->children().isEmpty());
    QCOMPARE(task->getInfo(), QString());
}

void tst_TcpTask2::addConnectionWithNothingPendingOverTls()
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

void tst_TcpTask2::idOfAnIpv6Connection()
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

void tst_TcpTask2::disconnectionRemovesTheClient()
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

void tst_TcpTask2::disconnectionOfAnUnknownId()
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

void tst_TcpTask2::idChange()
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

void tst_TcpTask2::idChangeToItself()
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

    // It stays alive, whatever happens to it, until the task dies.
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

void tst_TcpTask2::idChangeOfAnUnknownId()
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

void tst_TcpTask2::idChangeOntoAnother()
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

void tst_TcpTask2::firstReadChangesTheKey()
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

// Two listeners, one peer: the ids are formed alike.
void tst_TcpTask2::equalIds()
{
    Accepted first = accept();
    Accepted second =
            accept(QHostAddress(QStringLiteral("127.62.0.3")), PeerAddress, first.pair.peerPort);
    QVERIFY(second.client);
    QCOMPARE(second.givenId(), first.givenId());
    QVERIFY(EventLog::take().last().endsWith(QStringLiteral("new client added, size = 1")));
    QCOMPARE(registry().size(), 3);

    // Only the second can be reached.
    QSignalSpy firstCut(first.client, &TcpClient2::cut);
    QSignalSpy secondCut(second.client, &TcpClient2::cut);
    task->discard(1, clientSubId(first.givenId()));
    QCOMPARE(firstCut.size(), 0);
    QCOMPARE(secondCut.size(), 1);

    // The first one's end is its own alone.
    QVERIFY(first.end());
    turn();
    deleteLaterNow();
    QVERIFY(!first.client);
    QVERIFY(second.client);
    QCOMPARE(registry(), linesOf({second.givenId()}) + QStringList(QString()));
    QVERIFY(second.end());
    turn();
    deleteLaterNow();
    QVERIFY(!second.client);
    QCOMPARE(task->getInfo(), QString());
}

// In the other order: when the first one ends, nobody holds its id any more.
void tst_TcpTask2::equalIdsTheSecondEndsFirst()
{
    Accepted first = accept();
    Accepted second =
            accept(QHostAddress(QStringLiteral("127.62.0.3")), PeerAddress, first.pair.peerPort);
    QVERIFY(second.end());
    turn();
    deleteLaterNow();
    QVERIFY(!second.client);
    QVERIFY(first.client);
    QCOMPARE(task->getInfo(), QString());

    QVERIFY(first.end());
    turn();
    deleteLaterNow();
    QVERIFY(!first.client);
}

// Its first read is its last: the id that it finds is not given to the one that has taken its
// place.
void tst_TcpTask2::equalIdsTheFirstReadsAtItsEnd()
{
    Accepted first = accept();
    const Accepted second =
            accept(QHostAddress(QStringLiteral("127.62.0.3")), PeerAddress, first.pair.peerPort);
    QVERIFY(first.sendUnseen("abc"));
    QVERIFY(first.end());
    turn();
    deleteLaterNow();
    QVERIFY(!first.client);
    QVERIFY(second.client);
    QCOMPARE(registry(), linesOf({second.givenId()}) + QStringList(QString()));
    QVERIFY(!records.isEmpty());
    QCOMPARE(records.constLast()->getOriginalMessage(), QByteArray("abc"));
}

void tst_TcpTask2::endsALiveClientAfterItsLastOffer()
{
    const Accepted second = accept(QHostAddress(QStringLiteral("127.62.0.3")), PeerAddress);
    QVERIFY(second.client);
    QVERIFY(second.sendUnseen("abc"));
    EventLog::take();

    task->disconnected(second.givenId());
    turn();
    deleteLaterNow();

    QVERIFY(!second.client);
    QCOMPARE(records.size(), 1);
    QCOMPARE(records[0]->getOriginalMessage(), QByteArray("abc"));
    const QString id = idOf(QStringLiteral("127.62.0.3"), second.pair.localPort,
                            PeerAddress.toString(), second.pair.peerPort);
    QCOMPARE(EventLog::take(),
             QStringList({QStringLiteral("D: TCP READ: 127.62.0.3:%1 (%2:%3)")
                                  .arg(second.pair.localPort)
                                  .arg(PeerAddress.toString())
                                  .arg(second.pair.peerPort),
                          QStringLiteral("D: TcpClient: closing connection %1 "
                                         "(received 3 bytes, 1 msgs)")
                                  .arg(id),
                          QStringLiteral("record of 3 bytes by ") + id}));
}

// The end of the client that the task deleted is no news to the task: by then a third one may have
// the id.
void tst_TcpTask2::equalIdsDoNotReachAThirdClient()
{
    Accepted first = accept();
    const quint16 peerPort = first.pair.peerPort;
    const Accepted second =
            accept(QHostAddress(QStringLiteral("127.62.0.3")), PeerAddress, peerPort);
    QVERIFY(first.end());
    QCoreApplication::removePostedEvents(task.get(), QEvent::MetaCall);
    task->disconnected(first.givenId()); // of the first one; it deletes the second

    const Accepted third =
            accept(QHostAddress(QStringLiteral("127.62.0.4")), PeerAddress, peerPort);
    QVERIFY(third.client);
    turn();
    deleteLaterNow();
    QVERIFY(!second.client);
    QVERIFY(third.client);
    QCOMPARE(registry(), linesOf({third.givenId()}) + QStringList(QString()));
}

void tst_TcpTask2::record()
{
    task->setNum(2);
    const Accepted accepted = accept();
    EventLog::take();
    QVERIFY(accepted.deliver("abc"));

    QCOMPARE(EventLog::take().last(),
             QStringLiteral("record of 3 bytes by ") + accepted.derivedId());
    QCOMPARE(records.size(), 1);
    ParsedData &record = *records[0];
    QCOMPARE(record.getPeerAddress(), PeerAddress.toString());
    QCOMPARE(record.getPeerPort(), accepted.pair.peerPort);
    QCOMPARE(record.getOriginalMessage(), QByteArray("abc"));
    QCOMPARE(record.getDataLength(), 3);
    QCOMPARE(record.getSource(), QStringLiteral("TCP:") + accepted.derivedId());
    const QMap<QString, QString> subIds{
            {QStringLiteral("client"), accepted.derivedId()},
            {QStringLiteral("task"), QStringLiteral("2")},
    };
    QCOMPARE(record.getPluginSubId(), subIds);
    QCOMPARE(record.getPluginId(), QString());
    QCOMPARE(record.getFormat(), QString());
    QCOMPARE(record.getDeviceId(), QString());
    QCOMPARE(record.getDevice(), nullptr);
    QVERIFY(record.getData().isEmpty());
    QVERIFY(!record.isParsed());
    QVERIFY(!record.isGPSPosData());
    QVERIFY(record.getDataId().startsWith(QLatin1Char('-')));
}

// With the task's watch, the client's timer and the real clock.
void tst_TcpTask2::recordThatNobodyAnswersIsRepeated()
{
    clock.reset();
    const Accepted accepted = accept();
    const QByteArray sent(81, 'x');
    QElapsedTimer sinceBefore;
    sinceBefore.start();
    QVERIFY(accepted.deliver(sent));
    QVERIFY(!accepted.client->backlogCheck().isActive());
    QTRY_COMPARE_WITH_TIMEOUT(records.size(), 2, HangGuardMs);
    QVERIFY(sinceBefore.elapsed() >= 2000);
    QCOMPARE(records[1]->getOriginalMessage(), sent);
}

// The client takes its name off the watch, which must still be there.
void tst_TcpTask2::taskGoesWhileAClientIsWatched()
{
    const Accepted accepted = accept();
    QVERIFY(accepted.deliver(QByteArray(81, 'x')));
    QVERIFY(!accepted.client->backlogCheck().isActive());
    task.reset();
    QVERIFY(!records.isEmpty());
}

void tst_TcpTask2::recordsInOrder()
{
    const Accepted accepted = accept();
    QVERIFY(accepted.deliver("abc"));
    MovableClock::advance(201);
    QVERIFY(accepted.deliver("def"));
    turn();

    QCOMPARE(records.size(), 2);
    QCOMPARE(records[0]->getOriginalMessage(), QByteArray("abc"));
    QCOMPARE(records[1]->getOriginalMessage(), QByteArray("abcdef"));
    QVERIFY(records[0] != records[1]);
}

// The id that the first record bears is derived by the same read.
void tst_TcpTask2::firstRecordIsAnsweredAtOnce()
{
    const Accepted accepted = accept();
    QVERIFY(accepted.givenId() != accepted.derivedId());
    QSignalSpy cut(accepted.client, &TcpClient2::cut);
    connect(
            task.get(), &TcpTask2::receivedData, task.get(),
            [answered = task.get()](const shared_parsedData &record) {
                answered->discard(2, record->getPluginSubId());
            },
            Qt::DirectConnection);
    EventLog::take();

    QVERIFY(accepted.deliver("abc"));

    QCOMPARE(cut, QList<QVariantList>({{2}}));
    QCOMPARE(EventLog::take().filter(QStringLiteral("discard")), QStringList());
    turn();
    MovableClock::advance(201);
    QVERIFY(accepted.deliver("def"));
    QCOMPARE(records.last()->getOriginalMessage(), QByteArray("cdef"));
}

// A host may do with a record what it likes.
void tst_TcpTask2::recordsShareNoSubIds()
{
    const Accepted accepted = accept();
    QVERIFY(accepted.deliver("abc"));
    records[0]->addPluginSubId(QStringLiteral("client"), QStringLiteral("the host's"));
    MovableClock::advance(201);
    QVERIFY(accepted.deliver("def"));
    QCOMPARE(records[1]->getPluginSubIdKey(QStringLiteral("client")), accepted.derivedId());
    QCOMPARE(records[0]->getPluginSubIdKey(QStringLiteral("client")), QStringLiteral("the host's"));
}

void tst_TcpTask2::recordOfAnUnregisteredClient()
{
    Connection c;
    c.setData("abc");
    c.setSenderHost(QHostAddress(QStringLiteral("10.1.2.3")));
    c.setSenderPort(40001);
    c.setLocalAddress(QHostAddress(QStringLiteral("192.168.0.10")));
    c.setLocalPort(5000);

    task->readyRead(c, QStringLiteral("nobody's id"));

    QCOMPARE(records.size(), 1);
    QCOMPARE(records[0]->getPeerAddress(), QStringLiteral("10.1.2.3"));
    QCOMPARE(records[0]->getPeerPort(), quint16(40001));
    QCOMPARE(records[0]->getSource(), QStringLiteral("TCP:tcp2:192.168.0.10:5000-10.1.2.3:40001"));
    QCOMPARE(records[0]->getPluginSubIdKey(QStringLiteral("client")),
             QStringLiteral("nobody's id"));
    QCOMPARE(records[0]->getPluginSubIdKey(QStringLiteral("task")), QStringLiteral("0"));
}

void tst_TcpTask2::recordIsNotKept()
{
    const Accepted accepted = accept();
    QVERIFY(accepted.deliver("abc"));
    turn();
    const QWeakPointer<ParsedData> weak = records.takeFirst();
    QVERIFY(weak.isNull());
}

void tst_TcpTask2::discardWithoutClient()
{
    const Accepted accepted = accept();
    QSignalSpy cut(accepted.client, &TcpClient2::cut);
    EventLog::take();
    const QMap<QString, QString> onlyTask{{QStringLiteral("task"), accepted.givenId()}};
    for (const auto &subid : {onlyTask, QMap<QString, QString>()}) {
        task->discard(1, subid);
        QCOMPARE(EventLog::take(),
                 QStringList(QStringLiteral("D: TcpTask2: subid[client] not set")));
    }
    QCOMPARE(cut.size(), 0);
}

void tst_TcpTask2::discardOfANonExistingClient()
{
    const Accepted accepted = accept();
    QSignalSpy cut(accepted.client, &TcpClient2::cut);
    EventLog::take();
    for (const QString &id : {QStringLiteral("x"), QString()}) {
        task->discard(1, clientSubId(id));
        QCOMPARE(EventLog::take(), QStringList(nonExisting(id)));
    }
    QCOMPARE(cut.size(), 0);
}

void tst_TcpTask2::discardPassesTheLengthOn_data()
{
    QTest::addColumn<int>("length");
    for (int length : {0, -5, 1, 3, 4, std::numeric_limits<int>::max()})
        QTest::addRow("%d", length) << length;
}

void tst_TcpTask2::discardPassesTheLengthOn()
{
    QFETCH(int, length);
    const Accepted accepted = accept();
    QSignalSpy cut(accepted.client, &TcpClient2::cut);
    EventLog::take();

    task->discard(length, clientSubId(accepted.givenId()));

    QCOMPARE(cut, QList<QVariantList>({{length}}));
    QCOMPARE(EventLog::take(), QStringList());
}

// The entry stays until the task has handled the end.
void tst_TcpTask2::discardReachesAClientUntilItIsRemoved()
{
    Accepted accepted = accept();
    QSignalSpy cut(accepted.client, &TcpClient2::cut);
    QVERIFY(accepted.end());
    EventLog::take();

    task->discard(1, clientSubId(accepted.givenId()));
    QCOMPARE(cut.size(), 1);
    QCOMPARE(EventLog::take(), QStringList());

    turn();
    task->discard(1, clientSubId(accepted.givenId()));
    QCOMPARE(cut.size(), 1);
    QCOMPARE(EventLog::take(), QStringList(nonExisting(accepted.givenId())));
}

void tst_TcpTask2::discardInTwoSteps()
{
    const Accepted accepted = accept();
    EventLog::take();
    QCOMPARE(task->tryDiscard(1, {}), TcpTask2::DiscardResult::NoClientKey);
    QCOMPARE(task->tryDiscard(1, clientSubId(QStringLiteral("x"))),
             TcpTask2::DiscardResult::NoSuchClient);
    QCOMPARE(task->tryDiscard(1, clientSubId(accepted.givenId())), TcpTask2::DiscardResult::Posted);
    QCOMPARE(EventLog::take(), QStringList());

    TcpTask2::logDiscard(TcpTask2::DiscardResult::Posted, {});
    QCOMPARE(EventLog::take(), QStringList());
}

void tst_TcpTask2::infoWithoutClients()
{
    QSignalSpy query(task.get(), &TcpTask2::query);
    QCOMPARE(task->getInfo(QStringLiteral("   ")), QString());
    QCOMPARE(task->getInfo(), QString());
    QCOMPARE(query.size(), 0);
}

void tst_TcpTask2::infoWithoutAnswers()
{
    QStringList ids{accept().givenId(), accept().givenId()};
    ids.sort();
    EventLog::take();

    QCOMPARE(task->getInfo(QStringLiteral("   ")),
             QStringLiteral("   %1\r\n      (empty 0)\r\n   %2\r\n      (empty 0)\r\n")
                     .arg(ids[0], ids[1]));
    QCOMPARE(task->getInfo(),
             QStringLiteral("%1\r\n      (empty 0)\r\n%2\r\n      (empty 0)\r\n")
                     .arg(ids[0], ids[1]));
    QString byName;
    QVERIFY(QMetaObject::invokeMethod(task.get(), "getInfo", Q_RETURN_ARG(QString, byName)));
    QCOMPARE(byName, task->getInfo(QString()));
    QCOMPARE(EventLog::take(), QStringList());
}

void tst_TcpTask2::infoWithAnswers()
{
    QStringList ids{accept().givenId(), accept().givenId()};
    ids.sort();
    QStringList queries;
    connect(task.get(), &TcpTask2::query, this, [&](const QString &q) {
        queries.append(q);
        return queries.size() == 1
                ? QStringList({QStringLiteral("first"), QStringLiteral("second")})
                : QStringList();
    });

    QCOMPARE(task->getInfo(QStringLiteral("> ")),
             QStringLiteral("> %1\r\n      first\r\n> %2\r\n      (empty 0)\r\n")
                     .arg(ids[0], ids[1]));
    QCOMPARE(queries,
             QStringList({QStringLiteral("lookup TCP:") + ids[0],
                          QStringLiteral("lookup TCP:") + ids[1]}));
}

void tst_TcpTask2::infoWithQueuedReceiver()
{
    const Accepted accepted = accept();
    QStringList queries;
    connect(
            task.get(), &TcpTask2::query, this,
            [&](const QString &q) {
                queries.append(q);
                return QStringList(QStringLiteral("an answer that comes too late"));
            },
            Qt::QueuedConnection);

    QCOMPARE(task->getInfo(), QStringLiteral("%1\r\n      (empty 0)\r\n").arg(accepted.givenId()));
    QCOMPARE(queries, QStringList());
    turn();
    QCOMPARE(queries, QStringList(QStringLiteral("lookup TCP:") + accepted.givenId()));
}

// The registry has it before the first record: the host may answer that at once.
void tst_TcpTask2::infoShowsTheCurrentId()
{
    const Accepted accepted = accept();
    QVERIFY(accepted.deliver("abc"));

    QCOMPARE(registry(), linesOf({accepted.derivedId()}) + QStringList(QString()));
    EventLog::take();
    task->discard(1, clientSubId(accepted.derivedId()));
    QCOMPARE(EventLog::take(), QStringList());
    task->discard(1, clientSubId(accepted.givenId()));
    QCOMPARE(EventLog::take(), QStringList(nonExisting(accepted.givenId())));
}

void tst_TcpTask2::logSize()
{
    const auto line = [](int clients) {
        return QStringLiteral("D:   TcpTask2: id = p1, #clients = %1, id = %2")
                .arg(clients)
                .arg(threadNumber());
    };
    task->logSize(QStringLiteral("p1"));
    QCOMPARE(EventLog::take(), QStringList(line(0)));

    const std::vector<Accepted> three = [this] {
        std::vector<Accepted> accepted;
        for (int i = 0; i < 3; ++i)
            accepted.push_back(accept());
        return accepted;
    }();
    EventLog::take();
    task->logSize(QStringLiteral("p1"));
    QCOMPARE(EventLog::take(), QStringList(line(3)));
}

QTEST_GUILESS_MAIN(tst_TcpTask2)
#include "tst_tcptask2.moc"
