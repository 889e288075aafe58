// SPDX-FileCopyrightText: the tcpinputplugin2 authors
// SPDX-License-Identifier: MIT

#include "plugin/acceptpause.h"
#include "plugin/drain.h"
#include "plugin/sharedport.h"
#include "tcpinput/farewell.h"
#include "tests/kit/movableclock.h"
#include "tests/kit/processresources.h"
#include "tests/kit/proxyheaders.h"
#include "tests/kit/tlsengines.h"
#include "tests/tcpinput/plugintest.h"

#include <QtCore/QJsonArray>

#include <algorithm>
#include <memory>
#include <vector>

using namespace Qt::StringLiterals;
using namespace plugintest;
using namespace std::chrono_literals;

namespace {

//! A device over TCP or TLS that reads what its server says.
class LeavingDevice
{
public:
    LeavingDevice(const Plugin &plugin, bool useTls)
        : tls(useTls ? new TlsDevice(TLS1_3_VERSION) : nullptr)
    {
        if (tls)
            (void)tls->connect(plugin.address, plugin.port);
        else
            plain = plugin.connectDevice();
    }

    // Also completes the handshake, while this thread serves. first: comes before all TLS.
    bool say(const QByteArray &bytes, const QByteArray &first = {}) const
    {
        if (!tls)
            return plain.send(first + bytes);
        bool sent = false;
        const bool played = play([&] {
            if (!tls->isEncrypted())
                tls->sayFirst(first);
            if (!tls->handshake())
                return;
            tls->write(bytes);
            sent = tls->flush();
        });
        return played && sent;
    }
    // True when the server has said that nothing follows.
    bool isTold() const
    {
        if (!tls)
            return plain.ends();
        tls->readToEnd();
        return true;
    }
    // The same at present.
    bool isToldNow() const
    {
        char byte = 0;
        return ::recv(plain.descriptor(), &byte, 1, MSG_DONTWAIT) == 0;
    }
    bool hasCloseNotify() const
    {
        return (SSL_get_shutdown(tls->native()) & SSL_RECEIVED_SHUTDOWN) != 0;
    }
    void close()
    {
        if (!tls)
            return plain.close();
        tls->writeCloseNotify();
        (void)tls->flush();
        tls->socket.close();
    }

    const std::unique_ptr<TlsDevice> tls;
    NativeSocket plain;
};

InputCounters countersOf(Plugin &plugin)
{
    return CountersEvent::countersOf(plugin).value_or(InputCounters());
}

bool isLeft(Plugin &plugin)
{
    const InputCounters counters = countersOf(plugin);
    return counters.waiting + counters.open > 0;
}

} // namespace

// What Drain and SharedPort ask of a plugin.
class tst_PluginLeaving : public PluginTest
{
    Q_OBJECT

private Q_SLOTS:
    void initTestCase_data();
    void init() { begin(); }
    void cleanup() { end(); }

    void readsOnUntilTheDeviceCloses();
    void keysMayChange();
    void acceptsNoMore();
    void servesWhoWaitsInTheQueue();
    void unfinishedHandshakeGoesOn();
    void missingHeaderMayCome();
    void handsThePortOver();
    void sharesNoOtherPort();
    void nothingToShare();
    void limitsCountBoth();
    void limitsOfOneAloneCountItsOwn();
    void spreads();
    void spreadsEvenly_data();
    void spreadsEvenly();
    void tellsSoonerIfAskedAgain();
    void servesAgainAfterStop();

private:
    static bool useTls()
    {
        QFETCH_GLOBAL(QString, engine);
        return !engine.isEmpty();
    }
    static QJsonObject settings()
    {
        QFETCH_GLOBAL(QString, engine);
        const QJsonObject plain{{u"prompt"_s, true}};
        return engine.isEmpty() ? plain : withTls(plain, withEngine(serverTls(), engine));
    }
};

void tst_PluginLeaving::initTestCase_data()
{
    QTest::addColumn<QString>("engine");
    QTest::newRow("tcp") << QString();
    for (const char *engine : TlsEngines)
        QTest::newRow(engine) << QString::fromLatin1(engine);
}

