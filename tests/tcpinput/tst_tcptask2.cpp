// SPDX-FileCopyrightText: the tcpinputplugin2 authors
// SPDX-License-Identifier: MIT

#include "tcpinput/tcptask2.h"
#include "tests/kit/eventlog.h"
#include "tests/tcpinput/tasktest.h"

#include <QtCore/QMetaMethod>
#include <QtTest/QSignalSpy>
#include <QtTest/QTest>

#include <vector>

using namespace tasktest;

// What others see of a task: its methods, and what it tells of its clients.
class tst_TcpTask2 : public TaskTest
{
    Q_OBJECT

private Q_SLOTS:
    void init() { begin(); }
    void cleanup() { end(); }

    // Must run first: the type is registered for the whole process.
    void registersTheRecordsType();
    void methods_data();
    void methods();
    void nothingButMethods();

    void infoWithoutClients();
    void infoWithoutAnswers();
    void infoWithAnswers();
    void infoWithQueuedReceiver();
    void infoShowsTheCurrentId();

    void logSize();
};

// A plugin would register the type, too, but there is none here. Without the type, a receiver in
// another thread would not get readyRead(Connection).
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

// The registry has the new id before the first record comes: the host may answer that record at
// once.
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
