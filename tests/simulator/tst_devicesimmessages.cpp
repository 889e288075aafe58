// SPDX-FileCopyrightText: the tcpinputplugin2 authors
// SPDX-License-Identifier: MIT

#include "tests/kit/hangguard.h"
#include "tests/simulator/simulatortest.h"

#include <QtTest/QTest>

using namespace simulatortest;

// The program devicesim: messages that are given to it.
class tst_DeviceSimMessages : public QObject
{
    Q_OBJECT

private Q_SLOTS:
    void initTestCase();
    void playsFiles_data();
    void playsFiles();
    void eachDeviceSendsAll();
    void linesGoIntoTemplates();
    void spreadsThemOverConnections();
    void refusesFiles_data();
    void refusesFiles();
    void endsWhereOneDoesNotFit();
    void sendsInputAtOnce();
    void sendsManyLinesOfInput();
    void pacesInputAfterAnIdleTime();
    void leavesOutBadLines();
    void readsRedirectedFiles();
    void stopsWhileInputIsOpen();

private:
    QString made(const QByteArray &content);

    QTemporaryDir folder;
};

void tst_DeviceSimMessages::initTestCase()
{
    QVERIFY(folder.isValid());
}

QString tst_DeviceSimMessages::made(const QByteArray &content)
{
    QFile file(folder.filePath(text("messages")));
    if (!file.open(QIODevice::WriteOnly) || file.write(content) != content.size())
        qFatal("the file cannot be written");
    return file.fileName();
}

void tst_DeviceSimMessages::playsFiles_data()
{
    QTest::addColumn<QByteArray>("content");
    QTest::addColumn<QByteArray>("options");
    QTest::addColumn<QByteArray>("sent");
    QTest::newRow("text") << QByteArray("one\ntwo\\x00\n") << QByteArray()
                          << QByteArray("one\ntwo\0\n", 9);
    QTest::newRow("again") << QByteArray("one\ntwo\n") << QByteArray("--messages 3")
                           << QByteArray("one\ntwo\none\n");
    QTest::newRow("fewer") << QByteArray("one\ntwo\n") << QByteArray("--messages 1")
                           << QByteArray("one\n");
    QTest::newRow("hex") << QByteArray("00 01\nff\n")
                         << QByteArray("--messages-as hex --framing crlf")
                         << QByteArray("\0\1\r\n\xff\r\n", 7);
    QTest::newRow("plain") << QByteArray("a\\x00\n") << QByteArray("--messages-as plain")
                           << QByteArray("a\\x00\n");
    QTest::newRow("raw") << QByteArray("\0\1\n\2", 4)
                         << QByteArray("--messages-as whole --framing none")
                         << QByteArray("\0\1\n\2", 4);
    QTest::newRow("byte by byte") << QByteArray("one\ntwo\n") << QByteArray("--segments byte")
                                  << QByteArray("one\ntwo\n");
    QTest::newRow("random cuts") << QByteArray("one\ntwo\n")
                                 << QByteArray("--segments random --messages 4")
                                 << QByteArray("one\ntwo\none\ntwo\n");
}

void tst_DeviceSimMessages::playsFiles()
{
    QFETCH(const QByteArray, content);
    QFETCH(const QByteArray, options);
    QFETCH(const QByteArray, sent);
    Receiver receiver;
    QVERIFY(receiver.listen(testAddress()));
    Simulator simulator;
    simulator.start(receiver,
                    QStringList{text("--messages-from"), made(content)}
                            + words(options.constData()));
    QVERIFY(simulator.waitForEnd());
    QVERIFY2(simulator.exitCode() == 0, simulator.errors().constData());
    QTRY_COMPARE_WITH_TIMEOUT(receiver.peers.size(), 1, HangGuardMs);
    QTRY_COMPARE_WITH_TIMEOUT(receiver.peers.first()->ended, Peer::Fin, HangGuardMs);
    QCOMPARE(receiver.peers.first()->bytes, sent);
    QCOMPARE(number(simulator.connection(), "bytes"), sent.size());
}

void tst_DeviceSimMessages::eachDeviceSendsAll()
{
    Receiver receiver;
    QVERIFY(receiver.listen(testAddress()));
    Simulator simulator;
    simulator.start(
            receiver,
            {text("--messages-from"), made("one\ntwo\n"), text("--connections"), text("20")});
    QVERIFY(simulator.waitForEnd());
    QCOMPARE(simulator.exitCode(), 0);
    QTRY_COMPARE_WITH_TIMEOUT(receiver.peers.size(), 20, HangGuardMs);
    QTRY_COMPARE_WITH_TIMEOUT(receiver.openPeers(), 0, HangGuardMs);
    for (const Peer *peer : receiver.peers)
        QCOMPARE(peer->bytes, QByteArray("one\ntwo\n"));
    QCOMPARE(number(simulator.summary(), "messages"), 40);
}

