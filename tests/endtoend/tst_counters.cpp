// SPDX-FileCopyrightText: the tcpinputplugin2 authors
// SPDX-License-Identifier: MIT

#include "plugin/countersevent.h"
#include "tests/endtoend/proxytest.h"

#include <QtCore/QThread>

#include <atomic>

using namespace proxyheaders;
using namespace Qt::StringLiterals;

namespace {

//! A message handler that blocks the first thread that logs the size of a read, until mayGoOn.
class HoldingHandler
{
public:
    HoldingHandler()
    {
        held = mayGoOn = false;
        next = qInstallMessageHandler(&HoldingHandler::handle);
    }
    ~HoldingHandler()
    {
        mayGoOn = true;
        qInstallMessageHandler(next);
    }
    Q_DISABLE_COPY_MOVE(HoldingHandler)

    static inline std::atomic<bool> held = false;
    static inline std::atomic<bool> mayGoOn = false;

private:
    static void handle(QtMsgType type, const QMessageLogContext &context, const QString &text)
    {
        next(type, context, text);
        if (!text.contains(u"msgsize"_s) || held.exchange(true))
            return;
        while (!mayGoOn)
            QThread::msleep(1);
    }

    static inline QtMessageHandler next = nullptr;
};

} // namespace

/*!
    The counters of a plugin, through the loaded library, over TCP and TLS.
*/
class tst_Counters : public ProxyTest
{
    Q_OBJECT

private Q_SLOTS:
    void initTestCase_data() { addTransports(); }
    void init() { begin(); }
    void cleanup() { end(); }

    void nothingAtFirst();
    void countsWhatHappens();
    void countsReasons();
    void countsRefusals();
    void countsHandshakes();
    void survivesStop();
    void showsAHeldWorker();
    void manyConnectionsAddUp();
    void otherVersionsGetNoAnswer();
    void otherPluginsGiveNoAnswer();

private:
    InputCounters counters() const { return *CountersEvent::countersOf(*plugin); }
    bool waitFor(const std::function<bool(const InputCounters &)> &condition)
    {
        return serveUntil([&] { return condition(counters()); });
    }
    void discardAll()
    {
        for (const shared_parsedData &record : std::as_const(records))
            plugin->discard(record->getDataLength(), record->getPluginSubId());
    }
};

void tst_Counters::nothingAtFirst()
{
    start({});
    const InputCounters all = counters();
    QCOMPARE(all.accepted, 0U);
    QCOMPARE(all.open, 0U);
    QCOMPARE(all.bytes, 0U);
    QVERIFY(all.workers.isEmpty());
}

void tst_Counters::countsWhatHappens()
{
    start({{u"threadpoolSize"_s, 2}});
    ProxiedDevice one = newDevice();
    ProxiedDevice two = newDevice();
    QVERIFY(connectAndSend(one, {}, "0123456789") && waitForRecords(1));
    QVERIFY(connectAndSend(two, {}, "01234") && waitForRecords(2));
    InputCounters all = counters();
    QCOMPARE(all.accepted, 2U);
    QCOMPARE(all.open, 2U);
    QCOMPARE(all.waiting, 0U);
    QCOMPARE(all.bytes, 15U);
    QCOMPARE(all.reads, 2U);
    QCOMPARE(all.offers, 2U);
    QCOMPARE(all.buffered, 15U);
    QCOMPARE(all.workers.size(), 2);
    QCOMPARE(all.workers[0].number, 0);
    QCOMPARE(all.workers[1].number, 1);
    QVERIFY(all.workers[0].turns > 0);

    discardAll();
    QVERIFY(waitFor([](const InputCounters &now) { return now.buffered == 0; }));
    all = counters();
    QCOMPARE(all.bytes, 15U);
    QCOMPARE(all.open, 2U);
}

