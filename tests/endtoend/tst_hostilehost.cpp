// SPDX-FileCopyrightText: the tcpinputplugin2 authors
// SPDX-License-Identifier: MIT

#include "plugin/exactoffers.h"
#include "tests/kit/certificates.h"
#include "tests/kit/hangguard.h"
#include "tests/kit/loadedplugin.h"
#include "tests/kit/loglines.h"
#include "tests/kit/numberedmessages.h"

#include <QtCore/QPointer>
#include <QtCore/QThread>
#include <QtNetwork/QSslSocket>
#include <QtTest/QtTest>

#include <atomic>
#include <functional>
#include <future>
#include <limits>
#include <thread>
#include <vector>

namespace {

constexpr int Devices = 8;

using SubIds = QMap<QString, QString>;

const QString TaskKey = QStringLiteral("task");
const QString ClientKey = QStringLiteral("client");
const QString ConnectionKey = QStringLiteral("connection");

//! Another thread of the host's, which does what it is told.
class OtherThread
{
public:
    OtherThread()
    {
        std::promise<QEventLoop *> running;
        std::future<QEventLoop *> made = running.get_future();
        thread = std::thread([running = std::move(running)]() mutable {
            QEventLoop own;
            running.set_value(&own);
            own.exec();
        });
        loop = made.get();
    }
    ~OtherThread()
    {
        QMetaObject::invokeMethod(loop, &QEventLoop::quit, Qt::QueuedConnection);
        thread.join();
    }
    Q_DISABLE_COPY_MOVE(OtherThread)

    void post(const std::function<void()> &function)
    {
        QMetaObject::invokeMethod(loop, function, Qt::QueuedConnection);
    }
    void run(const std::function<void()> &function)
    {
        QMetaObject::invokeMethod(loop, function, Qt::BlockingQueuedConnection);
    }

private:
    // Of the standard library: Qt's wait() returns before the thread has freed what OpenSSL keeps
    // for it, and what it has not freed when the program ends counts as a leak.
    std::thread thread;
    QEventLoop *loop = nullptr; // on the thread's stack
};

// Answers that have no business here. With a stamped offer's own sub-ids they cut nothing, since
// they name no position beyond its front.
void discardNonsense(IInputPlugin &plugin, const SubIds &own)
{
    constexpr int Most = std::numeric_limits<int>::max();
    for (const char *task : {"4", "17", "-1"}) { // what is no number counts as 0, which exists
        SubIds other = own;
        other.insert(TaskKey, QString::fromLatin1(task));
        plugin.discard(Most, other);
    }
    for (const QString &client : {QString(), QStringLiteral("tcp2:"), QStringLiteral("\n%1")}) {
        SubIds other = own;
        other.insert(ClientKey, client);
        plugin.discard(Most, other);
    }
    for (const QString &key : {TaskKey, ClientKey}) {
        SubIds other = own;
        other.remove(key);
        plugin.discard(Most, other);
    }
    plugin.discard(Most, {});
    SubIds otherConnection = own;
    otherConnection.insert(ConnectionKey, QStringLiteral("18446744073709551615"));
    plugin.discard(Most, otherConnection);
    for (int length : {0, -1, -Most, std::numeric_limits<int>::min()})
        plugin.discard(length, own);
}

// Answers that mix up two connections, both of which are there. They cut nothing: each worker has
// its own clients, and a connection's number is no other's.
void discardMixedUp(IInputPlugin &plugin, const SubIds &one, const SubIds &other)
{
    constexpr int Most = std::numeric_limits<int>::max();
    for (const QString &key : {TaskKey, ClientKey, ConnectionKey}) {
        SubIds mixed = one;
        mixed.insert(key, other.value(key));
        if (mixed != one) // both may be one worker's
            plugin.discard(Most, mixed);
    }
}

//! Takes numbered messages exactly, and answers each offer more often than it should.
class HostileHost
{
public:
    explicit HostileHost(IInputPlugin &inputPlugin) : plugin(inputPlugin) {}

    void receive(const shared_parsedData &record)
    {
        const SubIds subIds = record->getPluginSubId();
        if (++records % 8 == 0)
            discardNonsense(plugin, subIds);
        if (records % 8 == 4 && useOther)
            other.post([this, subIds] { discardNonsense(plugin, subIds); });

        const auto offer = offers.open(*record);
        const QByteArray fresh = offer.fresh().toByteArray();
        const qsizetype used = fresh.lastIndexOf('\n') + 1;
        const auto messages = fresh.first(used).split('\n');
        for (const QByteArray &message : messages) {
            if (!message.isEmpty())
                ++seen[message];
        }
        const int length = offers.consume(offer, used);
        if (length == 0)
            return;
        plugin.discard(length, subIds);
        plugin.discard(length, subIds);
        if (useOther)
            other.post([this, length, subIds] { plugin.discard(length, subIds); });
    }

