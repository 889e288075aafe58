// SPDX-FileCopyrightText: the tcpinputplugin2 authors
// SPDX-License-Identifier: MIT

#include "tcpinput/accept/tcpserver.h"
#include "tests/kit/hangguard.h"
#include "tests/kit/loglines.h"
#include "tests/kit/messagecapture.h"
#include "tests/kit/nativesocket.h"
#include "tests/kit/processresources.h"

#include <QtCore/QFile>
#include <QtCore/QSet>
#include <QtCore/QThread>
#include <QtCore/QTimer>
#include <QtNetwork/QNetworkInterface>
#include <QtNetwork/QTcpSocket>
#include <QtTest/QSignalSpy>
#include <QtTest/QTest>

#include <sys/resource.h>

#include <atomic>
#include <memory>
#include <vector>

namespace {

const QHostAddress LocalAddress(QStringLiteral("127.64.0.1"));
constexpr int PauseAt = 4096; // connections waiting
constexpr int ResumeAt = 2048;

QHostAddress linkLocalAddress()
{
    const auto addresses = QNetworkInterface::allAddresses();
    for (const QHostAddress &address : addresses) {
        if (address.protocol() == QAbstractSocket::IPv6Protocol && address.isLinkLocal())
            return address;
    }
    return {};
}

// Connections that the kernel holds for accept().
int acceptQueueLength(const QTcpServer &server)
{
    tcp_info info{};
    socklen_t length = sizeof info;
    ::getsockopt(int(server.socketDescriptor()), IPPROTO_TCP, TCP_INFO, &info, &length);
    return int(info.tcpi_unacked); // its meaning for a listening socket
}

// When this returns, every timer of 100 ms that was running has fired.
void waitForTimers()
{
    QTimer fence;
    int ticks = 0;
    QObject::connect(&fence, &QTimer::timeout, &fence, [&] { ++ticks; });
    fence.start(100);
    QTRY_VERIFY_WITH_TIMEOUT(ticks >= 3, HangGuardMs);
}

QByteArray readToTheEnd(QTcpSocket *socket)
{
    QByteArray bytes;
    while (socket->waitForReadyRead(HangGuardMs) || socket->bytesAvailable() > 0)
        bytes += socket->readAll();
    return bytes;
}

//! A thread whose destructor waits for it.
class Taker
{
public:
    template<class Function>
    explicit Taker(Function function) : thread(QThread::create(function))
    {
        thread->start();
    }
    ~Taker() { thread->wait(); }
    Q_DISABLE_COPY_MOVE(Taker)

private:
    const std::unique_ptr<QThread> thread;
};

} // namespace

// Accepting in one thread, taking in others.
class tst_TcpServer : public QObject
{
    Q_OBJECT

private Q_SLOTS:
    void init();
    void cleanup();

    void nothingPending();
    void oneConnection();
    void bytesAndEndWaitForTheSocket();
    void socketBelongsToTheTakingThread();
    void manyThreadsTake();

    void closeDropsWaitingConnections();
    void destructionDropsWaitingConnections();
    void listenAgain();
    void listenFailure();
    void listenTwice();

    void peerThatReset_data();
    void peerThatReset();
    void burst();
    void waitingConnectionsAreBounded();
    void closeWhilePaused();

private:
    NativeSocket connectDevice() const
    {
        return NativeSocket::connectedTo(LocalAddress, server->serverPort());
    }
    std::unique_ptr<QTcpSocket> take() const
    {
        return std::unique_ptr<QTcpSocket>(server->nextPendingConnection());
    }

    std::unique_ptr<MessageCapture> capture;
    std::unique_ptr<TcpServer> server;
    int announced = 0;
};

void tst_TcpServer::init()
{
    capture = std::make_unique<MessageCapture>();
    server = std::make_unique<TcpServer>(nullptr);
    announced = 0;
    connect(server.get(), &QTcpServer::newConnection, this, [this] { ++announced; });
    QVERIFY(server->listen(LocalAddress, 0));
}

void tst_TcpServer::cleanup()
{
    server.reset();
    QCOMPARE(takeLog(), QStringList());
    capture.reset();
}

