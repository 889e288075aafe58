// SPDX-FileCopyrightText: the tcpinputplugin2 authors
// SPDX-License-Identifier: MIT

#include "tests/endtoend/hostilehosttest.h"
#include "tests/kit/hangguard.h"
#include "tests/kit/loglines.h"
#include "tests/kit/numberedmessages.h"

#include <QtNetwork/QSslSocket>
#include <QtTest/QtTest>

#include <atomic>
#include <limits>
#include <thread>
#include <vector>

using namespace hostilehosttest;

namespace {

// Discards with sub-ids of two open connections mixed. They cut nothing: each worker knows only its
// own clients, and each connection has its own number.
void discardMixedUp(IInputPlugin &plugin, const SubIdMap &one, const SubIdMap &other)
{
    constexpr int Most = std::numeric_limits<int>::max();
    for (const QString &key : {TaskKey, ClientKey, ConnectionKey}) {
        SubIdMap mixed = one;
        mixed.insert(key, other.value(key));
        if (mixed != one) // equal if both connections have the same task
            plugin.discard(Most, mixed);
    }
}

} // namespace

// Discards that are wrong, or that come too often.
class tst_HostileAnswers : public HostileHostTest
{
    Q_OBJECT

private Q_SLOTS:
    void initTestCase_data() { addRows(); }
    void init() { begin(); }
    void cleanup() { end(); }

    void nonsenseCutsNothing();
    void mixedUpAnswersCutNothing_data();
    void mixedUpAnswersCutNothing();
    void moreThanThereIsCutsAll();
    void answersThatCutNothingDoNotStarveOthers();
    void clientIsGone();
    void discardsWhileThePluginStopsAndStarts();
    void hostileAnswersLoseNothing();

private:
    static bool sendAndClose(QSslSocket &device, const QByteArray &bytes);
};

bool tst_HostileAnswers::sendAndClose(QSslSocket &device, const QByteArray &bytes)
{
    device.write(bytes);
    device.disconnectFromHost();
    return QTest::qWaitFor([&] { return device.state() == QAbstractSocket::UnconnectedState; },
                           HangGuardMs);
}

void tst_HostileAnswers::nonsenseCutsNothing()
{
    start(true);
    connectDevices(1);
    const QByteArray bytes(100, 'x');
    devices[0]->write(bytes);
    QTRY_COMPARE_WITH_TIMEOUT(records.size(), 1, HangGuardMs);

    const SubIdMap own = records[0]->getPluginSubId();
    discardNonsense(*plugin, own);
    OtherThread().run([&] { discardNonsense(*plugin, own); });

    QVERIFY(sendAndClose(*devices[0], "end"));
    QTRY_COMPARE_WITH_TIMEOUT(records.last()->getOriginalMessage(), bytes + "end", HangGuardMs);
}

void tst_HostileAnswers::mixedUpAnswersCutNothing_data()
{
    QTest::addColumn<int>("threads");
    QTest::newRow("of one worker") << 1;
    QTest::newRow("of two") << 2;
}

void tst_HostileAnswers::mixedUpAnswersCutNothing()
{
    QFETCH(int, threads);
    start(true, threads);
    connectDevices(2);
    const QByteArray bytes(100, 'x');
    for (const Device &device : devices)
        device->write(bytes);
    QTRY_VERIFY_WITH_TIMEOUT(allOffered(bytes), HangGuardMs);

    QMap<QString, SubIdMap> own; // by client
    for (const shared_parsedData &record : std::as_const(records))
        own.insert(record->getPluginSubId().value(ClientKey), record->getPluginSubId());
    QCOMPARE(own.size(), 2);
    const SubIdMap &one = own.first();
    const SubIdMap &other = own.last();
    QCOMPARE(one.value(TaskKey) == other.value(TaskKey), threads == 1);
    const auto mixUp = [&] {
        discardMixedUp(*plugin, one, other);
        discardMixedUp(*plugin, other, one);
    };
    mixUp();
    OtherThread().run(mixUp);

    records.clear();
    for (const Device &device : devices)
        QVERIFY(sendAndClose(*device, "end"));
    QTRY_VERIFY_WITH_TIMEOUT(allOffered("end"), HangGuardMs);
    QVERIFY(allOffered(bytes + "end"));
}

void tst_HostileAnswers::moreThanThereIsCutsAll()
{
    start(false, 1);
    connectDevices(1);
    devices[0]->write("abc");
    QTRY_COMPARE_WITH_TIMEOUT(records.size(), 1, HangGuardMs);
    plugin->discard(std::numeric_limits<int>::max(), records[0]->getPluginSubId());
    plugin->discard(std::numeric_limits<int>::max(), records[0]->getPluginSubId());
    connectDevices(1); // with one worker, it is adopted after both cuts

    QVERIFY(sendAndClose(*devices[0], "more"));
    QTRY_VERIFY_WITH_TIMEOUT(isOffered("more"), HangGuardMs);
}

