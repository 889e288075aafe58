// SPDX-FileCopyrightText: the tcpinputplugin2 authors
// SPDX-License-Identifier: MIT

#include "host/exitcodes.h"
#include "tests/host/inputhosttest.h"
#include "tests/kit/hangguard.h"
#include "tests/kit/testaddress.h"

#include <QtCore/QJsonObject>
#include <QtCore/QProcess>
#include <QtNetwork/QTcpServer>
#include <QtTest/QtTest>

#include <csignal>

#include <unistd.h>

using namespace host;
using namespace inputhosttest;

namespace {

QByteArray counted(const QByteArray &message)
{
    return QByteArray(3, '\0') + static_cast<char>(message.size()) + message;
}

} // namespace

// The messages that the program prints.
class tst_InputHostMessages : public InputHostTest
{
    Q_OBJECT

private Q_SLOTS:
    void jsonRecord_data();
    void jsonRecord();
    void ipv6();
    void configuration_data();
    void configuration();
    void framing_data();
    void framing();
    void rawOutput();
    void countOutput();
    void noOutput();
    void messagesComeAtOnce();
    void messageInTwoPieces_data();
    void messageInTwoPieces();
    void sendAndCloseAtOnce();
    void netcat();
    void maxMessage();
    void maxUnfinished();
    void exitAfter();
};

void tst_InputHostMessages::jsonRecord_data()
{
    QTest::addColumn<QString>("entry");
    QTest::newRow("create") << "create";
    QTest::newRow("registerPlugin") << "registerPlugin";
}

void tst_InputHostMessages::jsonRecord()
{
    QFETCH(QString, entry);
    Host host;
    host.start({QStringLiteral("--entry"), entry, QStringLiteral("--id"), QStringLiteral("my id")});
    const QDateTime before = QDateTime::currentDateTimeUtc().addSecs(-1);
    Device device(host);
    device.send("hello\n");
    QTRY_COMPARE_WITH_TIMEOUT(host.lines().size(), 1, HangGuardMs);

    const QString address = testAddress().toString();
    const QString peer = device.socket.localAddress().toString();
    const int peerPort = device.socket.localPort();
    const QString client =
            QStringLiteral("tcp2:%1:%2-%3:%4").arg(address).arg(host.port).arg(peer).arg(peerPort);
    QJsonObject record = host.record(0);
    const QDateTime time =
            QDateTime::fromString(record.take(QStringLiteral("time")).toString(), Qt::ISODate);
    QVERIFY(time >= before && time <= QDateTime::currentDateTimeUtc());
    QCOMPARE(record,
             QJsonObject({{QStringLiteral("plugin"), QStringLiteral("my id")},
                          {QStringLiteral("source"), QString(QStringLiteral("TCP:") + client)},
                          {QStringLiteral("peer"), peer},
                          {QStringLiteral("port"), peerPort},
                          {QStringLiteral("client"), client},
                          {QStringLiteral("task"), 0},
                          {QStringLiteral("bytes"), 5},
                          {QStringLiteral("text"), QStringLiteral("hello")}}));
    QCOMPARE(host.stop(), int(ExitOk));
    QCOMPARE(host.lines().size(), 1);
}

void tst_InputHostMessages::ipv6()
{
    QTcpServer probe;
    if (!probe.listen(QHostAddress::LocalHostIPv6)) {
        QTest::qSkip("No IPv6 here", __FILE__, __LINE__);
        return;
    }
    const quint16 port = probe.serverPort();
    probe.close();

    Host host(port);
    host.start(words("--set ipAddr=::1"));
    QVERIFY2(host.log().contains("Listening on ::1 port "), host.log().constData());
    Device device(QHostAddress(QHostAddress::LocalHostIPv6), port);
    device.send("hello\n");
    QTRY_COMPARE_WITH_TIMEOUT(host.lines().size(), 1, HangGuardMs);
    QCOMPARE(host.record(0).value(QStringLiteral("peer")).toString(), QStringLiteral("::1"));
}

void tst_InputHostMessages::configuration_data()
{
    QTest::addColumn<bool>("input");
    QTest::newRow("file") << false;
    QTest::newRow("standard input") << true;
}

