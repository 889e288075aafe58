// SPDX-FileCopyrightText: the tcpinputplugin2 authors
// SPDX-License-Identifier: MIT

#pragma once

#include "plugin/exactoffers.h"
#include "tests/kit/certificates.h"
#include "tests/kit/hangguard.h"
#include "tests/kit/loadedplugin.h"
#include "tests/kit/messagecapture.h"
#include "tests/kit/tlsengines.h"

#include <QtNetwork/QSslSocket>
#include <QtTest/QtTest>

#include <functional>
#include <future>
#include <limits>
#include <thread>
#include <vector>

namespace hostilehosttest {

inline constexpr int Devices = 8;

using SubIdMap = QMap<QString, QString>;

inline const QString TaskKey = QStringLiteral("task");
inline const QString ClientKey = QStringLiteral("client");
inline const QString ConnectionKey = QStringLiteral("connection");

//! A second thread of the host. It runs the functions that tests give it.
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
    // A std::thread: QThread::wait() returns before thread-local destructors have run. Memory that
    // OpenSSL keeps for the thread could then count as a leak at the end of the program.
    std::thread thread;
    QEventLoop *loop = nullptr; // on the thread's stack
};

// Discards with wrong sub-ids or lengths. If own are the sub-ids of an offer with a position, these
// discards cut nothing: none of them names a position behind the offer's front.
inline void discardNonsense(IInputPlugin &plugin, const SubIdMap &own)
{
    constexpr int Most = std::numeric_limits<int>::max();
    for (const char *task : {"4", "17", "-1"}) { // other texts count as task 0, which exists
        SubIdMap other = own;
        other.insert(TaskKey, QString::fromLatin1(task));
        plugin.discard(Most, other);
    }
    for (const QString &client : {QString(), QStringLiteral("tcp2:"), QStringLiteral("\n%1")}) {
        SubIdMap other = own;
        other.insert(ClientKey, client);
        plugin.discard(Most, other);
    }
    for (const QString &key : {TaskKey, ClientKey}) {
        SubIdMap other = own;
        other.remove(key);
        plugin.discard(Most, other);
    }
    plugin.discard(Most, {});
    SubIdMap otherConnection = own;
    otherConnection.insert(ConnectionKey, QStringLiteral("18446744073709551615"));
    plugin.discard(Most, otherConnection);
    for (int length : {0, -1, -Most, std::numeric_limits<int>::min()})
        plugin.discard(length, own);
}

//! Takes numbered messages exactly, and answers each offer more often than it should.
class HostileHost
{
public:
    explicit HostileHost(IInputPlugin &inputPlugin) : plugin(inputPlugin) {}

    void receive(const shared_parsedData &record)
    {
        const SubIdMap subIds = record->getPluginSubId();
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

    // Afterwards the other thread makes no more calls. The plugin is about to be destroyed, and not
    // even this host may call it then.
    void settle()
    {
        useOther = false;
        other.run([] {});
    }

    qsizetype repeated() const
    {
        return std::count_if(seen.begin(), seen.end(), [](int times) { return times != 1; });
    }

    QHash<QByteArray, int> seen; // count of each message
    int records = 0;

private:
    IInputPlugin &plugin;
    ExactOffers offers;
    bool useOther = true;
    OtherThread other;
};

/*!
    Tests a host that breaks the rules, through the loaded library. Nothing may crash or hang. Only
    the bytes that a discard has cut may be lost.
*/
class HostileHostTest : public QObject
{
protected:
    void addRows();
    void begin();
    void end();

    using Device = std::unique_ptr<QSslSocket>;

    void start(bool offsets, int threads = 4);
    Device connectDevice();
    void connectDevices(int count);
    bool allOffered(const QByteArray &bytes) const;
    bool isOffered(const QByteArray &bytes) const;
    qsizetype sources() const;

    LoadedLibrary library;
    bool useTls = false;
    quint16 port = 0;
    std::unique_ptr<IInputPlugin> plugin;
    QList<shared_parsedData> records;
    std::vector<Device> devices;
    std::unique_ptr<MessageCapture> capture;
};

inline void HostileHostTest::addRows()
{
    QTest::addColumn<bool>("tls");
    QTest::addColumn<QString>("engine");
    QTest::newRow("tcp") << false << QString();
    for (const char *engine : TlsEngines)
        QTest::addRow("tls, %s", engine) << true << QString::fromLatin1(engine);
}

inline void HostileHostTest::begin()
{
    QFETCH_GLOBAL(bool, tls);
    useTls = tls;
    port = freePort();
    capture = std::make_unique<MessageCapture>();
}

inline void HostileHostTest::end()
{
    plugin.reset();
    devices.clear();
    records.clear();
    capture.reset();
}

inline void HostileHostTest::start(bool offsets, int threads)
{
    QJsonObject config = tcpConfig(port);
    config.insert(QStringLiteral("offsets"), offsets);
    config.insert(QStringLiteral("threadpoolSize"), threads);
    QFETCH_GLOBAL(QString, engine);
    if (useTls)
        config.insert(QStringLiteral("ssl"), withEngine(serverTls(), engine));
    plugin = library.create(config);
    connect(plugin.get(), &IInputPlugin::receivedData, this,
            [this](const shared_parsedData &record) { records.append(record); });
    QVERIFY(plugin->start());
    QVERIFY(isListening(*plugin));
}

inline HostileHostTest::Device HostileHostTest::connectDevice()
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

inline void HostileHostTest::connectDevices(int count)
{
    while (count-- > 0)
        devices.push_back(connectDevice());
    // Wait until each device has a client: only then does the plugin offer all that they send.
    QTRY_COMPARE_WITH_TIMEOUT(plugin->getStatus().count(QLatin1String("tcp2:")),
                              qsizetype(devices.size()), HangGuardMs);
}

// Whether each device has an offer that ends with these bytes.
inline bool HostileHostTest::allOffered(const QByteArray &bytes) const
{
    QSet<QString> sources;
    for (const shared_parsedData &record : records) {
        if (record->getOriginalMessage().endsWith(bytes))
            sources.insert(record->getSource());
    }
    return sources.size() == qsizetype(devices.size());
}

inline bool HostileHostTest::isOffered(const QByteArray &bytes) const
{
    return std::any_of(records.begin(), records.end(), [&](const shared_parsedData &record) {
        return record->getOriginalMessage() == bytes;
    });
}

// The number of connections that have made an offer.
inline qsizetype HostileHostTest::sources() const
{
    QSet<QString> result;
    for (const shared_parsedData &record : records)
        result.insert(record->getSource());
    return result.size();
}

} // namespace hostilehosttest
