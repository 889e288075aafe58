// SPDX-FileCopyrightText: the tcpinputplugin2 authors
// SPDX-License-Identifier: MIT

#include "host/exitcodes.h"
#include "tests/host/inputhosttest.h"
#include "tests/kit/hangguard.h"
#include "tests/kit/testaddress.h"

#include <QtNetwork/QTcpServer>
#include <QtTest/QtTest>

#include <csignal>

#include <unistd.h>

using namespace host;
using namespace inputhosttest;

// SIGHUP makes the program read its configuration again.
class tst_InputHostReload : public InputHostTest
{
    Q_OBJECT

private Q_SLOTS:
    void reload();
    void reloadPrintsWhatIsStillComing();
    void reloadWithBadConfiguration_data();
    void reloadWithBadConfiguration();
    void reloadThatDoesNotListen();
    void reloadThatDoesNotStart();
    void reloadWithNothingToGoBackTo();
    void standardInputIsReadOnce();
};

// The port changes, and then changes back.
void tst_InputHostReload::reload()
{
    Host host;
    const quint16 ports[] = {host.port, freePort()};
    const QString file = writeConfig(listenConfig(ports[0]));
    host.run({QStringLiteral("--config"), file});
    QTRY_COMPARE_WITH_TIMEOUT(host.log().count("Listening on "), 1, HangGuardMs);

    for (int n = 1; n < 4; ++n) {
        const quint16 port = ports[n % 2];
        writeConfig(listenConfig(port));
        host.signal(SIGHUP);
        QTRY_COMPARE_WITH_TIMEOUT(host.log().count("Listening on "), n + 1, HangGuardMs);
        QVERIFY(!canConnect(ports[(n + 1) % 2]));
        Device device(testAddress(), port);
        device.send("a\n");
        QTRY_COMPARE_WITH_TIMEOUT(host.lines().size(), n, HangGuardMs);
    }
    QCOMPARE(host.stop(), int(ExitOk));
    QCOMPARE(host.lines().size(), 3);
    QVERIFY(host.log().contains("\nmessages 3 bytes 3 connections 3 "));
    // A plugin that was started twice hands over each connection twice, and logs a warning.
    QVERIFY2(!host.log().contains("warning: "), host.log().constData());
}

void tst_InputHostReload::reloadPrintsWhatIsStillComing()
{
    Host host;
    host.start();
    Device device(host);
    device.send("a\n");
    QTRY_COMPARE_WITH_TIMEOUT(host.lines().size(), 1, HangGuardMs);
    device.send("b\nhalf");
    host.signal(SIGHUP);
    QTRY_COMPARE_WITH_TIMEOUT(host.lines().size(), 3, HangGuardMs);
    QCOMPARE(host.texts(),
             QStringList({QStringLiteral("a"), QStringLiteral("b"), QStringLiteral("half")}));
    QCOMPARE(host.record(2).value(QStringLiteral("partial")), QJsonValue(true));
    QTRY_COMPARE_WITH_TIMEOUT(host.log().count("Listening on "), 2, HangGuardMs);
}

void tst_InputHostReload::reloadWithBadConfiguration_data()
{
    QTest::addColumn<QByteArray>("content");
    QTest::addColumn<QByteArray>("complaint");

    QTest::newRow("not JSON") << QByteArray("{") << QByteArray(" is not JSON: ");
    QTest::newRow("no object") << QByteArray("[]") << QByteArray(" is not a JSON object");
    QTest::newRow("missing") << QByteArray() << ": " + noSuchFile();
}

// The old plugin continues, with its connections.
void tst_InputHostReload::reloadWithBadConfiguration()
{
    QFETCH(QByteArray, content);
    QFETCH(QByteArray, complaint);
    Host host;
    const QString file = writeConfig(listenConfig(host.port));
    host.run({QStringLiteral("--config"), file});
    QTRY_VERIFY_WITH_TIMEOUT(canConnect(host.port), HangGuardMs);
    Device device(host);

    writeConfig(content);
    if (content.isEmpty())
        QVERIFY(QFile::remove(file));
    host.signal(SIGHUP);
    QTRY_VERIFY_WITH_TIMEOUT(host.log().contains("Configuration not changed"), HangGuardMs);
    QVERIFY2(host.log().contains(complaint), host.log().constData());
    QVERIFY2(host.log().contains("error: "), host.log().constData());
    device.send("a\n");
    QTRY_COMPARE_WITH_TIMEOUT(host.lines().size(), 1, HangGuardMs);
    QCOMPARE(host.log().count("Listening on "), 1);
    QCOMPARE(host.stop(), int(ExitOk));
}

