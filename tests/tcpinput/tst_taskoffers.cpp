// SPDX-FileCopyrightText: the tcpinputplugin2 authors
// SPDX-License-Identifier: MIT

#include "tcpinput/tcpclient2.h"
#include "tcpinput/tcptask2.h"
#include "tests/kit/eventlog.h"
#include "tests/kit/hangguard.h"
#include "tests/kit/movableclock.h"
#include "tests/tcpinput/tasktest.h"

#include <QtTest/QSignalSpy>
#include <QtTest/QTest>

using namespace tasktest;

// Offers on their way to the host, and the discards that answer them.
class tst_TaskOffers : public TaskTest
{
    Q_OBJECT

private Q_SLOTS:
    void init() { begin(); }
    void cleanup() { end(); }

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
};

void tst_TaskOffers::record()
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
void tst_TaskOffers::recordThatNobodyAnswersIsRepeated()
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

// The client removes itself from the watch, so the watch must still exist.
void tst_TaskOffers::taskGoesWhileAClientIsWatched()
{
    const Accepted accepted = accept();
    QVERIFY(accepted.deliver(QByteArray(81, 'x')));
    QVERIFY(!accepted.client->backlogCheck().isActive());
    task.reset();
    QVERIFY(!records.isEmpty());
}

void tst_TaskOffers::recordsInOrder()
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

// The same read derives the id that the first record has. The host may use that id at once.
void tst_TaskOffers::firstRecordIsAnsweredAtOnce()
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

// A host may change a record. Other records must not change with it.
void tst_TaskOffers::recordsShareNoSubIds()
{
    const Accepted accepted = accept();
    QVERIFY(accepted.deliver("abc"));
    records[0]->addPluginSubId(QStringLiteral("client"), QStringLiteral("the host's"));
    MovableClock::advance(201);
    QVERIFY(accepted.deliver("def"));
    QCOMPARE(records[1]->getPluginSubIdKey(QStringLiteral("client")), accepted.derivedId());
    QCOMPARE(records[0]->getPluginSubIdKey(QStringLiteral("client")), QStringLiteral("the host's"));
}

void tst_TaskOffers::recordOfAnUnregisteredClient()
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

void tst_TaskOffers::recordIsNotKept()
{
    const Accepted accepted = accept();
    QVERIFY(accepted.deliver("abc"));
    turn();
    const QWeakPointer<ParsedData> weak = records.takeFirst();
    QVERIFY(weak.isNull());
}

void tst_TaskOffers::discardWithoutClient()
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

void tst_TaskOffers::discardOfANonExistingClient()
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

void tst_TaskOffers::discardPassesTheLengthOn_data()
{
    QTest::addColumn<int>("length");
    for (int length : {0, -5, 1, 3, 4, std::numeric_limits<int>::max()})
        QTest::addRow("%d", length) << length;
}

void tst_TaskOffers::discardPassesTheLengthOn()
{
    QFETCH(int, length);
    const Accepted accepted = accept();
    QSignalSpy cut(accepted.client, &TcpClient2::cut);
    EventLog::take();

    task->discard(length, clientSubId(accepted.givenId()));

    QCOMPARE(cut, QList<QVariantList>({{length}}));
    QCOMPARE(EventLog::take(), QStringList());
}

// The registry's entry stays until the task has handled the end.
void tst_TaskOffers::discardReachesAClientUntilItIsRemoved()
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

void tst_TaskOffers::discardInTwoSteps()
{
    const Accepted accepted = accept();
    EventLog::take();
    const auto tryDiscard = [&](const QMap<QString, QString> &subid) {
        return task->tryDiscard(1, subids::Values(subid));
    };
    QCOMPARE(tryDiscard({}), TcpTask2::DiscardResult::NoClientKey);
    QCOMPARE(tryDiscard(clientSubId(QStringLiteral("x"))), TcpTask2::DiscardResult::NoSuchClient);
    QCOMPARE(tryDiscard(clientSubId(accepted.givenId())), TcpTask2::DiscardResult::Posted);
    QCOMPARE(EventLog::take(), QStringList());

    TcpTask2::logDiscard(TcpTask2::DiscardResult::Posted, {});
    QCOMPARE(EventLog::take(), QStringList());
}

QTEST_GUILESS_MAIN(tst_TaskOffers)
#include "tst_taskoffers.moc"