    // No call from the other thread comes any more: not even this host calls what it destroys.
    void settle()
    {
        useOther = false;
        other.run([] {});
    }

    qsizetype repeated() const
    {
        return std::count_if(seen.begin(), seen.end(), [](int times) { return times != 1; });
    }

    QHash<QByteArray, int> seen; // how often, by message
    int records = 0;

private:
    IInputPlugin &plugin;
    ExactOffers offers;
    bool useOther = true;
    OtherThread other;
};

} // namespace

/*!
    A host that does what no host should, through the loaded library. Nothing may crash or hang, and
    no byte may be lost but those that a discard has really cut.
*/
class tst_HostileHost : public QObject
{
    Q_OBJECT

private Q_SLOTS:
    void initTestCase_data();
    void init();
    void cleanup();

    void nonsenseCutsNothing();
    void mixedUpAnswersCutNothing_data();
    void mixedUpAnswersCutNothing();
    void moreThanThereIsCutsAll();
    void answersThatCutNothingDoNotStarveOthers();
    void clientIsGone();
    void discardsWhileThePluginStopsAndStarts();
    void hostileAnswersLoseNothing();

    void stopsAndStartsWhileReceiving();
    void startsOnceMoreWhileReceiving();
    void deletesThePluginWhileReceiving();
    void standsStill();

private:
    using Device = std::unique_ptr<QSslSocket>;

    void start(bool offsets, int threads = 4);
    Device connectDevice();
    void connectDevices(int count);
    static bool sendAndClose(QSslSocket &device, const QByteArray &bytes);
    bool allOffered(const QByteArray &bytes) const;
    bool isOffered(const QByteArray &bytes) const;
    qsizetype sources() const;
    static qsizetype endedConnectionsWithBytes();

    LoadedLibrary library;
    bool useTls = false;
    quint16 port = 0;
    std::unique_ptr<IInputPlugin> plugin;
    QList<shared_parsedData> records;
    std::vector<Device> devices;
    std::unique_ptr<MessageCapture> capture;
};

void tst_HostileHost::initTestCase_data()
{
    QTest::addColumn<bool>("tls");
    QTest::newRow("tcp") << false;
    QTest::newRow("tls") << true;
}

void tst_HostileHost::init()
{
    QFETCH_GLOBAL(bool, tls);
    useTls = tls;
    port = freePort();
    capture = std::make_unique<MessageCapture>();
}

void tst_HostileHost::cleanup()
{
    plugin.reset();
    devices.clear();
    records.clear();
    capture.reset();
}

void tst_HostileHost::start(bool offsets, int threads)
{
    QJsonObject config = tcpConfig(port);
    config.insert(QStringLiteral("offsets"), offsets);
    config.insert(QStringLiteral("threadpoolSize"), threads);
    if (useTls)
        config.insert(QStringLiteral("ssl"), serverTls());
    plugin = library.create(config);
    connect(plugin.get(), &IInputPlugin::receivedData, this,
            [this](const shared_parsedData &record) { records.append(record); });
    QVERIFY(plugin->start());
    QVERIFY(isListening(*plugin));
}

tst_HostileHost::Device tst_HostileHost::connectDevice()
{
    auto device = std::make_unique<QSslSocket>();
    device->setPeerVerifyMode(QSslSocket::VerifyNone);
    if (useTls)
        device->connectToHostEncrypted(testAddress().toString(), port);
    else
        device->connectToHost(testAddress(), port);
    const auto isReady = [&] {
        return useTls ? device->isEncrypted() : device->state() == QAbstractSocket::ConnectedState;
    };
    if (!QTest::qWaitFor(isReady, HangGuardMs))
        qFatal("%s", qPrintable(device->errorString()));
    return device;
}

void tst_HostileHost::connectDevices(int count)
{
    while (count-- > 0)
        devices.push_back(connectDevice());
    // A client each: only then is all that they send the plugin's.
    QTRY_COMPARE_WITH_TIMEOUT(plugin->getStatus().count(QLatin1String("tcp2:")),
                              qsizetype(devices.size()), HangGuardMs);
}

bool tst_HostileHost::sendAndClose(QSslSocket &device, const QByteArray &bytes)
{
    device.write(bytes);
    device.disconnectFromHost();
    return QTest::qWaitFor([&] { return device.state() == QAbstractSocket::UnconnectedState; },
                           HangGuardMs);
}

