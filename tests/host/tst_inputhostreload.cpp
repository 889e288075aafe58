// SPDX-FileCopyrightText: the tcpinputplugin2 authors
// SPDX-License-Identifier: MIT

#include "host/exitcodes.h"
#include "tests/host/inputhosttest.h"
#include "tests/kit/hangguard.h"
#include "tests/kit/testaddress.h"
#include "tests/kit/tirelessdevice.h"

#include <QtNetwork/QTcpServer>
#include <QtTest/QtTest>

#include <algorithm>
#include <csignal>
#include <memory>
#include <vector>

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
    void reloadLosesNothing();
    void reloadEndsWhoDoesNotClose();
    void reloadWithoutOffsets();
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
        inputhosttest::Device device(testAddress(), port);
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
    inputhosttest::Device device(host);
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

// Devices that send without a pause find the port open all the time.
void tst_InputHostReload::reloadLosesNothing()
{
    constexpr int Devices = 3;
    constexpr int Reloads = 3;
    Host host;
    host.start(words("--drain 1"));
    std::vector<std::unique_ptr<TirelessDevice>> devices;
    for (int n = 0; n < Devices; ++n)
        devices.push_back(std::make_unique<TirelessDevice>(n, testAddress(), host.port, false));
    // Each plugin makes a worker for each of them. Who only waits in the kernel's queue is not told
    // to go, but taken over.
    const auto allAreServed = [&](int plugins) {
        const auto haveFailed = std::any_of(devices.begin(), devices.end(),
                                            [](const auto &device) { return device->hasFailed(); });
        return haveFailed || host.log().count("Creating new TcpTask2") == plugins * Devices;
    };
    for (int n = 1; n <= Reloads; ++n) {
        QTRY_VERIFY_WITH_TIMEOUT(allAreServed(n), HangGuardMs);
        host.signal(SIGHUP);
        QTRY_COMPARE_WITH_TIMEOUT(host.log().count("Listening on "), n + 1, HangGuardMs);
    }
    QTRY_VERIFY_WITH_TIMEOUT(allAreServed(Reloads + 1), HangGuardMs);
    QStringList expected;
    for (const auto &device : devices) {
        device->finish();
        QVERIFY(!device->hasFailed());
        for (int n = 0; n < device->sent(); ++n)
            expected += QString::fromLatin1(numberedMessage(device->stream(), n)).chopped(1);
    }
    QCOMPARE(host.stop(), int(ExitOk));
    QStringList texts; // Host::texts() is for few
    for (const QByteArray &line : host.lines())
        texts += QJsonDocument::fromJson(line).object().value(QStringLiteral("text")).toString();
    texts.sort();
    expected.sort();
    QVERIFY(texts == expected); // nothing is missing, nothing comes twice
    QVERIFY2(!host.log().contains("warning: "), host.log().constData());
}

void tst_InputHostReload::reloadEndsWhoDoesNotClose()
{
    Host host;
    host.start();
    const auto device = NativeSocket::connectedTo(testAddress(), host.port);
    QVERIFY(device.send("a\nhalf"));
    QTRY_COMPARE_WITH_TIMEOUT(host.lines().size(), 1, HangGuardMs);
    host.signal(SIGHUP);
    QVERIFY(device.ends()); // is told
    QTRY_VERIFY_WITH_TIMEOUT(
            host.log().contains("1 connections were not closed by their devices, closing"),
            HangGuardMs);
    QTRY_COMPARE_WITH_TIMEOUT(host.lines().size(), 2, HangGuardMs);
    QCOMPARE(host.record(1).value(QStringLiteral("partial")), QJsonValue(true));
    QCOMPARE(host.stop(), int(ExitOk));
}

