// SPDX-FileCopyrightText: the tcpinputplugin2 authors
// SPDX-License-Identifier: MIT

#include "natstest.h"

using namespace natstest;

namespace {

// Shorter than any test stops a server.
constexpr std::chrono::milliseconds ShortLimit(200);

// The shortest window that servers take.
void forgetAtOnce(jsStreamConfig &configuration)
{
    configuration.Duplicates = std::chrono::nanoseconds(100ms).count();
}

} // namespace

/*!
    Servers that go away and come back, in every state of a message.
*/
class tst_NatsAway : public QObject
{
    Q_OBJECT

private Q_SLOTS:
    void init() { lines.clear(); }
    void awayAtTheStart();
    void killedUnderLoad();
    void stoppedForAWhile();
    void storedWithoutAnswer();
    void storedWithoutAnswerInSharedSubject();
    void lostBeforeStored();
    void streamMadeAnew();
    void streamRemovedUnderLoad();
    void secondServer();
    void twoTroublesInTurn();
    void closedWhileAway();
    void closedWhileConnecting();

private:
    // Whether that many lines with the text have come in this test.
    bool says(const QString &text, int times = 1);

    QStringList lines;
};

bool tst_NatsAway::says(const QString &text, int times)
{
    lines += takeLog();
    return lines.filter(text).size() == times;
}

void tst_NatsAway::awayAtTheStart()
{
    NatsServer server;
    server.start();
    QVERIFY(Reader(server).create());
    server.kill();
    const MessageCapture capture;
    Storing storing(settingsFor(server));
    QCOMPARE(storing.store.open(), QString());
    storing.add(10, 10);
    QSignalSpy lost(storing.store.findChild<NatsLink *>(), &NatsLink::lost);
    QTRY_VERIFY_WITH_TIMEOUT(lost.count() >= 4, HangGuardMs);
    QVERIFY(says(QStringLiteral("no connection to ")));
    QCOMPARE(lines.size(), 1);
    server.start();
    QTRY_VERIFY_WITH_TIMEOUT(storing.isAllStored(), HangGuardMs);
    QVERIFY(storing.isExact(Reader(server)));
    QVERIFY(says(QStringLiteral("stores messages in stream S")));
}

void tst_NatsAway::killedUnderLoad()
{
    NatsServer server;
    server.start();
    QVERIFY(Reader(server).create());
    Storing storing(settingsFor(server));
    QCOMPARE(storing.store.open(), QString());
    QTimer load;
    connect(&load, &QTimer::timeout, &load, [&] { storing.add(200, 1); });
    load.start(5);
    for (int n = 0; n < 3; ++n) {
        const qint64 before = storing.messages;
        QTRY_VERIFY_WITH_TIMEOUT(storing.messages > before + 1000, HangGuardMs);
        server.kill();
        server.start();
    }
    const qint64 before = storing.messages;
    QTRY_VERIFY_WITH_TIMEOUT(storing.messages > before + 1000, HangGuardMs);
    load.stop();
    QTRY_VERIFY_WITH_TIMEOUT(storing.isAllStored(), LoadHangGuardMs);
    QVERIFY(storing.isInOrder);
    QVERIFY(storing.isExact(Reader(server)));
    QCOMPARE(storing.connected, (QList<bool>{true, false, true, false, true, false, true}));
}

// It is taken for dead, and neither what it has in its socket nor what is sent again is lost or
// doubled.
void tst_NatsAway::stoppedForAWhile()
{
    NatsServer server;
    server.start();
    QVERIFY(Reader(server).create());
    const MessageCapture capture;
    Storing storing(settingsFor(server), ShortLimit);
    QCOMPARE(storing.store.open(), QString());
    storing.add(100, 1);
    QTRY_VERIFY_WITH_TIMEOUT(storing.isAllStored(), HangGuardMs);
    server.suspend();
    storing.add(100, 5);
    QTRY_VERIFY_WITH_TIMEOUT(says(QStringLiteral("does not answer for subjects dev.*")),
                             HangGuardMs);
    QTRY_VERIFY_WITH_TIMEOUT(says(QStringLiteral("no connection to ")), HangGuardMs);
    server.resume();
    QTRY_VERIFY_WITH_TIMEOUT(storing.isAllStored(), HangGuardMs);
    QVERIFY(storing.isExact(Reader(server)));
    QVERIFY(says(QStringLiteral("stores messages in stream S"), 2));
}