void tst_PluginLeaving::readsOnUntilTheDeviceCloses()
{
    QFETCH_GLOBAL(QString, engine);
    Plugin plugin(settings());
    QVERIFY(plugin.start());
    LeavingDevice device(plugin, useTls());
    QVERIFY(device.say("before"));
    QVERIFY(plugin.recordOf("before"));
    QVERIFY(Drain::ask(plugin, 0ms));
    QVERIFY(device.isTold());
    if (engine == u"own")
        QVERIFY(device.hasCloseNotify());
    QCOMPARE(countersOf(plugin).open, quint64(1));

    plugin.discard(6, plugin.records.first()->getPluginSubId());
    QVERIFY(device.say("after"));
    QVERIFY(plugin.recordOf("after"));
    device.close();
    QTRY_VERIFY_WITH_TIMEOUT(!isLeft(plugin), HangGuardMs);
    QCOMPARE(countersOf(plugin).closedByPeer, quint64(1));
}

// TLS 1.3 asks for an answer then, which cannot be given any more.
void tst_PluginLeaving::keysMayChange()
{
    QFETCH_GLOBAL(QString, engine);
    if (engine != u"own")
        QSKIP("our own engine alone says close_notify");
    Plugin plugin(settings());
    QVERIFY(plugin.start());
    LeavingDevice device(plugin, true);
    QVERIFY(device.say("before"));
    QVERIFY(plugin.recordOf("before"));
    plugin.discard(6, plugin.records.first()->getPluginSubId());
    QVERIFY(Drain::ask(plugin, 0ms));
    QVERIFY(device.isTold());
    for (int n = 0; n < 3; ++n) {
        QCOMPARE(SSL_key_update(device.tls->native(), SSL_KEY_UPDATE_REQUESTED), 1);
        QVERIFY(device.say(QByteArray::number(n)));
    }
    QVERIFY(plugin.recordOf("012"));
    device.close();
    QTRY_COMPARE_WITH_TIMEOUT(countersOf(plugin).closedByPeer, quint64(1), HangGuardMs);
}

void tst_PluginLeaving::acceptsNoMore()
{
    Plugin plugin(settings());
    QVERIFY(plugin.start());
    QVERIFY(Drain::ask(plugin, 0ms));
    QVERIFY(!plugin.connectDevice().isValid());
    QVERIFY(plugin.getStatus().startsWith(u"Listen: :0,"_s));
    QVERIFY(!isLeft(plugin));
}

void tst_PluginLeaving::servesWhoWaitsInTheQueue()
{
    Plugin plugin(settings());
    QVERIFY(plugin.start());
    std::vector<std::unique_ptr<LeavingDevice>> devices;
    for (int n = 0; n < 3; ++n)
        devices.push_back(std::make_unique<LeavingDevice>(plugin, useTls()));
    QCOMPARE(countersOf(plugin).accepted, quint64(0));
    QVERIFY(Drain::ask(plugin, 0ms));
    for (const auto &device : devices) {
        const QByteArray name = QByteArray::number(quintptr(device.get()));
        QVERIFY(device->say(name));
        QVERIFY(plugin.recordOf(name));
        QVERIFY(device->isTold());
        device->close();
    }
    QTRY_VERIFY_WITH_TIMEOUT(!isLeft(plugin), HangGuardMs);
}

void tst_PluginLeaving::unfinishedHandshakeGoesOn()
{
    if (!useTls())
        QSKIP("of TLS");
    Plugin plugin(settings());
    QVERIFY(plugin.start());
    LeavingDevice device(plugin, true);
    QTRY_COMPARE_WITH_TIMEOUT(countersOf(plugin).waiting, quint64(1), HangGuardMs);
    QVERIFY(Drain::ask(plugin, 0ms));
    QVERIFY(device.say("late"));
    QVERIFY(plugin.recordOf("late"));
    QVERIFY(device.isTold());
}

void tst_PluginLeaving::missingHeaderMayCome()
{
    QJsonObject withProxy = settings();
    withProxy.insert(u"proxyProtocol"_s, QJsonObject{{u"from"_s, QJsonArray{u"127.0.0.0/8"_s}}});
    Plugin plugin(withProxy);
    QVERIFY(plugin.start());
    LeavingDevice device(plugin, useTls());
    QTRY_COMPARE_WITH_TIMEOUT(countersOf(plugin).waiting, quint64(1), HangGuardMs);
    QVERIFY(Drain::ask(plugin, 0ms));
    QVERIFY(device.say("late", proxyheaders::text(QHostAddress(u"192.0.2.7"_s), 7)));
    QVERIFY(plugin.recordOf("late"));
    QVERIFY(device.isTold());
}