// By every device, as the end of an offer.
bool tst_HostileHost::allOffered(const QByteArray &bytes) const
{
    QSet<QString> sources;
    for (const shared_parsedData &record : records) {
        if (record->getOriginalMessage().endsWith(bytes))
            sources.insert(record->getSource());
    }
    return sources.size() == qsizetype(devices.size());
}

bool tst_HostileHost::isOffered(const QByteArray &bytes) const
{
    return std::any_of(records.begin(), records.end(), [&](const shared_parsedData &record) {
        return record->getOriginalMessage() == bytes;
    });
}

// That have made an offer.
qsizetype tst_HostileHost::sources() const
{
    QSet<QString> result;
    for (const shared_parsedData &record : records)
        result.insert(record->getSource());
    return result.size();
}

// That have received something, by what the log says since it was looked at last.
qsizetype tst_HostileHost::endedConnectionsWithBytes()
{
    static const QRegularExpression line(
            QStringLiteral("closing connection .*received [1-9][0-9]* bytes"));
    return takeLog().filter(line).size();
}

void tst_HostileHost::nonsenseCutsNothing()
{
    start(true);
    connectDevices(1);
    const QByteArray bytes(100, 'x');
    devices[0]->write(bytes);
    QTRY_COMPARE_WITH_TIMEOUT(records.size(), 1, HangGuardMs);

    const SubIds own = records[0]->getPluginSubId();
    discardNonsense(*plugin, own);
    OtherThread().run([&] { discardNonsense(*plugin, own); });

    QVERIFY(sendAndClose(*devices[0], "end"));
    QTRY_COMPARE_WITH_TIMEOUT(records.last()->getOriginalMessage(), bytes + "end", HangGuardMs);
}

void tst_HostileHost::mixedUpAnswersCutNothing_data()
{
    QTest::addColumn<int>("threads");
    QTest::newRow("of one worker") << 1;
    QTest::newRow("of two") << 2;
}