void tst_DeviceSimMessages::linesGoIntoTemplates()
{
    Receiver receiver;
    QVERIFY(receiver.listen(testAddress()));
    Simulator simulator;
    simulator.start(receiver,
                    {text("--messages-from"), made("one\ntwo\n"), text("--template"),
                     text("{\"n\":{number},\"text\":\"{line}\"}")});
    QVERIFY(simulator.waitForEnd());
    QCOMPARE(simulator.exitCode(), 0);
    QTRY_COMPARE_WITH_TIMEOUT(receiver.peers.size(), 1, HangGuardMs);
    QTRY_COMPARE_WITH_TIMEOUT(receiver.peers.first()->ended, Peer::Fin, HangGuardMs);
    QCOMPARE(receiver.peers.first()->bytes,
             QByteArray("{\"n\":1,\"text\":\"one\"}\n{\"n\":2,\"text\":\"two\"}\n"));
}

void tst_DeviceSimMessages::spreadsThemOverConnections()
{
    Receiver receiver;
    QVERIFY(receiver.listen(testAddress()));
    Simulator simulator;
    simulator.start(receiver,
                    QStringList{text("--messages-from"), made("one\ntwo\nthree\n")}
                            + words("--reconnect 2 --close half-close"));
    QVERIFY(simulator.waitForEnd());
    QCOMPARE(simulator.exitCode(), 0);
    QTRY_COMPARE_WITH_TIMEOUT(receiver.peers.size(), 3, HangGuardMs);
    QTRY_COMPARE_WITH_TIMEOUT(receiver.openPeers(), 0, HangGuardMs);
    QCOMPARE(receiver.peers.at(0)->bytes, QByteArray("one\n"));
    QCOMPARE(receiver.peers.at(1)->bytes, QByteArray("two\n"));
    QCOMPARE(receiver.peers.at(2)->bytes, QByteArray("three\n"));
}

void tst_DeviceSimMessages::refusesFiles_data()
{
    QTest::addColumn<QByteArray>("content");
    QTest::addColumn<QByteArray>("options");
    QTest::addColumn<QByteArray>("complaint"); // behind the name of the file
    QTest::newRow("escape") << QByteArray("one\ntwo\\\n") << QByteArray()
                            << QByteArray(", line 2: unknown escape: \\; there are ");
    QTest::newRow("framing") << QByteArray("abc\n") << QByteArray("--framing fixed~2")
                             << QByteArray(", line 1: 3 bytes do not fit the framing\n");
    QTest::newRow("nothing to send") << QByteArray("abc\n\n") << QByteArray("--framing none")
                                     << QByteArray(", line 2: 0 bytes do not fit the framing\n");
    QTest::newRow("empty") << QByteArray() << QByteArray()
                           << QByteArray(": there is no message in it\n");
}

void tst_DeviceSimMessages::refusesFiles()
{
    QFETCH(const QByteArray, content);
    QFETCH(const QByteArray, options);
    QFETCH(const QByteArray, complaint);
    QStringList arguments = words(options.constData());
    arguments.replaceInStrings(text("~"), text(" "));
    const QString file = made(content);
    Simulator simulator;
    simulator.start(arguments + QStringList{text("--messages-from"), file});
    QVERIFY(simulator.waitForEnd());
    QCOMPARE(simulator.exitCode(), 2);
    const QByteArray errors = simulator.errors();
    QVERIFY2(errors.startsWith("devicesim: " + file.toLocal8Bit() + complaint), errors.constData());
}

// Numbers become longer.
void tst_DeviceSimMessages::endsWhereOneDoesNotFit()
{
    Receiver receiver;
    QVERIFY(receiver.listen(testAddress()));
    Simulator simulator;
    simulator.start(receiver,
                    {text("--template"), text("n{number}"), text("--framing"), text("fixed 2"),
                     text("--messages"), text("20")});
    QVERIFY(simulator.waitForEnd());
    QCOMPARE(simulator.exitCode(), 1);
    QTRY_COMPARE_WITH_TIMEOUT(receiver.peers.size(), 1, HangGuardMs);
    QTRY_COMPARE_WITH_TIMEOUT(receiver.peers.first()->ended, Peer::Fin, HangGuardMs);
    QCOMPARE(receiver.peers.first()->bytes, QByteArray("n1n2n3n4n5n6n7n8n9"));
    QCOMPARE(simulator.connection().value(text("error")).toString(),
             text("message 10 does not fit the framing"));
    QCOMPARE(number(simulator.connection(), "messages"), 9);
}

void tst_DeviceSimMessages::sendsInputAtOnce()
{
    Receiver receiver;
    QVERIFY(receiver.listen(testAddress()));
    Simulator simulator;
    simulator.start(receiver, words("--messages-from - --connections 3"));
    simulator.write("one\ntw");
    QTRY_COMPARE_WITH_TIMEOUT(receiver.peers.size(), 3, HangGuardMs);
    for (const Peer *peer : receiver.peers)
        QTRY_COMPARE_WITH_TIMEOUT(peer->bytes, QByteArray("one\n"), HangGuardMs);
    simulator.write("o\\x00\nthree");
    for (const Peer *peer : receiver.peers)
        QTRY_COMPARE_WITH_TIMEOUT(peer->bytes, QByteArray("one\ntwo\0\n", 9), HangGuardMs);
    QCOMPARE(receiver.openPeers(), 3);
    simulator.endInput();
    QVERIFY(simulator.waitForEnd());
    QCOMPARE(simulator.exitCode(), 0);
    QTRY_COMPARE_WITH_TIMEOUT(receiver.openPeers(), 0, HangGuardMs);
    for (const Peer *peer : receiver.peers)
        QCOMPARE(peer->bytes, QByteArray("one\ntwo\0\nthree\n", 15));
    QCOMPARE(number(simulator.summary(), "messages"), 9);
}