// The server has stored them, we do not know that, and it has forgotten the ids since.
void tst_NatsAway::storedWithoutAnswer()
{
    NatsServer server;
    server.start();
    QVERIFY(Reader(server).create(forgetAtOnce));
    const MessageCapture capture;
    Storing storing(settingsFor(server), ShortLimit);
    QCOMPARE(storing.store.open(), QString());
    storing.add(50, 1);
    QTRY_VERIFY_WITH_TIMEOUT(storing.isAllStored(), HangGuardMs);
    server.suspend();
    storing.add(50, 2);
    QTRY_VERIFY_WITH_TIMEOUT(says(QStringLiteral("does not answer")), HangGuardMs);
    server.resume();
    QTRY_VERIFY_WITH_TIMEOUT(storing.isAllStored(), HangGuardMs);
    QVERIFY(storing.isExact(Reader(server)));
}

// Others' messages with the same subject lie between.
void tst_NatsAway::storedWithoutAnswerInSharedSubject()
{
    NatsServer server;
    server.start();
    QVERIFY(Reader(server).create(forgetAtOnce));
    const MessageCapture capture;
    NatsSettings settings = settingsFor(server);
    settings.subject = QStringLiteral("dev.{peer}");
    Storing storing(settings, ShortLimit);
    QCOMPARE(storing.store.open(), QString());
    storing.add(20, 1);
    QTRY_VERIFY_WITH_TIMEOUT(storing.isAllStored(), HangGuardMs);
    server.suspend();
    storing.add(20, 2);
    QTRY_VERIFY_WITH_TIMEOUT(says(QStringLiteral("does not answer")), HangGuardMs);
    server.resume();
    QTRY_VERIFY_WITH_TIMEOUT(storing.isAllStored(), HangGuardMs);
    QVERIFY(storing.isExact(Reader(server)));
}

// They have left us, and the server has ended before it has read them.
void tst_NatsAway::lostBeforeStored()
{
    NatsServer server;
    server.start();
    QVERIFY(Reader(server).create(forgetAtOnce));
    const MessageCapture capture;
    Storing storing(settingsFor(server), ShortLimit);
    QCOMPARE(storing.store.open(), QString());
    storing.add(50, 1);
    QTRY_VERIFY_WITH_TIMEOUT(storing.isAllStored(), HangGuardMs);
    server.suspend();
    storing.add(50, 2);
    QTRY_VERIFY_WITH_TIMEOUT(says(QStringLiteral("does not answer")), HangGuardMs);
    server.kill();
    server.start();
    QTRY_VERIFY_WITH_TIMEOUT(storing.isAllStored(), HangGuardMs);
    QVERIFY(storing.isExact(Reader(server)));
}

// Sequence numbers begin anew in it.
void tst_NatsAway::streamMadeAnew()
{
    NatsServer server;
    server.start();
    const Reader reader(server);
    QVERIFY(reader.create());
    const MessageCapture capture;
    NatsSettings settings = settingsFor(server);
    Storing storing(settings, ShortLimit);
    QCOMPARE(storing.store.open(), QString());
    storing.add(1, 30, 1000);
    QTRY_VERIFY_WITH_TIMEOUT(storing.isAllStored(), HangGuardMs);
    QVERIFY(reader.remove());
    storing.add(5, 2);
    QTRY_VERIFY_WITH_TIMEOUT(says(QStringLiteral("has no stream S")), HangGuardMs);
    QVERIFY(reader.create());
    QTRY_VERIFY_WITH_TIMEOUT(storing.isAllStored(), HangGuardMs);
    const auto stored = reader.byConnection();
    QCOMPARE(stored.size(), size_t(5));
    for (const auto &[connection, messages] : stored)
        QCOMPARE(messages.size(), 2);
}

