// SPDX-FileCopyrightText: the tcpinputplugin2 authors
// SPDX-License-Identifier: MIT

#include "tests/kit/hangguard.h"
#include "tests/recording/recordingtest.h"

#include <QtCore/QJsonDocument>
#include <QtCore/QJsonObject>
#include <QtCore/QProcess>
#include <QtCore/QTemporaryDir>
#include <QtTest/QtTest>

using namespace recordingtest;
using recording::Entry;

namespace {

constexpr qint64 TimeUs = 1'795'432'805'123'456; // 2026-11-23, 11:20:05

QByteArray oneConnection()
{
    Entry session;
    session.timeUs = TimeUs;
    return fileOf({session, begin(1), bytes(1, 0, "a\"b\xff\r\n\t"), end(1, 7, "peer")});
}

QByteArray everything()
{
    Entry session;
    session.timeUs = TimeUs;
    session.continues = true;
    session.leavesOutPayload = true;
    Entry open = begin(12);
    open.position = 100;
    open.wasOpen = true;
    Entry length;
    length.type = Entry::Length;
    length.connection = 12;
    length.position = 100;
    length.size = 20;
    Entry gap;
    gap.type = Entry::Gap;
    gap.size = 5;
    gap.entries = 2;
    return fileOf({session, open, length, gap, begin(13), bytes(13, 0, QByteArray(17, 'x'))});
}

} // namespace

class tst_DeviceCat : public QObject
{
    Q_OBJECT

private Q_SLOTS:
    void shows_data();
    void shows();
    void json();
    void exitStatus_data();
    void exitStatus();
    void refusesArguments_data();
    void refusesArguments();
    void help();

private:
    int run(const QByteArray &content, const QStringList &arguments = {});

    QTemporaryDir folder;
    QByteArray output;
    QByteArray errors;
};

// The exit code.
int tst_DeviceCat::run(const QByteArray &content, const QStringList &arguments)
{
    QFile file(folder.filePath(QStringLiteral("traffic")));
    if (!file.open(QIODevice::WriteOnly) || file.write(content) != content.size())
        return -1;
    file.close();
    QProcess process;
    process.start(QStringLiteral(DEVICECAT_FILE), QStringList(file.fileName()) + arguments);
    if (!process.waitForFinished(HangGuardMs) || process.exitStatus() != QProcess::NormalExit)
        return -1;
    output = process.readAllStandardOutput();
    errors = process.readAllStandardError();
    return process.exitCode();
}

void tst_DeviceCat::shows_data()
{
    QTest::addColumn<QByteArray>("content");
    QTest::addColumn<QString>("arguments");
    QTest::addColumn<QByteArray>("expected");

    QTest::newRow("text") << oneConnection() << ""
                          << QByteArray("2026-11-23T11:20:05.123456Z session begins\n"
                                        "2026-11-23T11:20:05.123461Z begin 1 at 0, from "
                                        "192.0.2.7:50123 to [2001:db8::1]:7446\n"
                                        "2026-11-23T11:20:05.124961Z bytes 1 at 0, 7: "
                                        "\"a\\\"b\\xff\\r\\n\\t\"\n"
                                        "2026-11-23T11:20:08.124961Z end 1 at 7, \"peer\"\n");
    const QByteArray common = "2026-11-23T11:20:05.123456Z session goes on, without payload\n";
    const QByteArray gap = "2026-11-23T11:20:05.123461Z gap 5 bytes, 2 entries\n";
    const QByteArray second = "2026-11-23T11:20:05.123466Z begin 13 at 0, from 192.0.2.7:50123 to "
                              "[2001:db8::1]:7446\n";
    QTest::newRow("one connection") << everything() << "--connection 12"
                                    << common
                    + "2026-11-23T11:20:05.123461Z begin 12 at 100, from 192.0.2.7:50123 to "
                      "[2001:db8::1]:7446, open before\n"
                      "2026-11-23T11:20:05.123461Z length 12 at 100, 20\n"
                    + gap;
    QTest::newRow("hex") << everything() << "--hex --connection 13"
                         << common + gap + second
                    + "2026-11-23T11:20:05.124966Z bytes 13 at 0, 17\n"
                      "  00000000  78 78 78 78 78 78 78 78 78 78 78 78 78 78 78 78  "
                      "xxxxxxxxxxxxxxxx\n"
                      "  00000010  78                                               x\n";
    Entry hostile = begin(1);
    hostile.endpoints.peer = "a\n\x1b[2J\\";
    hostile.endpoints.local = "b\"\x80";
    Entry session;
    session.timeUs = TimeUs;
    QTest::newRow("hostile addresses")
            << fileOf({session, hostile}) << ""
            << QByteArray("2026-11-23T11:20:05.123456Z session begins\n"
                          "2026-11-23T11:20:05.123461Z begin 1 at 0, from "
                          "a\\n\\x1b[2J\\\\:50123 to b\\\"\\x80:7446\n");
}

