// SPDX-FileCopyrightText: the tcpinputplugin2 authors
// SPDX-License-Identifier: MIT

#include "tcpinput/tcpclient2.h"
#include "tcpinput/tcptask2.h"
#include "tests/kit/eventlog.h"
#include "tests/tcpinput/tasktest.h"

#include <QtCore/QCoreApplication>
#include <QtTest/QSignalSpy>
#include <QtTest/QTest>

using namespace tasktest;

// Clients that have the same id.
class tst_TaskEqualIds : public TaskTest
{
    Q_OBJECT

private Q_SLOTS:
    void init() { begin(); }
    void cleanup() { end(); }

    void equalIds();
    void equalIdsTheSecondEndsFirst();
    void equalIdsTheFirstReadsAtItsEnd();
    void endsALiveClientAfterItsLastOffer();
    void equalIdsDoNotReachAThirdClient();
};

// Two listeners and one peer: the ids are equal.
void tst_TaskEqualIds::equalIds()
{
    Accepted first = accept();
    Accepted second =
            accept(QHostAddress(QStringLiteral("127.62.0.3")), PeerAddress, first.pair.peerPort);
    QVERIFY(second.client);
    QCOMPARE(second.givenId(), first.givenId());
    QVERIFY(EventLog::take().last().endsWith(QStringLiteral("new client added, size = 1")));
    QCOMPARE(registry().size(), 3);

    // Only the second client can be reached.
    QSignalSpy firstCut(first.client, &TcpClient2::cut);
    QSignalSpy secondCut(second.client, &TcpClient2::cut);
    task->discard(1, clientSubId(first.givenId()));
    QCOMPARE(firstCut.size(), 0);
    QCOMPARE(secondCut.size(), 1);

    // The first client's end does not touch the second.
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

// The second client ends first. When the first one ends, nobody holds its id any more.
void tst_TaskEqualIds::equalIdsTheSecondEndsFirst()
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

// The first client's first read is its last one. The id that the read finds must not be given to
// the client that has taken its place.
void tst_TaskEqualIds::equalIdsTheFirstReadsAtItsEnd()
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

void tst_TaskEqualIds::endsALiveClientAfterItsLastOffer()
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

// The task ignores the end of the client that it has deleted: by then the id may be a third
// client's.
void tst_TaskEqualIds::equalIdsDoNotReachAThirdClient()
{
    Accepted first = accept();
    const quint16 peerPort = first.pair.peerPort;
    const Accepted second =
            accept(QHostAddress(QStringLiteral("127.62.0.3")), PeerAddress, peerPort);
    QVERIFY(first.end());
    QCoreApplication::removePostedEvents(task.get(), QEvent::MetaCall);
    // The first client's end; it deletes the second client.
    task->disconnected(first.givenId());

    const Accepted third =
            accept(QHostAddress(QStringLiteral("127.62.0.4")), PeerAddress, peerPort);
    QVERIFY(third.client);
    turn();
    deleteLaterNow();
    QVERIFY(!second.client);
    QVERIFY(third.client);
    QCOMPARE(registry(), linesOf({third.givenId()}) + QStringList(QString()));
}

QTEST_GUILESS_MAIN(tst_TaskEqualIds)
#include "tst_taskequalids.moc"