// Thousands of messages come to a server on which nobody takes them. That delays no later answer.
void tst_NatsAway::streamRemovedUnderLoad()
{
    NatsServer server;
    server.start();
    QVERIFY(Reader(server).create());
    const MessageCapture capture;
    Storing storing(settingsFor(server), ShortLimit);
    QCOMPARE(storing.store.open(), QString());
    storing.add(2000, 1);
    QTRY_VERIFY_WITH_TIMEOUT(storing.isAllStored(), HangGuardMs);
    QVERIFY(Reader(server).remove());
    storing.add(2000, 2);
    QTRY_VERIFY_WITH_TIMEOUT(says(QStringLiteral("has no stream S")), HangGuardMs);
    const Reader reader(server);
    QVERIFY(reader.create());
    QTRY_VERIFY_WITH_TIMEOUT(storing.isAllStored(), HangGuardMs);
    QVERIFY(storing.isInOrder);
    QCOMPARE(reader.info()->State.Msgs, 4000U);
}

void tst_NatsAway::secondServer()
{
    const NatsServer none;
    NatsServer server;
    server.start();
    QVERIFY(Reader(server).create());
    NatsSettings settings = settingsFor(server);
    settings.servers = QStringList{none.address(), server.address()};
    Storing storing(settings);
    QCOMPARE(storing.store.open(), QString());
    storing.add(3, 3);
    QTRY_VERIFY_WITH_TIMEOUT(storing.isAllStored(), HangGuardMs);
}

// One server is away, and the other one does not want us. Each is said once.
void tst_NatsAway::twoTroublesInTurn()
{
    const NatsServer none;
    NatsServer server("authorization { user: somebody, password: right }\n");
    server.start();
    const MessageCapture capture;
    NatsSettings settings = settingsFor(server);
    settings.servers = QStringList{none.address(), server.address()};
    Storing storing(settings);
    QSignalSpy lost(storing.store.findChild<NatsLink *>(), &NatsLink::lost);
    QCOMPARE(storing.store.open(), QString());
    QTRY_VERIFY_WITH_TIMEOUT(lost.count() >= 6, HangGuardMs);
    QVERIFY(says(QStringLiteral("no connection to ")));
    QVERIFY(says(QStringLiteral("refuses us")));
    QCOMPARE(lines.size(), 2);
}

void tst_NatsAway::closedWhileAway()
{
    NatsServer server;
    server.start();
    QVERIFY(Reader(server).create());
    const MessageCapture capture;
    Storing storing(settingsFor(server), ShortLimit);
    QCOMPARE(storing.store.open(), QString());
    storing.add(10, 1);
    QTRY_VERIFY_WITH_TIMEOUT(storing.isAllStored(), HangGuardMs);
    server.suspend();
    storing.add(10, 2);
    QTRY_VERIFY_WITH_TIMEOUT(says(QStringLiteral("does not answer")), HangGuardMs);
    QElapsedTimer timer;
    timer.start();
    storing.store.close();
    QVERIFY(timer.elapsed() < 1000); // it waits for nothing; what is unsent would take 500 ms
    QCOMPARE(storing.messages, 10);
}

void tst_NatsAway::closedWhileConnecting()
{
    NatsServer server;
    server.start();
    server.suspend(); // the kernel takes the connection, and the server says nothing
    Storing storing(settingsFor(server));
    QCOMPARE(storing.store.open(), QString());
    storing.add(10, 2);
    QElapsedTimer timer;
    timer.start();
    storing.store.close();
    QVERIFY(timer.elapsed() < 1000);
    QCOMPARE(storing.messages, 0);
}

QTEST_GUILESS_MAIN(tst_NatsAway)
#include "tst_natsaway.moc"