void tst_DeviceCat::shows()
{
    QFETCH(const QByteArray, content);
    QFETCH(const QString, arguments);
    QCOMPARE(run(content, arguments.split(QLatin1Char(' '), Qt::SkipEmptyParts)), 0);
    QTEST(output, "expected");
    QCOMPARE(errors, QByteArray());
}

void tst_DeviceCat::json()
{
    QCOMPARE(run(oneConnection() + everything().sliced(16), {QStringLiteral("--json")}), 0);
    QByteArrayList lines = output.split('\n');
    QCOMPARE(lines.takeLast(), QByteArray());
    QStringList types;
    QList<QJsonObject> objects;
    for (const QByteArray &line : lines) {
        objects += QJsonDocument::fromJson(line).object();
        types += objects.last().value(QStringLiteral("type")).toString();
    }
    QCOMPARE(types.join(QLatin1Char(' ')),
             QStringLiteral("session begin bytes end session begin length gap begin bytes"));
    const QJsonObject begin{
            {QStringLiteral("type"), QStringLiteral("begin")},
            {QStringLiteral("time"), QStringLiteral("2026-11-23T11:20:05.123461Z")},
            {QStringLiteral("connection"), 1},
            {QStringLiteral("position"), 0},
            {QStringLiteral("peer"), QStringLiteral("192.0.2.7")},
            {QStringLiteral("peerPort"), 50123},
            {QStringLiteral("local"), QStringLiteral("2001:db8::1")},
            {QStringLiteral("localPort"), 7446},
            {QStringLiteral("wasOpen"), false},
    };
    QCOMPARE(objects.at(1), begin);
    QCOMPARE(QByteArray::fromBase64(objects.at(2)[QStringLiteral("base64")].toString().toLatin1()),
             QByteArray("a\"b\xff\r\n\t"));
    QCOMPARE(objects.at(3)[QStringLiteral("reason")].toString(), QStringLiteral("peer"));
    QCOMPARE(objects.at(9)[QStringLiteral("text")].toString(), QString(17, QLatin1Char('x')));
}

void tst_DeviceCat::exitStatus_data()
{
    QTest::addColumn<QByteArray>("content");
    QTest::addColumn<int>("status");
    QTest::addColumn<int>("lines");
    const QByteArray whole = oneConnection();
    QByteArray damaged = whole;
    damaged[damaged.size() - 1] = 'R';
    QTest::newRow("whole") << whole << 0 << 4;
    QTest::newRow("torn") << whole.chopped(1) << 3 << 3;
    QTest::newRow("damaged") << damaged << 4 << 3;
    QTest::newRow("empty") << QByteArray() << 3 << 0;
    QTest::newRow("no recording") << QByteArray("a text") << 1 << 0;
}

void tst_DeviceCat::exitStatus()
{
    QFETCH(const QByteArray, content);
    QFETCH(const int, status);
    QCOMPARE(run(content), status);
    QTEST(int(output.count('\n')), "lines");
    QCOMPARE(errors.isEmpty(), status == 0);
}

void tst_DeviceCat::refusesArguments_data()
{
    QTest::addColumn<QStringList>("arguments");
    QTest::newRow("two files") << QStringList{QStringLiteral("another")};
    QTest::newRow("two styles") << QStringList{QStringLiteral("--hex"), QStringLiteral("--json")};
    QTest::newRow("no number") << QStringList{QStringLiteral("--connection"), QStringLiteral("x")};
    QTest::newRow("unknown") << QStringList{QStringLiteral("--nonsense")};
}

void tst_DeviceCat::refusesArguments()
{
    QFETCH(const QStringList, arguments);
    QCOMPARE(run(oneConnection(), arguments), 2);
    QVERIFY2(errors.endsWith(" Try devicecat --help.\n"), errors.constData());
    QCOMPARE(output, QByteArray());
}

void tst_DeviceCat::help()
{
    QCOMPARE(run({}, {QStringLiteral("--help")}), 0);
    QVERIFY(output.contains("--connection") && output.contains("Exit status: 0"));
    QCOMPARE(run({}, {QStringLiteral("--version")}), 0);
    QVERIFY(output.startsWith("devicecat 2."));
}

QTEST_GUILESS_MAIN(tst_DeviceCat)
#include "tst_devicecat.moc"