// The option --set overrides the port in the file.
void tst_InputHostMessages::configuration()
{
    QFETCH(bool, input);
    const QByteArray config = listenConfig(1, R"(, "timeout": 77, "threadpoolSize": 3)");
    const QString file = input ? QStringLiteral("-") : writeConfig(config);
    Host host;
    host.run({QStringLiteral("--config"), file, QStringLiteral("--set"),
              QStringLiteral("port=%1").arg(host.port)});
    if (input)
        host.process.write(config);
    host.process.closeWriteChannel();
    QTRY_VERIFY_WITH_TIMEOUT(host.log().contains("Listening on "), HangGuardMs);
    host.signal(SIGUSR1);
    const QByteArray expected = "Listen: " + testAddress().toString().toLatin1() + ':'
            + QByteArray::number(host.port) + ", timeout: 77s, pool size: 3\n";
    QTRY_VERIFY2_WITH_TIMEOUT(host.log().contains(expected), host.log().constData(), HangGuardMs);
}

void tst_InputHostMessages::framing_data()
{
    QTest::addColumn<QString>("framing");
    QTest::addColumn<QByteArray>("bytes");
    QTest::addColumn<QStringList>("texts");

    QTest::newRow("lines") << "lines" << QByteArray("a\r\n\nb\xc3\xa4\n")
                           << QStringList{QStringLiteral("a"), QString(),
                                          QStringLiteral("b\u00e4")};
    QTest::newRow("length") << "length" << counted("a\n") + counted("") + counted("b")
                            << QStringList{QStringLiteral("a\n"), QString(), QStringLiteral("b")};
    QTest::newRow("none") << "none" << QByteArray("a\nb") << QStringList{QStringLiteral("a\nb")};
}

void tst_InputHostMessages::framing()
{
    QFETCH(QString, framing);
    QFETCH(QByteArray, bytes);
    QFETCH(QStringList, texts);
    Host host;
    host.start({QStringLiteral("--framing"), framing});
    Device device(host);
    device.send(bytes);
    QTRY_COMPARE_WITH_TIMEOUT(host.texts(), texts, HangGuardMs);
}

void tst_InputHostMessages::rawOutput()
{
    Host host;
    host.start(words("--output raw"));
    Device device(host);
    device.send("a\r\n\xff\nhalf");
    QTRY_COMPARE_WITH_TIMEOUT(host.output(), QByteArray("a\n\xff\n"), HangGuardMs);
    QCOMPARE(host.stop(), int(ExitOk));
    QCOMPARE(host.output(), QByteArray("a\n\xff\n"));
    QVERIFY(host.log().contains("\nmessages 2 bytes 2 connections 1 partial 1 "));
}

void tst_InputHostMessages::countOutput()
{
    Host host;
    host.start(words("--output count"));
    Device first(host);
    first.send("a\nbcd\n");
    Device second(host);
    second.send("\nhalf");
    QTRY_VERIFY_WITH_TIMEOUT(host.counters().startsWith("messages 3 bytes 4 connections 2 "),
                             HangGuardMs);
    QCOMPARE(host.output(), QByteArray());
    QCOMPARE(host.stop(), int(ExitOk));
    QCOMPARE(host.output(), QByteArray("messages 3 bytes 4 connections 2\n"));
}

void tst_InputHostMessages::noOutput()
{
    Host host;
    host.start(words("--output none --exit-after 1"));
    Device device(host);
    device.send("a\n");
    QCOMPARE(host.finish(), int(ExitOk));
    QCOMPARE(host.output(), QByteArray());
    QVERIFY(host.log().contains("messages 1 bytes 1 connections 1"));
}

// The device sends a message only when the one before is printed.
void tst_InputHostMessages::messagesComeAtOnce()
{
    Host host;
    host.start();
    for (int n = 0; n < 5; ++n) {
        Device device(host);
        device.send(QByteArray::number(n) + '\n');
        QTRY_COMPARE_WITH_TIMEOUT(host.texts().value(n), QString::number(n), HangGuardMs);
    }
}

void tst_InputHostMessages::messageInTwoPieces_data()
{
    QTest::addColumn<int>("first");
    QTest::addColumn<int>("second");
    QTest::newRow("a few bytes first") << 5 << 40;
    QTest::newRow("most of it first") << 40 << 10;
    QTest::newRow("a single byte last") << 40 << 0;
}