// A device that waits in the queue is the new plugin's, and the port never closes.
void tst_PluginLeaving::handsThePortOver()
{
    Plugin old(settings());
    QVERIFY(old.start());
    LeavingDevice served(old, useTls());
    QVERIFY(served.say("served"));
    QVERIFY(old.recordOf("served"));
    const LeavingDevice waiting(old, useTls());

    Plugin next(settings());
    next.config.insert(u"port"_s, old.port);
    QVERIFY(SharedPort::offer(old, next));
    QVERIFY(next.start());
    QCOMPARE(next.getStatus().section(u',', 0, 0), old.getStatus().section(u',', 0, 0));
    QVERIFY(AcceptPause::ask(old, true));
    QVERIFY(Drain::ask(old, 0ms));
    const LeavingDevice fresh(old, useTls());
    QVERIFY(waiting.say("waiting"));
    QVERIFY(fresh.say("fresh"));
    QVERIFY(next.recordOf("waiting"));
    QVERIFY(next.recordOf("fresh"));
    QVERIFY(served.isTold());
    served.close();
    QTRY_VERIFY_WITH_TIMEOUT(!isLeft(old), HangGuardMs);
    QCOMPARE(countersOf(old).accepted, quint64(1));
}

void tst_PluginLeaving::sharesNoOtherPort()
{
    Plugin old(settings());
    QVERIFY(old.start());
    Plugin next(settings());
    const qsizetype before = openDescriptors();
    QVERIFY(SharedPort::offer(old, next));
    QVERIFY(next.start());
    QCOMPARE(openDescriptors(), before + 1); // its own
    QVERIFY(next.connectDevice().isValid());
    QVERIFY(old.connectDevice().isValid());
    QVERIFY(next.port != old.port);
}

void tst_PluginLeaving::nothingToShare()
{
    Plugin old(settings());
    Plugin next(settings());
    const qsizetype before = openDescriptors();
    QVERIFY(!SharedPort::offer(old, next));
    QVERIFY(old.start());
    QVERIFY(SharedPort::offer(old, next));
    QVERIFY(next.stop()); // closes what it has not used
    QVERIFY(old.stop());
    QCOMPARE(openDescriptors(), before);
}

// Of a plugin and its successor, also on another port: until the old one's connections are gone,
// the new one takes no more than both together may have.
void tst_PluginLeaving::limitsCountBoth()
{
    QJsonObject limited = settings();
    limited.insert(u"limits"_s, QJsonObject{{u"maxConnections"_s, 1}, {u"totalBuffer"_s, 1000000}});
    Plugin old(limited);
    QVERIFY(old.start());
    LeavingDevice device(old, useTls());
    QVERIFY(device.say("device"));
    QVERIFY(old.recordOf("device"));

    Plugin next(limited);
    Plugin afterNext(limited);
    QVERIFY(SharedPort::offer(old, next));
    QVERIFY(next.start());
    QVERIFY(Drain::ask(old, 0ms));
    QVERIFY(SharedPort::offer(next, afterNext));
    QVERIFY(afterNext.start());
    for (Plugin *plugin : {&next, &afterNext}) {
        const QString status = plugin->getStatus();
        QVERIFY2(status.contains(u": 1 connections open, 0 refused, accepting paused\r\n"_s),
                 qPrintable(status));
        QVERIFY2(status.contains(u": 6 bytes held, 0 connections paused\r\n"_s),
                 qPrintable(status));
    }
    old.discard(6, old.records.first()->getPluginSubId());
    old.records.clear(); // what the host keeps counts, too
    QTRY_VERIFY_WITH_TIMEOUT(afterNext.getStatus().contains(u": 0 bytes held"_s), HangGuardMs);
    QVERIFY(device.isTold());
    device.close();
    QTRY_VERIFY_WITH_TIMEOUT(!isLeft(old), HangGuardMs);
    LeavingDevice another(afterNext, useTls());
    QVERIFY(another.say("another"));
    QVERIFY(afterNext.recordOf("another"));
    const QString status = next.getStatus();
    QVERIFY2(status.contains(u": 1 connections open"_s), qPrintable(status));
    takeLog(); // that the limit is reached
}