void tst_TcpServer::nothingPending()
{
    QVERIFY(!server->hasPendingConnections());
    QVERIFY(!take());
    TcpServer neverListened(nullptr);
    QVERIFY(!neverListened.hasPendingConnections());
    QCOMPARE(neverListened.nextPendingConnection(), nullptr);
    neverListened.close();
}

void tst_TcpServer::oneConnection()
{
    const NativeSocket device = connectDevice();
    QTRY_COMPARE_WITH_TIMEOUT(announced, 1, HangGuardMs);
    QVERIFY(server->hasPendingConnections());

    const auto socket = take();
    QVERIFY(socket);
    QCOMPARE(socket->parent(), nullptr);
    QCOMPARE(socket->state(), QAbstractSocket::ConnectedState);
    QVERIFY(socket->isOpen());
    QCOMPARE(socket->peerPort(), device.localPort());
    QCOMPARE(socket->localAddress(), LocalAddress);
    QCOMPARE(socket->localPort(), server->serverPort());
    QVERIFY(!server->children().isEmpty()); // its engine
    QVERIFY(server->findChildren<QTcpSocket *>().isEmpty());

    QVERIFY(!server->hasPendingConnections());
    QVERIFY(!take());
    QCOMPARE(announced, 1);
}

void tst_TcpServer::bytesAndEndWaitForTheSocket()
{
    NativeSocket early = connectDevice();
    QVERIFY(early.send("before acceptance"));
    early.close();
    QTRY_COMPARE_WITH_TIMEOUT(announced, 1, HangGuardMs);
    NativeSocket late = connectDevice();
    QTRY_COMPARE_WITH_TIMEOUT(announced, 2, HangGuardMs);
    QVERIFY(late.send("before the socket"));
    late.close();

    for (const char *expected : {"before acceptance", "before the socket"}) {
        const auto socket = take();
        QVERIFY(socket);
        QSignalSpy disconnected(socket.get(), &QAbstractSocket::disconnected);
        QByteArray bytes;
        connect(socket.get(), &QIODevice::readyRead, this,
                [&, from = socket.get()] { bytes += from->readAll(); });
        QTRY_COMPARE_WITH_TIMEOUT(disconnected.size(), 1, HangGuardMs);
        QCOMPARE(bytes, QByteArray(expected));
    }
}

void tst_TcpServer::socketBelongsToTheTakingThread()
{
    const NativeSocket device = connectDevice();
    QTRY_COMPARE_WITH_TIMEOUT(announced, 1, HangGuardMs);
    bool belongs = false;
    {
        const Taker taker([&] {
            const auto socket = take();
            belongs = socket && !socket->parent() && socket->thread() == QThread::currentThread();
        });
    }
    QVERIFY(belongs);
}

void tst_TcpServer::manyThreadsTake()
{
    constexpr int Takers = 4;
    constexpr int Devices = 400;
    const qsizetype descriptorsBefore = openDescriptors();
    QMutex mutex;
    QList<QByteArray> received; // guarded by mutex
    std::atomic<int> taken = 0;
    {
        std::vector<std::unique_ptr<Taker>> takers;
        for (int i = 0; i < Takers; ++i) {
            takers.push_back(std::make_unique<Taker>([&] {
                while (taken < Devices) {
                    if (!server->hasPendingConnections())
                        QThread::yieldCurrentThread();
                    const auto socket = take();
                    if (!socket)
                        continue;
                    ++taken;
                    const QByteArray bytes = readToTheEnd(socket.get());
                    const bool disconnected = socket->state() == QAbstractSocket::UnconnectedState;
                    const QMutexLocker locker(&mutex);
                    received.append(disconnected ? bytes : QByteArray("still connected"));
                }
            }));
        }
        const Taker devices([&] {
            for (int i = 0; i < Devices; ++i) {
                const NativeSocket device = connectDevice();
                device.send("from device " + QByteArray::number(i));
            }
        });
        QTRY_COMPARE_WITH_TIMEOUT(taken, Devices, HangGuardMs);
    }

    QCOMPARE(announced, Devices);
    QCOMPARE(received.size(), Devices);
    const QSet<QByteArray> distinct(received.begin(), received.end());
    for (int i = 0; i < Devices; ++i)
        QVERIFY(distinct.contains("from device " + QByteArray::number(i)));
    QVERIFY(!server->hasPendingConnections());
    QTRY_COMPARE_WITH_TIMEOUT(openDescriptors(), descriptorsBefore, HangGuardMs);
}