void tst_Counters::countsReasons()
{
    start({});
    {
        ProxiedDevice closes = newDevice();
        QVERIFY(connectAndSend(closes, {}, "x") && waitForRecords(1));
    }
    QVERIFY(waitFor([](const InputCounters &now) { return now.closedByPeer == 1; }));
    QFETCH_GLOBAL(bool, tls);
    if (!tls) {
        ProxiedDevice resets = newDevice();
        QVERIFY(connectAndSend(resets, {}, "x") && waitForRecords(2));
        resets.socket().reset();
        QVERIFY(waitFor([](const InputCounters &now) { return now.closedByReset == 1; }));
    }
    QVERIFY(plugin->stop());
    QJsonObject config = plugin->config;
    config.insert(u"timeout"_s, 1);
    plugin->setConfig(config);
    QVERIFY(plugin->start());
    ProxiedDevice idle = newDevice();
    const qsizetype before = records.size();
    QVERIFY(connectAndSend(idle, {}, "x") && waitForRecords(before + 1));
    QVERIFY(waitFor([](const InputCounters &now) { return now.closedIdle == 1; }));
    const InputCounters all = counters();
    QCOMPARE(all.closedByPeer, 1U);
    QCOMPARE(all.closedByStop, 0U);
    QCOMPARE(all.open, 0U);
    QCOMPARE(all.buffered, 0U); // bytes of the last offer are no longer the plugin's
}

void tst_Counters::countsRefusals()
{
    QJsonObject config = rule({{u"others"_s, u"refuse"_s}});
    config.insert(u"limits"_s, QJsonObject{{u"maxConnectionsPerAddress"_s, 1}});
    start(config);
    ProxiedDevice stranger = newDevice();
    QVERIFY(stranger.connect(port, strangerAddress()) && waitForEnd(stranger));
    ProxiedDevice malformed = newDevice();
    QVERIFY(malformed.connect(port) && malformed.socket().send("hello\n") && waitForEnd(malformed));
    ProxiedDevice first = newDevice();
    QVERIFY(connectAndSend(first, text(QHostAddress(u"203.0.113.7"_s), 1), "x")
            && waitForRecords(1));
    ProxiedDevice second = newDevice();
    QVERIFY(second.connect(port) && second.socket().send(text(QHostAddress(u"203.0.113.7"_s), 2))
            && waitForEnd(second));
    ProxiedDevice silent = newDevice();
    QVERIFY(silent.connect(port));
    QVERIFY(waitFor([](const InputCounters &now) { return now.accepted == 5; }));
    const InputCounters all = counters();
    QCOMPARE(all.refusedByProxyRule, 1U);
    QCOMPARE(all.withoutHeader, 1U);
    QCOMPARE(all.refusedByLimit, 1U);
    QCOMPARE(all.open, 1U);
    QCOMPARE(all.waiting, 1U);
}

void tst_Counters::countsHandshakes()
{
    QFETCH_GLOBAL(bool, tls);
    if (!tls)
        QSKIP("There is no handshake");
    start({});
    ProxiedDevice good = newDevice();
    QVERIFY(connectAndSend(good, {}, "x") && waitForRecords(1));
    ProxiedDevice noTls = newDevice();
    QVERIFY(noTls.connect(port) && noTls.socket().send("hello\n") && waitForEnd(noTls));
    ProxiedDevice bad = newDevice();
    QVERIFY(bad.connect(port) && bad.socket().send(QByteArray("\x16\x03\x01\x00\x04oops", 9)));
    QVERIFY(waitFor([](const InputCounters &now) { return now.handshakesFailed == 1; }));
    ProxiedDevice silent = newDevice();
    QVERIFY(silent.connect(port));
    QVERIFY(waitFor([](const InputCounters &now) { return now.waiting == 1; }));
    QVERIFY(waitForEnd(silent)); // which it may know before the plugin's thread
    QVERIFY(waitFor([](const InputCounters &now) { return now.handshakesTimedOut == 1; }));
    const InputCounters all = counters();
    QCOMPARE(all.handshakesDone, 1U);
    QCOMPARE(all.withoutTls, 1U);
    QCOMPARE(all.handshakesFailed, 1U);
    QCOMPARE(all.handshakesTimedOut, 1U);
    QVERIFY(all.handshakeUs > 0);
    QCOMPARE(all.longestHandshakeUs, all.handshakeUs);
    QCOMPARE(all.waiting, 0U);
    QCOMPARE(all.open, 1U);
}