// The device stays connected, and sends nothing after the second piece. That piece usually arrives
// within 200 ms of the first offer. Then only the key "prompt" makes the plugin offer it.
void tst_InputHostMessages::messageInTwoPieces()
{
    QFETCH(int, first);
    QFETCH(int, second);
    Host host;
    host.start();
    Device device(host);

    device.send(QByteArray(first, 'x'));
    QTRY_VERIFY_WITH_TIMEOUT(host.counters().endsWith(" offers 1"), HangGuardMs);
    device.send(QByteArray(second, 'y') + '\n');

    QTRY_VERIFY_WITH_TIMEOUT(!host.lines().isEmpty(), HangGuardMs);
    QCOMPARE(host.texts(),
             QStringList(QString(first, QLatin1Char('x')) + QString(second, QLatin1Char('y'))));
    QCOMPARE(device.socket.state(), QAbstractSocket::ConnectedState);
    QCOMPARE(host.stop(), int(ExitOk));
    QVERIFY2(host.log().contains(" offers 2\n"), host.log().constData()); // the host asked for none
}

// The plugin offers the message when it is read, and may offer it again at the connection's end.
void tst_InputHostMessages::sendAndCloseAtOnce()
{
    constexpr int devices = 200;
    Host host;
    host.start();
    QStringList expected;
    for (int n = 0; n < devices; ++n) {
        const QByteArray text = "device " + QByteArray::number(n);
        Device device(host);
        device.send(text + '\n');
        device.close();
        expected += QString::fromLatin1(text);
    }
    QTRY_VERIFY_WITH_TIMEOUT(host.lines().size() >= devices, HangGuardMs);
    QCOMPARE(host.stop(), int(ExitOk));
    QStringList texts = host.texts();
    texts.sort();
    expected.sort();
    QCOMPARE(texts, expected);
}

// The simplest device: each sends one line, and exactly these lines are printed.
void tst_InputHostMessages::netcat()
{
    constexpr int devices = 50;
    Host host;
    host.start();
    for (int n = 0; n < devices; ++n) {
        QProcess device;
        device.start(QStringLiteral("nc"),
                     {QStringLiteral("-q0"), testAddress().toString(), QString::number(host.port)});
        device.write("hello\n");
        device.closeWriteChannel();
        QVERIFY2(device.waitForFinished(HangGuardMs), qPrintable(device.errorString()));
        QCOMPARE(device.exitCode(), 0);
    }
    QTRY_VERIFY_WITH_TIMEOUT(host.lines().size() >= devices, HangGuardMs);
    QCOMPARE(host.stop(), int(ExitOk));
    QCOMPARE(host.texts(), QStringList(devices, QStringLiteral("hello")));
}

void tst_InputHostMessages::maxMessage()
{
    Host host;
    host.start(words("--max-message 10"));
    Device device(host);
    device.send("much too long");
    QTRY_VERIFY_WITH_TIMEOUT(host.log().contains("Message of more than 10 bytes skipped"),
                             HangGuardMs);
    device.send(QByteArray(100000, 'x') + "\n0123456789\n01234567890\nend\n");
    // The rest may be too short for an offer. Then the last offer contains it.
    device.close();
    QTRY_COMPARE_WITH_TIMEOUT(host.texts().value(1), QStringLiteral("end"), HangGuardMs);
    QCOMPARE(host.texts(), QStringList({QStringLiteral("0123456789"), QStringLiteral("end")}));
    QCOMPARE(host.stop(), int(ExitOk));
    QCOMPARE(host.log().count("warning: "), 2);
    QCOMPARE(host.log().count("Message of more than 10 bytes skipped"), 2);
}

// The unfinished message is printed while the device is still connected. The next message is
// complete.
void tst_InputHostMessages::maxUnfinished()
{
    Host host;
    host.start(words("--max-unfinished 1000"));
    Device device(host);
    device.send(QByteArray(2000, 'x'));
    QTRY_COMPARE_WITH_TIMEOUT(host.lines().size(), 1, HangGuardMs);
    QCOMPARE(host.record(0).value(QStringLiteral("partial")), QJsonValue(true));
    device.send("x\nnext\n");
    QTRY_COMPARE_WITH_TIMEOUT(host.texts().value(1), QStringLiteral("next"), HangGuardMs);
    QCOMPARE(host.stop(), int(ExitOk));
    QVERIFY2(host.log().contains("Unfinished message of "), host.log().constData());
    QVERIFY2(host.log().contains("\nmessages 1 bytes 4 connections 1 partial 1 too-long 0 "),
             host.log().constData());
}

void tst_InputHostMessages::exitAfter()
{
    Host host;
    host.start(words("--exit-after 2"));
    Device device(host);
    device.send("a\nb\nc\nhalf");
    QCOMPARE(host.finish(), int(ExitOk));
    QCOMPARE(host.texts(), QStringList({QStringLiteral("a"), QStringLiteral("b")}));
}

QTEST_GUILESS_MAIN(tst_InputHostMessages)
#include "tst_inputhostmessages.moc"
