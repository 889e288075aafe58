// SPDX-FileCopyrightText: the tcpinputplugin2 authors
// SPDX-License-Identifier: MIT

#include "tests/kit/hangguard.h"
#include "tests/simulator/simulatortest.h"

#include <QtTest/QTest>

using namespace simulatortest;

// The program devicesim: scripts, as receivers see them.
class tst_DeviceSimScripts : public SimulatorTest
{
    Q_OBJECT

private Q_SLOTS:
    void initTestCase();
    void eachDevicePlaysIt();
    void pausesBetweenWrites();
    void endsConnections_data();
    void endsConnections();
    void connectsAgain();
    void waitsForThePeer();
    void givesUpWaiting();
    void saysThatThePeerWasEarly();
    void overTls();
    void isStopped_data();
    void isStopped();
    void refuses();

private:
    QStringList script(const QByteArray &content);

    QTemporaryDir folder;
};

void tst_DeviceSimScripts::initTestCase()
{
    QVERIFY(folder.isValid());
    prepare();
}

QStringList tst_DeviceSimScripts::script(const QByteArray &content)
{
    QFile file(folder.filePath(text("script")));
    if (!file.open(QIODevice::WriteOnly) || file.write(content) != content.size())
        qFatal("the file cannot be written");
    return {text("--script"), file.fileName()};
}

void tst_DeviceSimScripts::eachDevicePlaysIt()
{
    Receiver receiver;
    QVERIFY(receiver.listen(testAddress()));
    Simulator simulator;
    simulator.start(receiver,
                    script("send hello\nrepeat 3\nsend m{number}\nsend-raw \\x00\nend\nsend bye\n")
                            + words("--connections 20 --framing")
                            + QStringList{text("fixed 6 2e")});
    QVERIFY(simulator.waitForEnd());
    QVERIFY2(simulator.exitCode() == 0, simulator.errors().constData());
    QTRY_COMPARE_WITH_TIMEOUT(receiver.peers.size(), 20, HangGuardMs);
    QTRY_COMPARE_WITH_TIMEOUT(receiver.openPeers(), 0, HangGuardMs);
    for (const Peer *peer : receiver.peers) {
        QCOMPARE(peer->ended, Peer::Fin);
        QCOMPARE(peer->bytes, QByteArray("hello.m2....\0m4....\0m6....\0bye...", 33));
    }
    QCOMPARE(number(simulator.summary(), "messages"), 160);
}

void tst_DeviceSimScripts::pausesBetweenWrites()
{
    Receiver receiver;
    QVERIFY(receiver.listen(testAddress()));
    Simulator simulator;
    simulator.start(receiver, script("pause 50ms\nrepeat 3\nsend a\npause 100ms\nend\n"));
    QVERIFY(simulator.waitForEnd());
    QVERIFY2(simulator.exitCode() == 0, simulator.errors().constData());
    QTRY_COMPARE_WITH_TIMEOUT(receiver.peers.size(), 1, HangGuardMs);
    QTRY_COMPARE_WITH_TIMEOUT(receiver.peers.first()->bytes, QByteArray("a\na\na\n"), HangGuardMs);
    QVERIFY(number(simulator.summary(), "elapsedMs") >= 350);
}

void tst_DeviceSimScripts::endsConnections_data()
{
    QTest::addColumn<QByteArray>("step");
    QTest::addColumn<Peer::Ended>("seen");
    QTest::addColumn<QString>("reported");
    QTest::newRow("nothing") << QByteArray() << Peer::Fin << text("closed");
    QTest::newRow("close") << QByteArray("close") << Peer::Fin << text("closed");
    QTest::newRow("pause and close")
            << QByteArray("pause 1ms\nclose") << Peer::Fin << text("closed");
    QTest::newRow("reset") << QByteArray("reset") << Peer::Reset << text("reset");
    QTest::newRow("half-close") << QByteArray("half-close") << Peer::Fin << text("closed");
}

