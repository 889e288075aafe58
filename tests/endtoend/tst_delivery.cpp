// SPDX-FileCopyrightText: the tcpinputplugin2 authors
// SPDX-License-Identifier: MIT

#include "tests/kit/hangguard.h"
#include "tests/kit/loadedplugin.h"
#include "tests/kit/nativesocket.h"
#include "tests/kit/numberedmessages.h"

#include <QtCore/QRandomGenerator>
#include <QtTest/QtTest>

#include <thread>
#include <vector>

namespace {

constexpr int Devices = 64;
constexpr int MessagesPerDevice = 2000;
constexpr int SenderThreads = 8;

//! Sends a device's messages over several connections, in pieces that ignore message boundaries.
class SegmentingDevice
{
public:
    SegmentingDevice(quint16 serverPort, int deviceNumber, quint32 seed)
        : port(serverPort),
          stream(deviceNumber * (MessagesPerDevice + 1)),
          random(seed)
    {
        connect();
    }

    bool isDone() const { return sent == MessagesPerDevice && unsent.isEmpty(); }

    void step()
    {
        if (unsent.isEmpty() && random.bounded(40) == 0)
            reconnect();
        for (int n = random.bounded(1, 20); n > 0 && sent < MessagesPerDevice; --n, ++sent)
            unsent += numberedMessage(stream, inStream++);
        const int piece = random.bounded(1, static_cast<int>(unsent.size()) + 1);
        if (!socket.send(unsent.left(piece)))
            qFatal("send: %s", strerror(errno));
        unsent.remove(0, piece);
        if (random.bounded(10) == 0)
            std::this_thread::sleep_for(std::chrono::microseconds(random.bounded(5000)));
    }

private:
    // The last bytes of the old connection may arrive after the first bytes of the new one.
    void reconnect()
    {
        connect();
        ++stream;
        inStream = 0;
    }

    void connect()
    {
        socket = NativeSocket::connectedTo(testAddress(), port);
        if (!socket.isValid())
            qFatal("connect: %s", strerror(errno));
    }

    const quint16 port;
    int stream; // one for each connection: order is kept only within a connection
    int inStream = 0;
    QRandomGenerator random;
    NativeSocket socket;
    QByteArray unsent;
    int sent = 0;
};

void playDevices(quint16 port, int first, int count, quint32 seed)
{
    std::vector<std::unique_ptr<SegmentingDevice>> devices;
    for (int n = first; n < first + count; ++n)
        devices.push_back(std::make_unique<SegmentingDevice>(port, n, seed + quint32(n)));
    while (!devices.empty()) {
        for (const auto &device : devices)
            device->step();
        const auto isDone = [](const auto &device) { return device->isDone(); };
        devices.erase(std::remove_if(devices.begin(), devices.end(), isDone), devices.end());
    }
}

} // namespace

class tst_Delivery : public QObject
{
    Q_OBJECT

private Q_SLOTS:
    void everyMessageArrivesInOrder();
};

void tst_Delivery::everyMessageArrivesInOrder()
{
    const quint32 seed = QRandomGenerator::global()->generate();
    qInfo("seed %u", seed);
    LoadedLibrary library;
    const quint16 port = freePort();
    const auto plugin = library.create(tcpConfig(port));
    NumberedHost host;
    connect(plugin.get(), &IInputPlugin::receivedData, this,
            [&](const shared_parsedData &record) { host.receive(*plugin, record); });
    QVERIFY(plugin->start());
    QVERIFY(isListening(*plugin));

    std::vector<std::thread> senders;
    constexpr int PerThread = Devices / SenderThreads;
    for (int n = 0; n < SenderThreads; ++n)
        senders.emplace_back(playDevices, port, n * PerThread, PerThread, seed);
    const bool complete = QTest::qWaitFor(
            [&] { return host.received() == Devices * MessagesPerDevice; }, LoadHangGuardMs);
    for (std::thread &sender : senders)
        sender.join();
    QVERIFY2(complete, qPrintable(QString::number(host.received())));
    QCOMPARE(host.missing(), 0);
}

QTEST_GUILESS_MAIN(tst_Delivery)
#include "tst_delivery.moc"