// After each such discard, the plugin makes the same offer again at once.
void tst_HostileAnswers::answersThatCutNothingDoNotStarveOthers()
{
    start(false);
    connectDevices(Devices);
    int answers = 0;
    QSet<QString> others;
    const QObject listening; // destroyed before the variables that the slot uses
    connect(plugin.get(), &IInputPlugin::receivedData, &listening,
            [&](const shared_parsedData &record) {
                const QByteArray bytes = record->getOriginalMessage();
                if (bytes == "other")
                    others.insert(record->getSource());
                else if (bytes.startsWith("again") && ++answers < 10000)
                    plugin->discard(0, record->getPluginSubId());
            });
    devices[0]->write("again" + QByteArray(100, '!'));
    QTRY_VERIFY_WITH_TIMEOUT(answers > 10, HangGuardMs);
    for (std::size_t n = 1; n < devices.size(); ++n)
        devices[n]->write("other");
    QTRY_COMPARE_WITH_TIMEOUT(others.size(), Devices - 1, HangGuardMs);
}

void tst_HostileAnswers::clientIsGone()
{
    start(true);
    connectDevices(1);
    QVERIFY(sendAndClose(*devices[0], "abc"));
    QTRY_VERIFY_WITH_TIMEOUT(plugin->getStatus().count(QLatin1String("tcp2:")) == 0, HangGuardMs);
    QTRY_VERIFY_WITH_TIMEOUT(!records.isEmpty(), HangGuardMs);
    const SubIdMap own = records.last()->getPluginSubId();
    OtherThread other;

    const QString noClient =
            QStringLiteral("D: TcpTask2: discard for non-existing client ") + own.value(ClientKey);
    takeLog();
    plugin->discard(3, own);
    other.run([&] { plugin->discard(std::numeric_limits<int>::max(), own); });
    QCOMPARE(takeLog(), QStringList({noClient, noClient}));

    QVERIFY(plugin->stop());
    const QString noTask = QStringLiteral("D: TcpInput2(t): discarding for non-existing task ")
            + own.value(TaskKey);
    takeLog();
    plugin->discard(3, own);
    other.run([&] { plugin->discard(3, own); });
    const QStringList lines = takeLog();
    QCOMPARE(lines.count(noTask), 2);
}

void tst_HostileAnswers::discardsWhileThePluginStopsAndStarts()
{
    start(true);
    connectDevices(Devices);
    for (const Device &device : devices)
        device->write("abc");
    QTRY_VERIFY_WITH_TIMEOUT(allOffered("abc"), HangGuardMs);
    QList<SubIdMap> all;
    for (const shared_parsedData &record : std::as_const(records))
        all.append(record->getPluginSubId());

    std::atomic<bool> done = false;
    std::atomic<int> rounds = 0;
    std::vector<std::thread> threads;
    for (int n = 0; n < 2; ++n) {
        threads.emplace_back([&] {
            while (!done) {
                for (const SubIdMap &subIds : std::as_const(all)) {
                    plugin->discard(1, subIds);
                    discardNonsense(*plugin, subIds);
                }
                ++rounds;
            }
        });
    }
    for (int cycle = 0; cycle < 3; ++cycle) {
        const int before = rounds;
        QVERIFY(plugin->stop());
        QVERIFY(plugin->start());
        const Device device = connectDevice();
        const QByteArray bytes = "new " + QByteArray::number(cycle);
        device->write(bytes);
        QTRY_VERIFY_WITH_TIMEOUT(isOffered(bytes), HangGuardMs);
        QTRY_VERIFY_WITH_TIMEOUT(rounds > before, HangGuardMs);
    }
    done = true;
    for (std::thread &thread : threads)
        thread.join();
}

void tst_HostileAnswers::hostileAnswersLoseNothing()
{
    constexpr int Messages = 500;
    start(true);
    disconnect(plugin.get(), nullptr, this, nullptr);
    HostileHost host(*plugin);
    const QObject listening; // destroyed before the host that the slot uses
    connect(plugin.get(), &IInputPlugin::receivedData, &listening,
            [&](const shared_parsedData &record) { host.receive(record); });

    connectDevices(Devices);
    for (int message = 0; message < Messages; ++message) {
        for (int n = 0; n < Devices; ++n)
            devices[std::size_t(n)]->write(numberedMessage(n, message));
        QCoreApplication::processEvents();
    }
    for (const Device &device : devices)
        device->disconnectFromHost();

    QTRY_COMPARE_WITH_TIMEOUT(host.seen.size(), Devices * Messages, HangGuardMs);
    QTRY_VERIFY_WITH_TIMEOUT(plugin->getStatus().count(QLatin1String("tcp2:")) == 0, HangGuardMs);
    QCOMPARE(host.repeated(), 0);
    host.settle();
    plugin.reset(); // before the host is destroyed, which the plugin calls
}

QTEST_GUILESS_MAIN(tst_HostileAnswers)
#include "tst_hostileanswers.moc"
