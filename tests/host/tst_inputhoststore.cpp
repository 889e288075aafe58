// SPDX-FileCopyrightText: the tcpinputplugin2 authors
// SPDX-License-Identifier: MIT

#include "host/exitcodes.h"
#include "tests/host/inputhosttest.h"
#include "tests/host/sqlitereader.h"

#include <QtTest/QtTest>

#include <csignal>

using namespace host;
using namespace inputhosttest;

// inputhost --output sqlite:FILE: what devices send is in the database, once.
class tst_InputHostStore : public InputHostTest
{
    Q_OBJECT

private Q_SLOTS:
    void init();
    void storesMessages();
    void survivesKill();
    void refusesFile();
    void refusesConfiguration();

private:
    QStringList store() const
    {
        return {QStringLiteral("--output"), QStringLiteral("sqlite:") + file};
    }

    QString file;
};

void tst_InputHostStore::init()
{
    file = folder.filePath(QString::fromLatin1(QTest::currentTestFunction()));
}

void tst_InputHostStore::storesMessages()
{
    for (int start = 0; start < 2; ++start) {
        Host host;
        host.start(store());
        Device device(host);
        device.send("one\r\ntwo\nhalf");
        device.close();
        SqliteReader reader(file);
        QTRY_COMPARE_WITH_TIMEOUT(
                reader.number("select count(*) from connections where reason = 'peer'"), start + 1,
                HangGuardMs);
        QCOMPARE(host.stop(), int(ExitOk));
        QVERIFY2(host.output().isEmpty(), host.output().constData());
    }
    SqliteReader reader(file);
    QCOMPARE(reader.messages("not partial"), (QByteArrayList{"one", "two", "one", "two"}));
    QCOMPARE(reader.messages("partial"), (QByteArrayList{"half", "half"}));
    QCOMPARE(reader.number("select count(distinct epoch) from messages"), 2);
    QCOMPARE(reader.number("select sum(length) from connections"), 2 * 13);
    QCOMPARE(reader.number("select sum(finish - position) from messages"), 2 * 13);
    QCOMPARE(reader.number(
                     "select count(*) from connections where began is null or length(peer) = 0"),
             0);
}

// In the middle of the load: the file is sound, and has of each device what came first, once.
void tst_InputHostStore::survivesKill()
{
    constexpr int Devices = 5;
    Host host;
    host.start(store());
    std::vector<std::unique_ptr<Device>> devices;
    for (int n = 0; n < Devices; ++n)
        devices.push_back(std::make_unique<Device>(host));
    auto sendMore = [&devices, number = 0]() mutable {
        for (int end = number + 2000; number < end; ++number) {
            for (const auto &device : devices)
                device->socket.write(QByteArray::number(number).rightJustified(199, '0') + '\n');
        }
        for (const auto &device : devices)
            device->socket.flush();
    };
    const auto stored = [this] {
        return QFileInfo::exists(file)
                ? SqliteReader(file).number("select count(*) from messages where position > 0")
                : 0;
    };
    sendMore();
    QTRY_VERIFY_WITH_TIMEOUT(stored() > 0, HangGuardMs);
    sendMore();
    QCOMPARE(host.stop(SIGKILL), -1);

    SqliteReader reader(file);
    QCOMPARE(reader.rows(QStringLiteral("pragma integrity_check")).first().first(),
             QVariant(QStringLiteral("ok")));
    QVERIFY(reader.number("select count(*) from messages") > 0);
    QCOMPARE(
            reader.number("select count(*) from messages where cast(cast(bytes as text) as integer)"
                          " * 200 <> position or finish <> position + 200"),
            0);
    QCOMPARE(reader.number("select count(*) from (select count(*) * 200 <> max(finish) as has_gap"
                           " from messages group by connection) where has_gap"),
             0);

    Host next; // goes on with the file
    next.start(store());
    Device device(next);
    device.send("next\n");
    QTRY_COMPARE_WITH_TIMEOUT(reader.messages("bytes = cast('next' as blob)").size(), 1,
                              HangGuardMs);
    QCOMPARE(next.stop(), int(ExitOk));
}

void tst_InputHostStore::refusesFile()
{
    QFile other(file);
    QVERIFY(other.open(QIODevice::WriteOnly) && other.write(QByteArray(5000, 'x')) == 5000);
    other.close();
    Host host;
    host.run(host.listenArguments() + store());
    QCOMPARE(host.finish(), int(ExitOutputFailed));
    QVERIFY2(host.log().contains(file.toLocal8Bit() + ": file is not a database"),
             host.log().constData());
}

void tst_InputHostStore::refusesConfiguration()
{
    for (const char *setting : {"--set offsets=false", "--set ends=false"}) {
        Host host;
        host.run(host.listenArguments() + store() + words(setting));
        QCOMPARE(host.finish(), int(ExitBadConfiguration));
        QVERIFY2(host.log().contains("A store needs \"offsets\" and \"ends\""),
                 host.log().constData());
        QVERIFY(!QFile::exists(file));
    }
}

QTEST_GUILESS_MAIN(tst_InputHostStore)
#include "tst_inputhoststore.moc"