void tst_DeviceSimScripts::endsConnections()
{
    QFETCH(const QByteArray, step);
    QFETCH(const Peer::Ended, seen);
    QFETCH(const QString, reported);
    Receiver receiver;
    QVERIFY(receiver.listen(testAddress()));
    Simulator simulator;
    simulator.start(receiver, script("send a\n" + step));
    QVERIFY(simulator.waitForEnd());
    QCOMPARE(simulator.exitCode(), 0);
    QTRY_COMPARE_WITH_TIMEOUT(receiver.peers.size(), 1, HangGuardMs);
    QTRY_COMPARE_WITH_TIMEOUT(receiver.peers.first()->ended, seen, HangGuardMs);
    QCOMPARE(receiver.peers.first()->bytes, QByteArray("a\n"));
    QCOMPARE(end(simulator.connection()), reported);
}

void tst_DeviceSimScripts::connectsAgain()
{
    Receiver receiver;
    QVERIFY(receiver.listen(testAddress()));
    Simulator simulator;
    simulator.start(receiver,
                    script("repeat 2\nsend m{number}\nsend m{number}\nhalf-close\npause 20ms\n"
                           "end\nsend last\nreset\npause 10ms\n"));
    QVERIFY(simulator.waitForEnd());
    QCOMPARE(simulator.exitCode(), 0);
    QTRY_COMPARE_WITH_TIMEOUT(receiver.peers.size(), 3, HangGuardMs);
    QTRY_COMPARE_WITH_TIMEOUT(receiver.openPeers(), 0, HangGuardMs);
    QCOMPARE(receiver.mostOpen, 1);
    QCOMPARE(receiver.peers.at(0)->bytes, QByteArray("m1\nm2\n"));
    QCOMPARE(receiver.peers.at(1)->bytes, QByteArray("m3\nm4\n"));
    QCOMPARE(receiver.peers.at(2)->bytes, QByteArray("last\n"));
    QCOMPARE(receiver.peers.at(2)->ended, Peer::Reset);
    QCOMPARE(number(simulator.summary(), "messages"), 5);
    QVERIFY(number(simulator.summary(), "elapsedMs") >= 40);
}

void tst_DeviceSimScripts::waitsForThePeer()
{
    Receiver receiver;
    QVERIFY(receiver.listen(testAddress()));
    Simulator simulator;
    simulator.start(receiver, script("send a\nwait-close\nsend b\nclose"));
    QTRY_COMPARE_WITH_TIMEOUT(receiver.peers.size(), 1, HangGuardMs);
    QTRY_COMPARE_WITH_TIMEOUT(receiver.peers.first()->bytes, QByteArray("a\n"), HangGuardMs);
    receiver.peers.first()->close();
    QVERIFY(simulator.waitForEnd());
    QCOMPARE(simulator.exitCode(), 0);
    QTRY_COMPARE_WITH_TIMEOUT(receiver.peers.size(), 2, HangGuardMs);
    QTRY_COMPARE_WITH_TIMEOUT(receiver.peers.last()->bytes, QByteArray("b\n"), HangGuardMs);
    QCOMPARE(end(simulator.connection(0)), text("peer-closed"));
    QCOMPARE(end(simulator.connection(1)), text("closed"));
}

void tst_DeviceSimScripts::givesUpWaiting()
{
    Receiver receiver;
    receiver.answersEnd = false;
    QVERIFY(receiver.listen(testAddress()));
    Simulator simulator;
    simulator.start(receiver, script("wait-close 30ms\nsend b\nhalf-close\nwait-close 20ms\n"));
    QVERIFY(simulator.waitForEnd());
    QCOMPARE(simulator.exitCode(), 0);
    QCOMPARE(end(simulator.connection(0)), text("closed"));
    QCOMPARE(end(simulator.connection(1)), text("unanswered"));
    QTRY_COMPARE_WITH_TIMEOUT(receiver.peers.size(), 2, HangGuardMs);
    QCOMPARE(receiver.peers.at(0)->bytes, QByteArray());
    QTRY_COMPARE_WITH_TIMEOUT(receiver.peers.at(1)->bytes, QByteArray("b\n"), HangGuardMs);
}

