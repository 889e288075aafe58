// SPDX-FileCopyrightText: the tcpinputplugin2 authors
// SPDX-License-Identifier: MIT

#include "host/exitcodes.h"
#include "tests/host/inputhosttest.h"
#include "tests/host/webtest.h"
#include "tests/kit/hangguard.h"

#include <QtCore/QJsonArray>
#include <QtNetwork/QTcpServer>
#include <QtTest/QtTest>

#include <algorithm>

using namespace host;
using namespace inputhosttest;
using namespace webtest;

namespace {

// 0: it has told of none.
quint16 webPort(Host &host)
{
    static const QRegularExpression line(
            QStringLiteral("Status at http://127\\.0\\.0\\.1:(\\d+)/"));
    return line.match(QString::fromLatin1(host.log())).captured(1).toUShort();
}

QJsonObject statusOf(quint16 port, const QByteArray &query = {})
{
    return QJsonDocument::fromJson(bodyOf(get(port, "/status.json" + query))).object();
}

} // namespace

// What the program shows over HTTP, and in the file for collectors.
class tst_InputHostWeb : public InputHostTest
{
    Q_OBJECT

private Q_SLOTS:
    void showsMessagesAndConnections();
    void isNotReadyWhileItStops();
    void isNotReadyWithoutItsDatabase();
    void countsReloads();
    void tellsOfCertificates();
    void takenPort();
    void metricsFile();
    void metricsFileThatCannotBeWritten();
    void withoutTheOptionsNobodyCanLook();
};

void tst_InputHostWeb::showsMessagesAndConnections()
{
    Host host;
    host.start(words("--http 0 --output raw"));
    const quint16 port = webPort(host);
    QCOMPARE(codeOf(get(port, "/ready")), 200);
    QCOMPARE(codeOf(get(port, "/live")), 200);
    Device device(host);
    device.send("abc\nhalf");
    QTRY_VERIFY_WITH_TIMEOUT(get(port, "/metrics").contains("\ninputhost_messages_total 1\n"),
                             HangGuardMs);
    const QByteArray metrics = get(port, "/metrics");
    QVERIFY2(metrics.contains("\ninputhost_connections{transport=\"tcp\"} 1\n"),
             metrics.constData());
    const auto rows = [&] {
        return statusOf(port).value(u"connections").toObject().value(u"rows").toArray();
    };
    // "half" is never safe; the message with its line end is.
    QTRY_COMPARE_WITH_TIMEOUT(rows().at(0).toObject().value(u"unsafe").toInt(), 4, HangGuardMs);
    const QJsonObject row = rows().at(0).toObject();
    QCOMPARE(row.value(u"bytes").toInt(), 8);
    QCOMPARE(row.value(u"device").toString(),
             QStringLiteral("%1:%2")
                     .arg(device.socket.localAddress().toString())
                     .arg(device.socket.localPort()));
    device.close();
    QTRY_VERIFY_WITH_TIMEOUT(rows().isEmpty(), HangGuardMs);
    QCOMPARE(host.stop(), int(ExitOk));
}

void tst_InputHostWeb::isNotReadyWhileItStops()
{
    Host host;
    host.start(words("--http 0 --drain 60"));
    Device device(host);
    device.send("a\n"); // once it is printed, a worker has the connection
    QTRY_COMPARE_WITH_TIMEOUT(host.lines().size(), 1, HangGuardMs);
    host.signal(SIGTERM);
    QTRY_COMPARE_WITH_TIMEOUT(get(webPort(host), "/ready").right(24),
                              QByteArray("\nstopping\nnot listening\n").right(24), HangGuardMs);
    QCOMPARE(codeOf(get(webPort(host), "/ready")), 503);
    QCOMPARE(codeOf(get(webPort(host), "/live")), 200);
    device.close();
    QCOMPARE(host.finish(), int(ExitOk));
}

// A socket's folder that is empty: no server is there.
void tst_InputHostWeb::isNotReadyWithoutItsDatabase()
{
    Host host;
    host.run(host.listenArguments()
             + QStringList{QStringLiteral("--http=0"), QStringLiteral("--output"),
                           QStringLiteral("postgresql:host=") + folder.path(),
                           QStringLiteral("--save-within=1")});
    QTRY_VERIFY2_WITH_TIMEOUT(host.log().contains("Listening on ") || !host.isRunning(),
                              host.log().constData(), HangGuardMs);
    if (host.log().contains("built without libpq"))
        QSKIP("The program has no PostgreSQL");
    const QByteArray answer = get(webPort(host), "/ready");
    QCOMPARE(codeOf(answer), 503);
    QTRY_COMPARE_WITH_TIMEOUT(bodyOf(get(webPort(host), "/ready")),
                              QByteArray("output not connected\n"), HangGuardMs);
    QVERIFY(get(webPort(host), "/metrics").contains("\ninputhost_sink_connected 0\n"));
    QCOMPARE(host.stop(), int(ExitOk));
}