void tst_Counters::survivesStop()
{
    start({});
    ProxiedDevice device = newDevice();
    QVERIFY(connectAndSend(device, {}, "0123456789") && waitForRecords(1));
    QVERIFY(plugin->stop());
    QVERIFY(waitFor([](const InputCounters &now) { return now.closedByStop == 1; }));
    InputCounters all = counters();
    QCOMPARE(all.open, 0U);
    QCOMPARE(all.bytes, 10U);
    QVERIFY(all.workers.isEmpty());

    QVERIFY(plugin->start());
    QVERIFY(isListening(*plugin));
    ProxiedDevice again = newDevice();
    const qsizetype before = records.size();
    QVERIFY(connectAndSend(again, {}, "0123456789") && waitForRecords(before + 1));
    all = counters();
    QCOMPARE(all.accepted, 2U);
    QCOMPARE(all.closedByStop, 1U);
    QCOMPARE(all.open, 1U);
    QCOMPARE(all.bytes, 20U);
}

// Code of the host blocks a worker: here the message handler.
void tst_Counters::showsAHeldWorker()
{
    start({{u"threadpoolSize"_s, 1}});
    ProxiedDevice device = newDevice();
    QVERIFY(connectAndSend(device, {}, "x") && waitForRecords(1));
    const HoldingHandler handler;
    QVERIFY(send(device, QByteArray(2000, 'x')));
    QVERIFY(serveUntil([&] { return HoldingHandler::held.load(); }));
    QVERIFY(waitFor([](const InputCounters &now) { return now.workers[0].turnMs >= 50; }));
    const quint64 turns = counters().workers[0].turns;
    QCOMPARE(counters().workers[0].turns, turns);
    HoldingHandler::mayGoOn = true;
    QVERIFY(waitFor([](const InputCounters &now) { return now.workers[0].turnMs == 0; }));
    QVERIFY(counters().workers[0].turns > turns);
}

void tst_Counters::manyConnectionsAddUp()
{
    constexpr int Rounds = 20;
    constexpr int Devices = 10;
    start({{u"ends"_s, u"all"_s}});
    for (int round = 0; round < Rounds; ++round) {
        QVERIFY(play([&] {
            for (int i = 0; i < Devices; ++i) {
                ProxiedDevice device = newDevice();
                if (!device.connect(port) || !device.send("0123456789"))
                    qFatal("A device was not served");
            }
        }));
        QVERIFY(counters().open <= counters().accepted);
    }
    QVERIFY(waitFor([](const InputCounters &now) {
        return now.closedByPeer + now.closedByReset == Rounds * Devices;
    }));
    const InputCounters all = counters();
    QCOMPARE(all.accepted, quint64(Rounds * Devices));
    QCOMPARE(all.bytes, quint64(Rounds * Devices * 10));
    QCOMPARE(all.open, 0U);
    QCOMPARE(all.buffered, 0U);
}

void tst_Counters::otherVersionsGetNoAnswer()
{
    start({});
    for (const int layout : {CountersEvent::Layout, CountersEvent::Layout + 1}) {
        CountersEvent question(layout);
        QCoreApplication::sendEvent(plugin.get(), &question);
        QCOMPARE(question.answer().has_value(), layout == CountersEvent::Layout);
    }
    // If these sizes change, CountersEvent::Layout must change, too.
    QCOMPARE(sizeof(InputCounters), 23 * sizeof(quint64) + sizeof(QList<int>));
    QCOMPARE(sizeof(InputCounters::Worker), 3 * sizeof(quint64));
}

// For example plugins that were built before the counters existed.
void tst_Counters::otherPluginsGiveNoAnswer()
{
    class Other : public IInputPlugin
    {
    public:
        Other() : IInputPlugin(nullptr) {}
        void onConfigChanged() override {}
        bool start() override { return true; }
        bool stop() override { return true; }
        QString getStatus() override { return {}; }
        void drop(int) override {}
        void discard(int, const QMap<QString, QString> &) override {}
    };
    Other other;
    QVERIFY(!CountersEvent::countersOf(other));
}

QTEST_GUILESS_MAIN(tst_Counters)
#include "tst_counters.moc"