void tst_PluginLeaving::limitsOfOneAloneCountItsOwn()
{
    QJsonObject limited = settings();
    limited.insert(u"limits"_s, QJsonObject{{u"maxConnections"_s, 1}, {u"totalBuffer"_s, 1000000}});
    Plugin old(settings());
    QVERIFY(old.start());
    LeavingDevice device(old, useTls());
    QVERIFY(device.say("device"));
    QVERIFY(old.recordOf("device"));
    Plugin next(limited);
    QVERIFY(SharedPort::offer(old, next));
    QVERIFY(next.start());
    QVERIFY(next.getStatus().contains(u": 0 connections open, 0 refused\r\n"_s));
    QVERIFY(next.getStatus().contains(u": 0 bytes held"_s));
}

// Four devices within a second: after 125 ms, and every 250 ms from then on.
void tst_PluginLeaving::spreads()
{
    if (useTls())
        QSKIP("has nothing to do with TLS");
    const MovableClock clock;
    Plugin plugin(poolOf(1));
    QVERIFY(plugin.start());
    std::vector<std::unique_ptr<LeavingDevice>> devices;
    for (int n = 0; n < 4; ++n)
        devices.push_back(std::make_unique<LeavingDevice>(plugin, false));
    QTRY_COMPARE_WITH_TIMEOUT(countersOf(plugin).open, quint64(4), HangGuardMs);
    TcpTask2 *task = plugin.workers().existingTask(0);
    const auto told = [&] {
        return std::count_if(devices.begin(), devices.end(),
                             [](const auto &device) { return device->isToldNow(); });
    };
    QVERIFY(Drain::ask(plugin, 1000ms));
    passQueueOf(task);
    QCOMPARE(told(), 0);
    MovableClock::advance(400);
    QTRY_COMPARE_WITH_TIMEOUT(told(), 2, HangGuardMs);
    passQueueOf(task);
    QCOMPARE(told(), 2);
    MovableClock::advance(600);
    QTRY_COMPARE_WITH_TIMEOUT(told(), 4, HangGuardMs);
}

void tst_PluginLeaving::spreadsEvenly_data()
{
    QTest::addColumn<int>("count");
    QTest::addColumn<double>("phase");
    QTest::addColumn<double>("part");
    QTest::addColumn<int>("due");
    QTest::newRow("none") << 0 << 0.5 << 0.5 << 0;
    QTest::newRow("none, over") << 0 << 0.5 << 1.0 << 0;
    QTest::newRow("first at once") << 10 << 0.0 << 0.0 << 1;
    QTest::newRow("first later") << 10 << 0.5 << 0.0 << 0;
    QTest::newRow("one before its phase") << 1 << 0.75 << 0.7 << 0;
    QTest::newRow("one after its phase") << 1 << 0.75 << 0.76 << 1;
    QTest::newRow("half") << 1000 << 0.5 << 0.5 << 500;
    QTest::newRow("nearly") << 1000 << 0.5 << 0.999 << 999;
    QTest::newRow("over") << 1000 << 0.9 << 1.0 << 1000;
    QTest::newRow("long over") << 1000 << 0.9 << 7.0 << 1000;
}

void tst_PluginLeaving::spreadsEvenly()
{
    QFETCH(int, count);
    QFETCH(double, phase);
    QFETCH(double, part);
    QFETCH(int, due);
    QCOMPARE(Farewell::due(count, phase, part), qsizetype(due));
}

void tst_PluginLeaving::tellsSoonerIfAskedAgain()
{
    Plugin plugin(settings());
    QVERIFY(plugin.start());
    const LeavingDevice device(plugin, useTls());
    QVERIFY(device.say("x"));
    QVERIFY(plugin.recordOf("x"));
    QVERIFY(Drain::ask(plugin, 24h));
    QVERIFY(Drain::ask(plugin, 0ms));
    QVERIFY(Drain::ask(plugin, 0ms)); // told already
    QVERIFY(device.isTold());
}

void tst_PluginLeaving::servesAgainAfterStop()
{
    if (useTls())
        QSKIP("has nothing to do with TLS");
    Plugin plugin(poolOf(1));
    QVERIFY(plugin.start());
    QVERIFY(Drain::ask(plugin, 0ms));
    QVERIFY(plugin.stop());
    QVERIFY(plugin.start());
    const LeavingDevice device(plugin, false);
    QVERIFY(device.say("x"));
    QVERIFY(plugin.recordOf("x"));
    passQueueOf(plugin.workers().existingTask(0));
    QVERIFY(!device.isToldNow());
    takeLog(); // a second hand-over may have found nothing to take
}

QTEST_GUILESS_MAIN(tst_PluginLeaving)
#include "tst_pluginleaving.moc"
