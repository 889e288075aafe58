// SPDX-FileCopyrightText: the tcpinputplugin2 authors
// SPDX-License-Identifier: MIT

#include "tests/host/inputhosttest.h"

#include <QtTest/QtTest>

using inputhosttest::Host;
using inputhosttest::words;

namespace {

void play(quint16 port, const QStringList &arguments)
{
    QProcess process;
    process.start(QStringLiteral(DEVICESIM_FILE),
                  QStringList{QStringLiteral("--host"), testAddress().toString(),
                              QStringLiteral("--port"), QString::number(port)}
                          + arguments);
    QVERIFY(process.waitForFinished(HangGuardMs));
    QVERIFY2(process.exitCode() == 0, process.readAllStandardError().constData());
}

} // namespace

// devicesim plays protocols that are in use, and real hosts read them.
class tst_DeviceSimHosts : public QObject
{
    Q_OBJECT

private Q_SLOTS:
    void linesWithChecksum();
    void framings_data();
    void framings();
    void positionsOfTrackers();
};

// As GPS receivers send them: the exclusive or of what is between $ and *.
void tst_DeviceSimHosts::linesWithChecksum()
{
    Host host;
    host.start();
    play(host.port,
         {QStringLiteral("--framing"), QStringLiteral("crlf"), QStringLiteral("--messages"),
          QStringLiteral("3"), QStringLiteral("--template"),
          QStringLiteral("${begin}GPTXT,{number:dec2},{device},{time:hhmmss.zzz}{end}*{xor8}")});
    QTRY_COMPARE_WITH_TIMEOUT(host.lines().size(), 3, HangGuardMs);
    QCOMPARE(host.stop(), 0);
    static const QRegularExpression form(
            QStringLiteral("^\\$(GPTXT,(\\d\\d),1,\\d{6}\\.\\d{3})\\*([0-9A-F]{2})$"));
    for (int i = 0; i < 3; ++i) {
        const QString line = host.record(i).value(QStringLiteral("text")).toString();
        const QRegularExpressionMatch match = form.match(line);
        QVERIFY2(match.hasMatch(), qPrintable(line));
        int sum = 0;
        for (const char byte : match.captured(1).toLatin1())
            sum ^= byte;
        QCOMPARE(match.captured(3).toInt(nullptr, 16), sum);
        QCOMPARE(match.captured(2).toInt(), i + 1);
    }
}

void tst_DeviceSimHosts::framings_data()
{
    QTest::addColumn<QByteArray>("arguments");
    QTest::addColumn<QString>("framing");
    QTest::newRow("lines") << QByteArray("--framing lines") << QStringLiteral("lines");
    QTest::newRow("crlf") << QByteArray("--framing crlf") << QStringLiteral("lines");
    QTest::newRow("length") << QByteArray("--framing length") << QStringLiteral("length");
}

void tst_DeviceSimHosts::framings()
{
    QFETCH(const QByteArray, arguments);
    QFETCH(const QString, framing);
    Host host;
    host.start({QStringLiteral("--framing"), framing});
    play(host.port, words(arguments.constData()) + words("--template {number} --messages 50"));
    QTRY_COMPARE_WITH_TIMEOUT(host.lines().size(), 50, HangGuardMs);
    QCOMPARE(host.stop(), 0);
    for (int i = 0; i < 50; ++i)
        QCOMPARE(host.record(i).value(QStringLiteral("text")).toString(), QString::number(i + 1));
}

// What examples/tracker.cpp decodes.
void tst_DeviceSimHosts::positionsOfTrackers()
{
    const quint16 port = freePort();
    QProcess tracker;
    tracker.start(QStringLiteral(TRACKER_FILE), {testAddress().toString(), QString::number(port)});
    QByteArray log;
    QTRY_VERIFY2_WITH_TIMEOUT((log += tracker.readAllStandardError()).contains("Listening on "),
                              log.constData(), HangGuardMs);
    play(port,
         {QStringLiteral("--framing"), QStringLiteral("length 2 big"),
          QStringLiteral("--connections"), QStringLiteral("5"), QStringLiteral("--parallel"),
          QStringLiteral("1"), QStringLiteral("--template"),
          QStringLiteral("{device:u32be}{time-s:u32be}{random:52520008..52520008:u32be}"
                         "{random:-13404954..-13404954:u32be}{crc16:u16be}")});
    QByteArray output;
    QTRY_VERIFY2_WITH_TIMEOUT((output += tracker.readAllStandardOutput()).count('\n') == 5,
                              output.constData(), HangGuardMs);
    tracker.kill();
    QVERIFY(tracker.waitForFinished(HangGuardMs));
    QByteArrayList lines = output.split('\n');
    std::sort(lines.begin(), lines.end());
    for (int device = 1; device <= 5; ++device) {
        const QByteArrayList line = lines.at(device).split(' ');
        QCOMPARE(line.at(0).toInt(), device);
        QCOMPARE(line.mid(2), QByteArrayList({"52.520008", "-13.404954"}));
    }
}

QTEST_GUILESS_MAIN(tst_DeviceSimHosts)
#include "tst_devicesimhosts.moc"