void tst_DeviceSimScripts::saysThatThePeerWasEarly()
{
    Receiver receiver;
    QVERIFY(receiver.listen(testAddress()));
    Simulator simulator;
    simulator.start(receiver, script("send a\npause 1h\nsend b"));
    QTRY_COMPARE_WITH_TIMEOUT(receiver.peers.size(), 1, HangGuardMs);
    QTRY_COMPARE_WITH_TIMEOUT(receiver.peers.first()->bytes, QByteArray("a\n"), HangGuardMs);
    receiver.peers.first()->close();
    QVERIFY(simulator.waitForEnd());
    QCOMPARE(simulator.exitCode(), 1);
    QCOMPARE(simulator.connections().size(), 1);
    QCOMPARE(simulator.connection().value(text("error")).toString(),
             text("closed by the peer before the script had ended"));
}

void tst_DeviceSimScripts::overTls()
{
    TlsReceiver receiver(serverConfiguration());
    QVERIFY(receiver.listen(testAddress()));
    Simulator simulator;
    simulator.start(receiver,
                    script("send a\nclose\nsend b\nhalf-close\n") + words("--tls --insecure"));
    QVERIFY(simulator.waitForEnd());
    QVERIFY2(simulator.exitCode() == 0, simulator.output.constData());
    QTRY_COMPARE_WITH_TIMEOUT(receiver.disconnected, 2, HangGuardMs);
    QCOMPARE(receiver.bytes.value(receiver.sockets.at(0)), QByteArray("a\n"));
    QCOMPARE(receiver.bytes.value(receiver.sockets.at(1)), QByteArray("b\n"));
}

void tst_DeviceSimScripts::isStopped_data()
{
    QTest::addColumn<QByteArray>("content");
    QTest::newRow("in a pause") << QByteArray("send a\npause 1h\nsend b");
    QTest::newRow("before its end") << QByteArray("send a\npause 1h");
    QTest::newRow("between connections") << QByteArray("send a\nhalf-close\npause 1h\nsend b");
    // 25 days are more milliseconds than an int has.
    QTest::newRow("between connections, for weeks")
            << "send a\nhalf-close\n" + QByteArray("pause 24h\n").repeated(25) + "send b";
    QTest::newRow("waiting") << QByteArray("send a\nwait-close");
}

void tst_DeviceSimScripts::isStopped()
{
    QFETCH(const QByteArray, content);
    Receiver receiver;
    QVERIFY(receiver.listen(testAddress()));
    Simulator simulator;
    simulator.start(receiver, script(content));
    QTRY_COMPARE_WITH_TIMEOUT(receiver.peers.size(), 1, HangGuardMs);
    QTRY_COMPARE_WITH_TIMEOUT(receiver.peers.first()->bytes, QByteArray("a\n"), HangGuardMs);
    if (content.contains("half-close"))
        QTRY_COMPARE_WITH_TIMEOUT(receiver.peers.first()->ended, Peer::Fin, HangGuardMs);
    simulator.signal(SIGTERM);
    QVERIFY(simulator.waitForEnd());
    QCOMPARE(simulator.exitCode(), 0);
    QTRY_COMPARE_WITH_TIMEOUT(receiver.peers.first()->ended, Peer::Fin, HangGuardMs);
    QCOMPARE(end(simulator.connection()), text("closed"));
    QVERIFY(simulator.summary().value(text("interrupted")).toBool());
}

void tst_DeviceSimScripts::refuses()
{
    const QStringList wrong = script("send a\nsned b\n");
    Simulator simulator;
    simulator.start(wrong);
    QVERIFY(simulator.waitForEnd());
    QCOMPARE(simulator.exitCode(), 2);
    const QByteArray errors = simulator.errors();
    QVERIFY2(errors.startsWith("devicesim: " + wrong.last().toLocal8Bit()
                               + ", line 2: unknown step: sned; there are send, "),
             errors.constData());
}

QTEST_GUILESS_MAIN(tst_DeviceSimScripts)
#include "tst_devicesimscripts.moc"