// The old plugin is ended first: nobody could tell the two plugins' offers apart.
void tst_InputHostReload::reloadWithoutOffsets()
{
    Host host;
    host.start(words("--set offsets=false"));
    const auto device = NativeSocket::connectedTo(testAddress(), host.port);
    QVERIFY(device.send("a\n"));
    QTRY_COMPARE_WITH_TIMEOUT(host.lines().size(), 1, HangGuardMs);
    host.signal(SIGHUP);
    QTRY_COMPARE_WITH_TIMEOUT(host.log().count("Listening on "), 2, HangGuardMs);
    QVERIFY(!host.log().contains("devices are told"));
    QVERIFY(device.ends());
    inputhosttest::Device another(host);
    another.send("b\n");
    QTRY_COMPARE_WITH_TIMEOUT(host.lines().size(), 2, HangGuardMs);
    QCOMPARE(host.stop(), int(ExitOk));
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
    inputhosttest::Device device(host);

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

    inputhosttest::Device before(host); // goes on
    writeConfig(listenConfig(other.serverPort()));
    host.signal(SIGHUP);
    QTRY_VERIFY_WITH_TIMEOUT(host.log().contains("Going on with the old configuration"),
                             HangGuardMs);
    QVERIFY(host.log().contains("error: "));
    QVERIFY(host.log().contains("The plugin does not listen"));
    before.send("a\n");
    inputhosttest::Device device(host);
    device.send("b\n");
    QTRY_COMPARE_WITH_TIMEOUT(host.lines().size(), 2, HangGuardMs);
    QCOMPARE(host.stop(), int(ExitOk));
}

void tst_InputHostReload::reloadThatDoesNotStart()
{
    Host host;
    const QString file = writeConfig(listenConfig(host.port));
    host.run({QStringLiteral("--config"), file});
    QTRY_VERIFY_WITH_TIMEOUT(canConnect(host.port), HangGuardMs);

    inputhosttest::Device before(host); // goes on
    writeConfig(listenConfig(host.port, R"(, "ssl": {"CAFile": "/nonexistent"})"));
    host.signal(SIGHUP);
    QTRY_VERIFY_WITH_TIMEOUT(host.log().contains("Going on with the old configuration"),
                             HangGuardMs);
    QVERIFY(host.log().contains("The plugin refused to start"));
    before.send("a\n");
    inputhosttest::Device device(host);
    device.send("b\n");
    QTRY_COMPARE_WITH_TIMEOUT(host.lines().size(), 2, HangGuardMs);
    QCOMPARE(host.stop(), int(ExitOk));
}

// The new configuration is refused, and the old one no longer works, either. Without "offsets" the
// old plugin is ended before the new one starts.
void tst_InputHostReload::reloadWithNothingToGoBackTo()
{
    const QString certificates = folder.filePath(QStringLiteral("ca.pem"));
    QFile file(certificates);
    QVERIFY(file.open(QIODevice::WriteOnly));
    // An empty file is no certificate. It is refused, unless "strict" is false.
    const QByteArray ssl =
            R"(, "offsets": false, "strict": false, "ssl": {"CAFile": ")" + certificates.toUtf8();
    Host host;
    host.run({QStringLiteral("--config"), writeConfig(listenConfig(host.port, ssl + "\"}"))});
    QTRY_VERIFY_WITH_TIMEOUT(host.log().contains("Listening on "), HangGuardMs);

    QVERIFY(file.remove());
    writeConfig(listenConfig(host.port, ssl + ".missing\"}"));
    host.signal(SIGHUP);
    QCOMPARE(host.finish(), int(ExitStartFailed));
    QVERIFY(host.log().contains("The plugin refused to start"));
    QVERIFY(host.log().contains("The old configuration does not work any more, either"));
    QVERIFY(host.log().contains("\nmessages 0 "));
}

void tst_InputHostReload::standardInputIsReadOnce()
{
    Host host;
    host.run({QStringLiteral("--config"), QStringLiteral("-")});
    host.process.write(listenConfig(host.port));
    host.process.closeWriteChannel();
    QTRY_VERIFY_WITH_TIMEOUT(canConnect(host.port), HangGuardMs);
    inputhosttest::Device device(host);
    host.signal(SIGHUP);
    QTRY_VERIFY_WITH_TIMEOUT(host.log().contains("Standard input can be read once only"),
                             HangGuardMs);
    device.send("a\n");
    QTRY_COMPARE_WITH_TIMEOUT(host.lines().size(), 1, HangGuardMs);
    QCOMPARE(host.stop(), int(ExitOk));
}

QTEST_GUILESS_MAIN(tst_InputHostReload)
#include "tst_inputhostreload.moc"