void tst_InputHostReload::reloadThatDoesNotListen()
{
    QTcpServer other;
    QVERIFY(other.listen(testAddress()));
    Host host;
    const QString file = writeConfig(listenConfig(host.port));
    host.run({QStringLiteral("--config"), file});
    QTRY_VERIFY_WITH_TIMEOUT(canConnect(host.port), HangGuardMs);

    writeConfig(listenConfig(other.serverPort()));
    host.signal(SIGHUP);
    QTRY_COMPARE_WITH_TIMEOUT(host.log().count("Listening on "), 2, HangGuardMs);
    QVERIFY(host.log().contains("error: "));
    QVERIFY(host.log().contains("The plugin does not listen"));
    Device device(host);
    device.send("a\n");
    QTRY_COMPARE_WITH_TIMEOUT(host.lines().size(), 1, HangGuardMs);
    QCOMPARE(host.stop(), int(ExitOk));
}

void tst_InputHostReload::reloadThatDoesNotStart()
{
    Host host;
    const QString file = writeConfig(listenConfig(host.port));
    host.run({QStringLiteral("--config"), file});
    QTRY_VERIFY_WITH_TIMEOUT(canConnect(host.port), HangGuardMs);

    writeConfig(listenConfig(host.port, R"(, "ssl": {"CAFile": "/nonexistent"})"));
    host.signal(SIGHUP);
    QTRY_COMPARE_WITH_TIMEOUT(host.log().count("Listening on "), 2, HangGuardMs);
    QVERIFY(host.log().contains("The plugin refused to start"));
    Device device(host);
    device.send("a\n");
    QTRY_COMPARE_WITH_TIMEOUT(host.lines().size(), 1, HangGuardMs);
    QCOMPARE(host.stop(), int(ExitOk));
}

// The new configuration is refused. The old one no longer works, either.
void tst_InputHostReload::reloadWithNothingToGoBackTo()
{
    const QString certificates = folder.filePath(QStringLiteral("ca.pem"));
    QFile file(certificates);
    QVERIFY(file.open(QIODevice::WriteOnly));
    // An empty file is no certificate. It is refused, unless "strict" is false.
    const QByteArray ssl = R"(, "strict": false, "ssl": {"CAFile": ")" + certificates.toUtf8();
    Host host;
    host.run({QStringLiteral("--config"), writeConfig(listenConfig(host.port, ssl + "\"}"))});
    QTRY_VERIFY_WITH_TIMEOUT(host.log().contains("Listening on "), HangGuardMs);

    QVERIFY(file.remove());
    writeConfig(listenConfig(host.port, ssl + ".missing\"}"));
    host.signal(SIGHUP);
    QCOMPARE(host.finish(), int(ExitStartFailed));
    QCOMPARE(host.log().count("The plugin refused to start"), 2);
    QVERIFY(host.log().contains("\nmessages 0 "));
}

void tst_InputHostReload::standardInputIsReadOnce()
{
    Host host;
    host.run({QStringLiteral("--config"), QStringLiteral("-")});
    host.process.write(listenConfig(host.port));
    host.process.closeWriteChannel();
    QTRY_VERIFY_WITH_TIMEOUT(canConnect(host.port), HangGuardMs);
    Device device(host);
    host.signal(SIGHUP);
    QTRY_VERIFY_WITH_TIMEOUT(host.log().contains("Standard input can be read once only"),
                             HangGuardMs);
    device.send("a\n");
    QTRY_COMPARE_WITH_TIMEOUT(host.lines().size(), 1, HangGuardMs);
    QCOMPARE(host.stop(), int(ExitOk));
}

QTEST_GUILESS_MAIN(tst_InputHostReload)
#include "tst_inputhostreload.moc"