void tst_TcpServer::closeDropsWaitingConnections()
{
    server->close();
    const qsizetype before = openDescriptors();
    QVERIFY(server->listen(LocalAddress, 0));
    std::vector<NativeSocket> devices;
    for (int i = 0; i < 10; ++i)
        devices.push_back(connectDevice());
    QTRY_COMPARE_WITH_TIMEOUT(announced, 10, HangGuardMs);
    QCOMPARE(openDescriptors(), before + 21);

    server->close();
    QCOMPARE(openDescriptors(), before + 10);
    QVERIFY(!server->isListening());
    QVERIFY(!server->hasPendingConnections());
    QVERIFY(!take());
    for (const NativeSocket &device : devices)
        QVERIFY(device.ends());
}

void tst_TcpServer::destructionDropsWaitingConnections()
{
    const NativeSocket device = connectDevice();
    QTRY_COMPARE_WITH_TIMEOUT(announced, 1, HangGuardMs);
    const qsizetype before = openDescriptors();
    server.reset();
    QCOMPARE(openDescriptors(), before - 2);
    QVERIFY(device.ends());
}

void tst_TcpServer::listenAgain()
{
    const quint16 port = server->serverPort();
    server->close();
    QVERIFY(server->listen(LocalAddress, port));
    const NativeSocket device = connectDevice();
    QTRY_COMPARE_WITH_TIMEOUT(announced, 1, HangGuardMs);
    QVERIFY(take());
}

void tst_TcpServer::listenFailure()
{
    TcpServer second(nullptr);
    QVERIFY(!second.listen(LocalAddress, server->serverPort()));
    QVERIFY(!second.isListening());
    QCOMPARE(second.serverError(), QAbstractSocket::AddressInUseError);
    QVERIFY(!second.hasPendingConnections());
    second.close();

    QVERIFY(second.listen(LocalAddress, 0));
    const NativeSocket device = NativeSocket::connectedTo(LocalAddress, second.serverPort());
    QTRY_VERIFY_WITH_TIMEOUT(second.hasPendingConnections(), HangGuardMs);
}

void tst_TcpServer::listenTwice()
{
    const quint16 port = server->serverPort();
    QVERIFY(!server->listen(LocalAddress, 0));
    QCOMPARE(takeLog(),
             QStringList(QStringLiteral("w: QTcpServer::listen() called when already listening")));
    QCOMPARE(server->serverPort(), port);
    const NativeSocket device = connectDevice();
    QTRY_COMPARE_WITH_TIMEOUT(announced, 1, HangGuardMs);
}

void tst_TcpServer::peerThatReset_data()
{
    QTest::addColumn<QHostAddress>("address");
    QTest::addColumn<bool>("beforeAcceptance");
    const QHostAddress v6(QHostAddress::LocalHostIPv6);
    for (bool beforeAcceptance : {true, false}) {
        const char *when = beforeAcceptance ? "before acceptance" : "before its socket was made";
        QTest::addRow("IPv4, %s", when) << LocalAddress << beforeAcceptance;
        QTest::addRow("IPv6, %s", when) << v6 << beforeAcceptance;
        QTest::addRow("IPv6 link-local, %s", when) << linkLocalAddress() << beforeAcceptance;
    }
}

// Qt does not know the address of such a peer any more, but the kernel does.
void tst_TcpServer::peerThatReset()
{
    QFETCH(QHostAddress, address);
    QFETCH(bool, beforeAcceptance);
    if (address.isNull())
        QSKIP("no such address here", );
    server->close();
    if (!server->listen(address, 0))
        QSKIP("no such address here", );
    NativeSocket device = NativeSocket::unconnected(address);
    QVERIFY(device.bind(address, 0));
    QVERIFY(device.connect(address, server->serverPort()));
    const quint16 port = device.localPort();
    if (beforeAcceptance)
        device.reset();
    QTRY_COMPARE_WITH_TIMEOUT(announced, 1, HangGuardMs);
    device.reset();

    const auto socket = take();
    QVERIFY(socket);
    QCOMPARE(socket->peerAddress().toString(), address.toString());
    QCOMPARE(socket->peerPort(), port);
    QCOMPARE(socket->localAddress().toString(), address.toString());
    QCOMPARE(socket->localPort(), server->serverPort());
    QSignalSpy disconnected(socket.get(), &QAbstractSocket::disconnected);
    QTRY_COMPARE_WITH_TIMEOUT(disconnected.size(), 1, HangGuardMs);
}

