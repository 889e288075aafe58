// SPDX-FileCopyrightText: the tcpinputplugin2 authors
// SPDX-License-Identifier: MIT

#include "tests/endtoend/hostilehosttest.h"
#include "tests/kit/hangguard.h"
#include "tests/kit/loadedplugin.h"
#include "tests/kit/loglines.h"
#include "tests/kit/numberedmessages.h"

#include <QtCore/QPointer>
#include <QtCore/QThread>
#include <QtNetwork/QSslSocket>
#include <QtTest/QtTest>

#include <atomic>
#include <vector>

using namespace hostilehosttest;

// The host calls the plugin from a slot of receivedData().
class tst_HostileCalls : public HostileHostTest
{
    Q_OBJECT

private Q_SLOTS:
    void initTestCase_data() { addRows(); }
    void init() { begin(); }
    void cleanup() { end(); }

    void stopsAndStartsWhileReceiving();
    void startsOnceMoreWhileReceiving();
    void deletesThePluginWhileReceiving();
    void standsStill();

private:
    static qsizetype endedConnectionsWithBytes();
};

// Counts ended connections that had received bytes, in the log lines since the last call.
qsizetype tst_HostileCalls::endedConnectionsWithBytes()
{
    static const QRegularExpression line(
            QStringLiteral("closing connection .*received [1-9][0-9]* bytes"));
    return takeLog().filter(line).size();
}

void tst_HostileCalls::stopsAndStartsWhileReceiving()
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
    // Only those connections made an offer. Bytes after a client's end are not offered.
    const qsizetype ended = endedConnectionsWithBytes();
    QTRY_COMPARE_WITH_TIMEOUT(sources(), ended, HangGuardMs);

    QVERIFY(isListening(*plugin));
    const Device device = connectDevice();
    device->write("new");
    QTRY_VERIFY_WITH_TIMEOUT(isOffered("new"), HangGuardMs);
}

void tst_HostileCalls::startsOnceMoreWhileReceiving()
{
    start(false);
    connectDevices(1);
    connect(
            plugin.get(), &IInputPlugin::receivedData, this, [this] { QVERIFY(plugin->start()); },
            Qt::SingleShotConnection);
    devices[0]->write("abc");
    QTRY_COMPARE_WITH_TIMEOUT(records.size(), 1, HangGuardMs);

    connectDevices(Devices - 1); // a second start() makes the plugin hand over each of them twice
    for (const Device &device : devices)
        device->write("+more");
    for (const Device &device : devices)
        device->disconnectFromHost();
    QTRY_VERIFY_WITH_TIMEOUT(allOffered("+more"), HangGuardMs);
}

void tst_HostileCalls::deletesThePluginWhileReceiving()
{
    start(false);
    connectDevices(Devices);
    const QPointer<IInputPlugin> dying = plugin.get();
    connect(dying, &IInputPlugin::receivedData, this, [this, dying] {
        (void)plugin.release(); // deleteLater() deletes it
        if (dying)
            dying->deleteLater();
    });
    for (const Device &device : devices)
        device->write("abc");
    QTRY_VERIFY_WITH_TIMEOUT(dying.isNull(), HangGuardMs);
    QCOMPARE(sources(), endedConnectionsWithBytes());
}

// The host stands still. Meanwhile the devices send and the workers make offers. Nothing is lost.
void tst_HostileCalls::standsStill()
{
    constexpr unsigned long StallMs = 3000; // time for many offers of each client
    constexpr int Messages = 250;
    start(true);
    disconnect(plugin.get(), nullptr, this, nullptr);
    HostileHost host(*plugin);
    bool stalled = false;
    const QObject listening; // destroyed before the host that the slot uses
    connect(plugin.get(), &IInputPlugin::receivedData, &listening,
            [&](const shared_parsedData &record) {
                if (!std::exchange(stalled, true))
                    QThread::msleep(StallMs);
                host.receive(record);
            });

    // The devices have a thread with its own event loop, so they do not stand still.
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
                auto *device = qobject_cast<QSslSocket *>(timer->parent());
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

QTEST_GUILESS_MAIN(tst_HostileCalls)
#include "tst_hostilecalls.moc"