void tst_HostileHost::mixedUpAnswersCutNothing()
{
    QFETCH(int, threads);
    start(true, threads);
    connectDevices(2);
    const QByteArray bytes(100, 'x');
    for (const Device &device : devices)
        device->write(bytes);
    QTRY_VERIFY_WITH_TIMEOUT(allOffered(bytes), HangGuardMs);

    QMap<QString, SubIds> own; // by client
    for (const shared_parsedData &record : std::as_const(records))
        own.insert(record->getPluginSubId().value(ClientKey), record->getPluginSubId());
    QCOMPARE(own.size(), 2);
    const SubIds &one = own.first();
    const SubIds &other = own.last();
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

void tst_HostileHost::moreThanThereIsCutsAll()
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

// Each of them is answered with the same offer at once.
void tst_HostileHost::answersThatCutNothingDoNotStarveOthers()
{
    start(false);
    connectDevices(Devices);
    int answers = 0;
    QSet<QString> others;
    const QObject listening; // ends before what it counts
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

void tst_HostileHost::clientIsGone()
{
    start(true);
    connectDevices(1);
    QVERIFY(sendAndClose(*devices[0], "abc"));
    QTRY_VERIFY_WITH_TIMEOUT(plugin->getStatus().count(QLatin1String("tcp2:")) == 0, HangGuardMs);
    QTRY_VERIFY_WITH_TIMEOUT(!records.isEmpty(), HangGuardMs);
    const SubIds own = records.last()->getPluginSubId();
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

void tst_HostileHost::discardsWhileThePluginStopsAndStarts()
{
    start(true);
    connectDevices(Devices);
    for (const Device &device : devices)
        device->write("abc");
    QTRY_VERIFY_WITH_TIMEOUT(allOffered("abc"), HangGuardMs);
    QList<SubIds> all;
    for (const shared_parsedData &record : std::as_const(records))
        all.append(record->getPluginSubId());

    std::atomic<bool> done = false;
    std::atomic<int> rounds = 0;
    std::vector<std::thread> threads;
    for (int n = 0; n < 2; ++n) {
        threads.emplace_back([&] {
            while (!done) {
                for (const SubIds &subIds : std::as_const(all)) {
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

void tst_HostileHost::hostileAnswersLoseNothing()
{
    constexpr int Messages = 500;
    start(true);
    disconnect(plugin.get(), nullptr, this, nullptr);
    HostileHost host(*plugin);
    const QObject listening; // ends before the host
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
    plugin.reset(); // before the host that it calls
}

void tst_HostileHost::stopsAndStartsWhileReceiving()
{
    start(false);
    connectDevices(Devices);
    connect(
            plugin.get(), &IInputPlugin::receivedData, this,
            [this] {
                QVERIFY(plugin->stop());
                QVERIFY(plugin->start());
            },
            Qt::SingleShotConnection);
    for (const Device &device : devices)
        device->write("abc");
    const auto areClosed = [&] {
        return std::all_of(devices.begin(), devices.end(), [](const Device &device) {
            return device->state() == QAbstractSocket::UnconnectedState;
        });
    };
    QTRY_VERIFY_WITH_TIMEOUT(areClosed(), HangGuardMs);
    // Bytes that came too late for a client are not the plugin's.
    const qsizetype ended = endedConnectionsWithBytes();
    QTRY_COMPARE_WITH_TIMEOUT(sources(), ended, HangGuardMs);

    QVERIFY(isListening(*plugin));
    const Device device = connectDevice();
    device->write("new");
    QTRY_VERIFY_WITH_TIMEOUT(isOffered("new"), HangGuardMs);
}

void tst_HostileHost::startsOnceMoreWhileReceiving()
{
    start(false);
    connectDevices(1);
    connect(
            plugin.get(), &IInputPlugin::receivedData, this, [this] { QVERIFY(plugin->start()); },
            Qt::SingleShotConnection);
    devices[0]->write("abc");
    QTRY_COMPARE_WITH_TIMEOUT(records.size(), 1, HangGuardMs);

    connectDevices(Devices - 1); // each is handed over twice
    for (const Device &device : devices)
        device->write("+more");
    for (const Device &device : devices)
        device->disconnectFromHost();
    QTRY_VERIFY_WITH_TIMEOUT(allOffered("+more"), HangGuardMs);
}

void tst_HostileHost::deletesThePluginWhileReceiving()
{
    start(false);
    connectDevices(Devices);
    const QPointer<IInputPlugin> dying = plugin.get();
    connect(dying, &IInputPlugin::receivedData, this, [this, dying] {
        plugin.release(); // it goes by itself
        if (dying)
            dying->deleteLater();
    });
    for (const Device &device : devices)
        device->write("abc");
    QTRY_VERIFY_WITH_TIMEOUT(dying.isNull(), HangGuardMs);
    QCOMPARE(sources(), endedConnectionsWithBytes());
}

// The devices send on meanwhile, and the workers offer: nothing of it is lost.
void tst_HostileHost::standsStill()
{
    constexpr unsigned long StallMs = 3000; // each client makes many offers meanwhile
    constexpr int Messages = 250;
    start(true);
    disconnect(plugin.get(), nullptr, this, nullptr);
    HostileHost host(*plugin);
    bool stalled = false;
    const QObject listening; // ends before the host
    connect(plugin.get(), &IInputPlugin::receivedData, &listening,
            [&](const shared_parsedData &record) {
                if (!std::exchange(stalled, true))
                    QThread::msleep(StallMs);
                host.receive(record);
            });

    // In a thread of their own, with its own event loop: the devices do not stand still.
    OtherThread playground;
    std::atomic<int> ready = 0;
    std::vector<QSslSocket *> sockets;
    playground.run([&] {
        for (int n = 0; n < Devices; ++n) {
            auto *device = new QSslSocket;
            sockets.push_back(device);
            device->setPeerVerifyMode(QSslSocket::VerifyNone);
            const auto count = [&ready] { ++ready; };
            if (useTls) {
                connect(device, &QSslSocket::encrypted, device, count);
                device->connectToHostEncrypted(testAddress().toString(), port);
            } else {
                connect(device, &QAbstractSocket::connected, device, count);
                device->connectToHost(testAddress(), port);
            }
        }
    });
    QTRY_COMPARE_WITH_TIMEOUT(ready.load(), Devices, HangGuardMs);
    playground.post([&] {
        for (int n = 0; n < Devices; ++n) {
            auto *timer = new QTimer(sockets[std::size_t(n)]);
            connect(timer, &QTimer::timeout, timer, [timer, n, message = 0]() mutable {
                auto *device = static_cast<QSslSocket *>(timer->parent());
                device->write(numberedMessage(n, message));
                if (++message == Messages) {
                    timer->stop();
                    device->disconnectFromHost();
                }
            });
            timer->start(10);
        }
    });

    QTRY_COMPARE_WITH_TIMEOUT(host.seen.size(), Devices * Messages, HangGuardMs);
    QTRY_VERIFY_WITH_TIMEOUT(plugin->getStatus().count(QLatin1String("tcp2:")) == 0, HangGuardMs);
    QCOMPARE(host.repeated(), 0);
    host.settle();
    plugin.reset();
    playground.run([&] { qDeleteAll(sockets); });
}

QTEST_GUILESS_MAIN(tst_HostileHost)
#include "tst_hostilehost.moc"