// They all fit into the kernel's queue: none waits for the retransmission of its SYN.
void tst_TcpServer::burst()
{
    constexpr int Devices = 2000;
    QFile cap(QStringLiteral("/proc/sys/net/core/somaxconn"));
    QVERIFY(cap.open(QIODevice::ReadOnly));
    if (cap.readAll().trimmed().toInt() < Devices)
        QSKIP("net.core.somaxconn is lower", );
    if (!raiseDescriptorLimit(2 * Devices + 100))
        QSKIP("the limit of open files is lower", );
    std::vector<NativeSocket> devices;
    for (int i = 0; i < Devices; ++i) {
        devices.push_back(connectDevice());
        QVERIFY(devices.back().isValid());
    }
    QVERIFY(NativeSocket::waitFor([&] { return acceptQueueLength(*server) == Devices; }));

    QTRY_COMPARE_WITH_TIMEOUT(announced, Devices, HangGuardMs);
    QSet<quint16> ports;
    while (const auto socket = take())
        ports.insert(socket->peerPort());
    QCOMPARE(ports.size(), Devices);
}

void tst_TcpServer::waitingConnectionsAreBounded()
{
    if (!raiseDescriptorLimit(2 * (PauseAt + 200)))
        QSKIP("the limit of open files is lower", );
    constexpr int Later = 10;
    std::vector<NativeSocket> devices;
    const auto connectDevices = [&](int count) {
        for (int i = 0; i < count; ++i)
            devices.push_back(connectDevice());
    };
    while (announced < PauseAt - 1) {
        connectDevices(qMin(200, PauseAt - 1 - announced));
        QTRY_COMPARE_WITH_TIMEOUT(announced, int(devices.size()), HangGuardMs);
    }
    // One below the bound the server goes on, at the bound it pauses.
    connectDevices(1);
    QTRY_COMPARE_WITH_TIMEOUT(announced, PauseAt, HangGuardMs);
    connectDevices(Later);
    waitForTimers();
    QCOMPARE(announced, PauseAt);
    QVERIFY(NativeSocket::waitFor([&] { return acceptQueueLength(*server) == Later; }));

    for (int waiting = PauseAt; waiting > ResumeAt + 1; --waiting)
        QVERIFY(take());
    waitForTimers();
    QCOMPARE(announced, PauseAt);

    QVERIFY(take());
    QTRY_COMPARE_WITH_TIMEOUT(announced, PauseAt + Later, HangGuardMs);
    // Accepting goes on afterwards.
    waitForTimers();
    connectDevices(1);
    QTRY_COMPARE_WITH_TIMEOUT(announced, PauseAt + Later + 1, HangGuardMs);
}

void tst_TcpServer::closeWhilePaused()
{
    if (!raiseDescriptorLimit(2 * (PauseAt + 200)))
        QSKIP("the limit of open files is lower", );
    std::vector<NativeSocket> devices;
    while (announced < PauseAt) {
        for (int i = 0; i < 256; ++i)
            devices.push_back(connectDevice());
        QTRY_COMPARE_WITH_TIMEOUT(announced, int(devices.size()), HangGuardMs);
    }

    server->close();
    waitForTimers();
    QVERIFY(!server->isListening());
    QVERIFY(server->listen(LocalAddress, 0));
    devices.push_back(connectDevice());
    QTRY_COMPARE_WITH_TIMEOUT(announced, int(devices.size()), HangGuardMs);

    // Also if it listens again at once, without a turn of the event loop between.
    devices.clear();
    server->close();
    QVERIFY(server->listen(LocalAddress, 0));
    devices.push_back(connectDevice());
    QTRY_COMPARE_WITH_TIMEOUT(announced, PauseAt + 2, HangGuardMs);
}

QTEST_GUILESS_MAIN(tst_TcpServer)
#include "tst_tcpserver.moc"