// More than waits in memory at a time. The last device comes when the others have begun.
void tst_DeviceSimMessages::sendsManyLinesOfInput()
{
    Receiver receiver;
    QVERIFY(receiver.listen(testAddress()));
    QByteArray lines;
    for (int i = 1; i <= 50000; ++i)
        lines += QByteArray::number(i) + '\n';
    Simulator simulator;
    simulator.start(receiver, words("--messages-from - --connections 3 --connect-rate 20"));
    simulator.write(lines);
    simulator.endInput();
    QVERIFY(simulator.waitForEnd());
    QCOMPARE(simulator.exitCode(), 0);
    QTRY_COMPARE_WITH_TIMEOUT(receiver.peers.size(), 3, HangGuardMs);
    QTRY_COMPARE_WITH_TIMEOUT(receiver.openPeers(), 0, HangGuardMs);
    for (const Peer *peer : receiver.peers)
        QVERIFY(peer->bytes == lines);
    QCOMPARE(number(simulator.summary(), "messages"), 150000);
}

void tst_DeviceSimMessages::pacesInputAfterAnIdleTime()
{
    Receiver receiver;
    QVERIFY(receiver.listen(testAddress()));
    Simulator simulator;
    simulator.start(receiver, words("--messages-from - --rate 5"));
    simulator.write("one\n");
    QTRY_COMPARE_WITH_TIMEOUT(receiver.peers.size(), 1, HangGuardMs);
    QTRY_COMPARE_WITH_TIMEOUT(receiver.peers.first()->bytes, QByteArray("one\n"), HangGuardMs);
    QElapsedTimer clock;
    clock.start();
    QTRY_VERIFY_WITH_TIMEOUT(clock.elapsed() >= 1000,
                             HangGuardMs); // the rate would allow five lines in it
    clock.start();
    simulator.write("two\nthree\nfour\n");
    simulator.endInput();
    QVERIFY(simulator.waitForEnd());
    QVERIFY2(clock.elapsed() >= 380, QByteArray::number(clock.elapsed()).constData());
    QCOMPARE(simulator.exitCode(), 0);
    QTRY_COMPARE_WITH_TIMEOUT(receiver.peers.first()->bytes, QByteArray("one\ntwo\nthree\nfour\n"),
                              HangGuardMs);
}

void tst_DeviceSimMessages::leavesOutBadLines()
{
    Receiver receiver;
    QVERIFY(receiver.listen(testAddress()));
    Simulator simulator;
    simulator.start(receiver, words("--messages-from - --messages-as hex"));
    simulator.write("61\n6\n62\n");
    simulator.endInput();
    QVERIFY(simulator.waitForEnd());
    QCOMPARE(simulator.exitCode(), 1);
    QCOMPARE(simulator.errors(),
             QByteArray("devicesim: standard input, line 2: not pairs of "
                        "hexadecimal digits\n"));
    QTRY_COMPARE_WITH_TIMEOUT(receiver.peers.size(), 1, HangGuardMs);
    QTRY_COMPARE_WITH_TIMEOUT(receiver.peers.first()->bytes, QByteArray("a\nb\n"), HangGuardMs);
}

void tst_DeviceSimMessages::readsRedirectedFiles()
{
    Receiver receiver;
    QVERIFY(receiver.listen(testAddress()));
    Simulator simulator;
    simulator.setInputFile(made("one\ntwo\n"));
    simulator.start(receiver, words("--messages-from -"));
    QVERIFY(simulator.waitForEnd());
    QCOMPARE(simulator.exitCode(), 0);
    QTRY_COMPARE_WITH_TIMEOUT(receiver.peers.size(), 1, HangGuardMs);
    QTRY_COMPARE_WITH_TIMEOUT(receiver.peers.first()->bytes, QByteArray("one\ntwo\n"), HangGuardMs);
}

void tst_DeviceSimMessages::stopsWhileInputIsOpen()
{
    Receiver receiver;
    QVERIFY(receiver.listen(testAddress()));
    Simulator simulator;
    simulator.start(receiver, words("--messages-from -"));
    simulator.write("one\n");
    QTRY_COMPARE_WITH_TIMEOUT(receiver.peers.size(), 1, HangGuardMs);
    QTRY_COMPARE_WITH_TIMEOUT(receiver.peers.first()->bytes, QByteArray("one\n"), HangGuardMs);
    simulator.signal(SIGTERM);
    QVERIFY(simulator.waitForEnd());
    QCOMPARE(simulator.exitCode(), 0);
    QCOMPARE(end(simulator.connection()), text("closed"));
}

QTEST_GUILESS_MAIN(tst_DeviceSimMessages)
#include "tst_devicesimmessages.moc"