void tst_InputHostWeb::countsReloads()
{
    Host host;
    const QString file = writeConfig(listenConfig(host.port));
    host.run({QStringLiteral("--config"), file, QStringLiteral("--http=0")});
    QTRY_VERIFY_WITH_TIMEOUT(host.log().contains("Listening on "), HangGuardMs);
    const auto worked = [&] {
        return statusOf(webPort(host)).value(u"input").toObject().value(u"lastReloadWorked");
    };
    QCOMPARE(worked(), QJsonValue(true));
    writeConfig("no JSON");
    host.signal(SIGHUP);
    QTRY_COMPARE_WITH_TIMEOUT(worked(), QJsonValue(false), HangGuardMs);
    writeConfig(listenConfig(host.port, ", \"limits\": {\"maxConnections\": 77}"));
    host.signal(SIGHUP);
    QTRY_COMPARE_WITH_TIMEOUT(worked(), QJsonValue(true), HangGuardMs);
    QTRY_VERIFY_WITH_TIMEOUT(
            get(webPort(host), "/metrics").contains("\ninputhost_limit_connections 77\n"),
            HangGuardMs);
    QCOMPARE(host.stop(), int(ExitOk));
}

void tst_InputHostWeb::tellsOfCertificates()
{
    const QString certificates = QStringLiteral(CERTIFICATES_DIR "/");
    Host host;
    host.start({QStringLiteral("--http=0"), QStringLiteral("--set"),
                QStringLiteral(R"(ssl={"verifyPeer": false, "CertFile": "%1server.pem", )"
                               R"("KeyFile": "%1server.key"})")
                        .arg(certificates)});
    const auto list = [&] { return statusOf(webPort(host)).value(u"certificates").toArray(); };
    QTRY_COMPARE_WITH_TIMEOUT(list().size(), 1, HangGuardMs);
    const QString end = list().at(0).toObject().value(u"end").toString();
    QVERIFY2(QDateTime::fromString(end, Qt::ISODateWithMs) > QDateTime::currentDateTimeUtc(),
             qPrintable(end));
    QCOMPARE(host.stop(), int(ExitOk));
}

void tst_InputHostWeb::takenPort()
{
    QTcpServer other;
    QVERIFY(other.listen(QHostAddress(QHostAddress::LocalHost)));
    Host host;
    host.run(host.listenArguments()
             + QStringList{QStringLiteral("--http"), QString::number(other.serverPort())});
    QCOMPARE(host.finish(), int(ExitMonitorFailed));
    QVERIFY2(host.log().contains("error: "), host.log().constData());
    QVERIFY2(host.log().contains("Cannot listen on 127.0.0.1:"), host.log().constData());
}

void tst_InputHostWeb::metricsFile()
{
    const QString name = folder.filePath(QStringLiteral("metrics.prom"));
    Host host;
    host.start({QStringLiteral("--metrics-file"), name});
    QFile file(name);
    QVERIFY(file.open(QIODevice::ReadOnly));
    const QByteArray first = file.readAll();
    QVERIFY2(first.contains("\nprocess_open_fds "), first.constData());
    QVERIFY(file.permissions().testFlag(QFile::ReadOther));
    Device device(host);
    device.send("abc\n");
    const auto content = [&] {
        QFile now(name);
        return now.open(QIODevice::ReadOnly) ? now.readAll() : QByteArray();
    };
    QTRY_VERIFY_WITH_TIMEOUT(content().contains("\ninputhost_messages_total 1\n"), HangGuardMs);
    QCOMPARE(file.pos(), qint64(first.size())); // another file has its name now
    QCOMPARE(host.stop(), int(ExitOk));
    QVERIFY(!QFile::exists(name));
}

void tst_InputHostWeb::metricsFileThatCannotBeWritten()
{
    Host host;
    const QString name = folder.filePath(QStringLiteral("no/such/folder/metrics.prom"));
    host.run(host.listenArguments() + QStringList{QStringLiteral("--metrics-file"), name});
    QCOMPARE(host.finish(), int(ExitMonitorFailed));
    QVERIFY2(host.log().contains("Cannot write to " + name.toLocal8Bit()), host.log().constData());
}

void tst_InputHostWeb::withoutTheOptionsNobodyCanLook()
{
    Host host;
    host.start();
    QVERIFY(!host.log().contains("Status at "));
    const QDir threads(QStringLiteral("/proc/%1/task").arg(host.process.processId()));
    for (const QString &thread : threads.entryList(QDir::Dirs | QDir::NoDotAndDotDot)) {
        QFile name(threads.filePath(thread) + QStringLiteral("/comm"));
        const QByteArray text = name.open(QIODevice::ReadOnly) ? name.readAll() : QByteArray();
        QVERIFY2(text != "web\n" && text != "metrics\n", text.constData());
    }
}

QTEST_GUILESS_MAIN(tst_InputHostWeb)
#include "tst_inputhostweb.moc"
