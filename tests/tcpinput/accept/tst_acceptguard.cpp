// SPDX-FileCopyrightText: the tcpinputplugin2 authors
// SPDX-License-Identifier: MIT

#include "tcpinput/accept/tcpserver.h"
#include "tests/kit/hangguard.h"
#include "tests/kit/loglines.h"
#include "tests/kit/messagecapture.h"
#include "tests/kit/nativesocket.h"
#include "tests/kit/nofreedescriptors.h"

#include <QtCore/QEvent>
#include <QtCore/QSocketNotifier>
#include <QtCore/QTimer>
#include <QtNetwork/QTcpSocket>
#include <QtTest/QSignalSpy>
#include <QtTest/QTest>

#include <atomic>
#include <cerrno>
#include <memory>
#include <optional>
#include <vector>

#include <sys/socket.h>
#include <sys/syscall.h>
#include <unistd.h>

namespace {

const QHostAddress LocalAddress(QStringLiteral("127.65.0.1"));

std::atomic<int> acceptError = 0; // the error of each accept(); 0: what the kernel says
std::atomic<int> failures = 0;
std::atomic<int> failuresLeft = -1; // negative: for ever

//! Counts how often the server is told of something to accept.
class Activations : public QObject
{
public:
    explicit Activations(QTcpServer *server) : notifier(server->findChild<QSocketNotifier *>())
    {
        notifier->installEventFilter(this);
    }
    bool eventFilter(QObject *, QEvent *event) override
    {
        count += event->type() == QEvent::SockAct ? 1 : 0;
        return false;
    }

    QSocketNotifier *const notifier;
    int count = 0;
};

} // namespace

// Replaces the C library's accept4(), for Qt and for our own code.
extern "C" Q_DECL_EXPORT int accept4(int fd, sockaddr *address, socklen_t *length, int flags)
{
    if (acceptError != 0 && failuresLeft != 0) {
        if (failuresLeft > 0)
            --failuresLeft;
        ++failures;
        errno = acceptError;
        return -1;
    }
    return static_cast<int>(::syscall(SYS_accept4, fd, address, length, flags));
}

// The server when the whole process has no free file descriptors.
class tst_AcceptGuard : public QObject
{
    Q_OBJECT

private Q_SLOTS:
    void init();
    void cleanup();

    void nothingHappensWithDescriptors();
    void outAndBack_data();
    void outAndBack();
    void descriptorsComeBackOneByOne();
    void afterTheFirstAcceptFailedNothingPauses();
    void nothingIsAcceptedWhileHeld();
    void heldAfterTheFirstAcceptFailed();
    void heldWhileOut();
    void closeWhileOut();
    void destructionWhileOut();
    void otherFailures_data();
    void otherFailures();
    void failuresThatPass();
    void receiversMayDeleteTheServer_data();
    void receiversMayDeleteTheServer();

private:
    void prepareDevices(int count);
    void connectDevices();
    static void waitForTimers(int count);

    std::unique_ptr<MessageCapture> capture;
    std::unique_ptr<TcpServer> server;
    std::vector<NativeSocket> devices;
    int accepted = 0;
    int out = 0;
    int back = 0;
};

void tst_AcceptGuard::init()
{
    capture = std::make_unique<MessageCapture>();
    server = std::make_unique<TcpServer>(nullptr);
    accepted = out = back = 0;
    connect(server.get(), &QTcpServer::newConnection, this, [this] { ++accepted; });
    connect(&server->guard, &AcceptGuard::descriptorsOut, this, [this] { ++out; });
    connect(&server->guard, &AcceptGuard::acceptsAgain, this, [this] { ++back; });
    QVERIFY(server->listen(LocalAddress, 0));
}

void tst_AcceptGuard::cleanup()
{
    server.reset();
    devices.clear();
    QCOMPARE(takeLog(), QStringList());
    capture.reset();
}

// Call while there are descriptors for the devices.
void tst_AcceptGuard::prepareDevices(int count)
{
    devices.clear();
    for (int i = 0; i < count; ++i)
        devices.push_back(NativeSocket::unconnected(LocalAddress));
}

void tst_AcceptGuard::connectDevices()
{
    for (NativeSocket &device : devices)
        QVERIFY(device.connect(LocalAddress, server->serverPort()));
}

// When this returns, each timer of 100 ms has fired at least count - 1 times.
void tst_AcceptGuard::waitForTimers(int count)
{
    QTimer fence;
    int ticks = 0;
    connect(&fence, &QTimer::timeout, &fence, [&] { ++ticks; });
    fence.start(100);
    QTRY_VERIFY_WITH_TIMEOUT(ticks >= count, HangGuardMs);
}

void tst_AcceptGuard::nothingHappensWithDescriptors()
{
    prepareDevices(50);
    connectDevices();
    QTRY_COMPARE_WITH_TIMEOUT(accepted, 50, HangGuardMs);
    waitForTimers(3);
    QCOMPARE(out, 0);
    QCOMPARE(back, 0);
}

void tst_AcceptGuard::outAndBack_data()
{
    QTest::addColumn<int>("acceptedBefore");
    QTest::newRow("the first connection") << 0; // Qt reports the error, and stops accepting
    QTest::newRow("a later one") << 1; // Qt takes the error for a passing one, and goes on
}

void tst_AcceptGuard::outAndBack()
{
    QFETCH(int, acceptedBefore);
    constexpr int Devices = 5;
    const Activations activations(server.get());
    prepareDevices(acceptedBefore);
    connectDevices();
    QTRY_COMPARE_WITH_TIMEOUT(accepted, acceptedBefore, HangGuardMs);

    // Twice: each episode is reported once.
    for (int episode = 1; episode <= 2; ++episode) {
        prepareDevices(Devices);
        auto noDescriptors = std::make_unique<NoFreeDescriptors>();
        connectDevices();
        QTRY_COMPARE_WITH_TIMEOUT(out, episode, HangGuardMs);
        const int before = activations.count;
        waitForTimers(5);
        QCOMPARE(activations.count, before);
        QCOMPARE(out, episode);
        QCOMPARE(back, episode - 1);

        noDescriptors.reset();
        QTRY_COMPARE_WITH_TIMEOUT(accepted, acceptedBefore + episode * Devices, HangGuardMs);
        QTRY_COMPARE_WITH_TIMEOUT(back, episode, HangGuardMs);
        waitForTimers(3);
        QCOMPARE(out, episode);
        QCOMPARE(back, episode);
    }
    for (int i = 0; i < accepted; ++i)
        QVERIFY(std::unique_ptr<QTcpSocket>(server->nextPendingConnection()));
    // A few for each accepted connection and each attempt, not one for each turn of the loop.
    QVERIFY2(activations.count < 40, QByteArray::number(activations.count));
}

// The episode goes on if one connection is accepted and descriptors run out again.
void tst_AcceptGuard::descriptorsComeBackOneByOne()
{
    constexpr int Devices = 6;
    prepareDevices(1);
    connectDevices();
    QTRY_COMPARE_WITH_TIMEOUT(accepted, 1, HangGuardMs);
    prepareDevices(Devices);
    NoFreeDescriptors noDescriptors;
    connectDevices();
    QTRY_COMPARE_WITH_TIMEOUT(out, 1, HangGuardMs);

    for (int i = 1; i < Devices; ++i) {
        noDescriptors.giveBack(1);
        QTRY_COMPARE_WITH_TIMEOUT(accepted, 1 + i, HangGuardMs);
        QCOMPARE(out, 1);
        QCOMPARE(back, 0);
    }
    noDescriptors.giveBack(2);
    QTRY_COMPARE_WITH_TIMEOUT(accepted, 1 + Devices, HangGuardMs);
    QTRY_COMPARE_WITH_TIMEOUT(back, 1, HangGuardMs);
    QCOMPARE(out, 1);
}

// Qt keeps the first error of a socket and reports it again whenever there is nothing to accept.
void tst_AcceptGuard::afterTheFirstAcceptFailedNothingPauses()
{
    const Activations activations(server.get());
    prepareDevices(1);
    {
        const NoFreeDescriptors noDescriptors;
        connectDevices();
        QTRY_COMPARE_WITH_TIMEOUT(out, 1, HangGuardMs);
    }
    QTRY_COMPARE_WITH_TIMEOUT(back, 1, HangGuardMs);

    for (int i = 2; i <= 10; ++i) {
        prepareDevices(1);
        connectDevices();
        QTRY_COMPARE_WITH_TIMEOUT(accepted, i, HangGuardMs);
        QVERIFY(activations.notifier->isEnabled());
    }
    QCOMPARE(out, 1);
    QCOMPARE(back, 1);
}

void tst_AcceptGuard::nothingIsAcceptedWhileHeld()
{
    server->guard.hold(true);
    prepareDevices(3);
    connectDevices();
    waitForTimers(3);
    QCOMPARE(accepted, 0);

    server->guard.hold(false);
    QTRY_COMPARE_WITH_TIMEOUT(accepted, 3, HangGuardMs);
    waitForTimers(3);
    QCOMPARE(out, 0);
    QCOMPARE(back, 0);
}

// The receiver wants this connection to be the last one. Qt reports the first error again after it.
void tst_AcceptGuard::heldAfterTheFirstAcceptFailed()
{
    prepareDevices(1);
    {
        const NoFreeDescriptors noDescriptors;
        connectDevices();
        QTRY_COMPARE_WITH_TIMEOUT(out, 1, HangGuardMs);
    }
    QTRY_COMPARE_WITH_TIMEOUT(back, 1, HangGuardMs);
    connect(server.get(), &QTcpServer::newConnection, this, [this] { server->guard.hold(true); });
    prepareDevices(1);
    connectDevices();
    QTRY_COMPARE_WITH_TIMEOUT(accepted, 2, HangGuardMs);

    prepareDevices(1);
    connectDevices();
    waitForTimers(3);
    QCOMPARE(accepted, 2);
    server->guard.hold(false);
    QTRY_COMPARE_WITH_TIMEOUT(accepted, 3, HangGuardMs);
}

// While accepting is held, descriptors that come back are not used, and the episode goes on.
void tst_AcceptGuard::heldWhileOut()
{
    prepareDevices(3);
    {
        const NoFreeDescriptors noDescriptors;
        connectDevices();
        QTRY_COMPARE_WITH_TIMEOUT(out, 1, HangGuardMs);
        server->guard.hold(true);
    }
    waitForTimers(3);
    QCOMPARE(accepted, 0);
    QCOMPARE(back, 0);

    server->guard.hold(false);
    QTRY_COMPARE_WITH_TIMEOUT(accepted, 3, HangGuardMs);
    QTRY_COMPARE_WITH_TIMEOUT(back, 1, HangGuardMs);
    QCOMPARE(out, 1);
}

void tst_AcceptGuard::closeWhileOut()
{
    prepareDevices(3);
    {
        const NoFreeDescriptors noDescriptors;
        connectDevices();
        QTRY_COMPARE_WITH_TIMEOUT(out, 1, HangGuardMs);
        server->close();
        waitForTimers(3);
        QCOMPARE(out, 1);
        QCOMPARE(back, 1);
    }
    QVERIFY(server->listen(LocalAddress, 0));
    prepareDevices(1);
    connectDevices();
    QTRY_COMPARE_WITH_TIMEOUT(accepted, 1, HangGuardMs);
    waitForTimers(3);
    QCOMPARE(out, 1);
    QCOMPARE(back, 1);
}

void tst_AcceptGuard::destructionWhileOut()
{
    prepareDevices(3);
    const NoFreeDescriptors noDescriptors;
    connectDevices();
    QTRY_COMPARE_WITH_TIMEOUT(out, 1, HangGuardMs);
    server.reset();
    waitForTimers(3);
    QCOMPARE(out, 1);
    QCOMPARE(back, 0);
}

void tst_AcceptGuard::otherFailures_data()
{
    QTest::addColumn<int>("error");
    QTest::addColumn<int>("acceptedBefore");
    for (const int before : {0, 1}) {
        QTest::addRow("no buffers, %d before", before) << ENOBUFS << before;
        QTest::addRow("no memory, %d before", before) << ENOMEM << before;
        QTest::addRow("forbidden, %d before", before) << EPERM << before;
        QTest::addRow("aborted, %d before", before) << ECONNABORTED << before;
        QTest::addRow("protocol, %d before", before) << EPROTO << before;
    }
}

// One signal at the beginning, one at the end, and no busy waiting between.
void tst_AcceptGuard::otherFailures()
{
    QFETCH(int, error);
    QFETCH(int, acceptedBefore);
    constexpr int Devices = 5;
    QSignalSpy fails(&server->guard, &AcceptGuard::acceptFails);
    prepareDevices(acceptedBefore);
    connectDevices();
    QTRY_COMPARE_WITH_TIMEOUT(accepted, acceptedBefore, HangGuardMs);
    for (int episode = 1; episode <= 2; ++episode) {
        acceptError = error;
        prepareDevices(Devices);
        connectDevices();
        QTRY_COMPARE_WITH_TIMEOUT(fails.size(), episode, HangGuardMs);
        QCOMPARE(fails.last(), QVariantList{qt_error_string(error)});
        failures = 0;
        waitForTimers(4);
        QVERIFY2(failures <= 6, qPrintable(QString::number(failures)));
        QCOMPARE(fails.size(), episode);
        QCOMPARE(back, episode - 1);

        acceptError = 0;
        QTRY_COMPARE_WITH_TIMEOUT(accepted, acceptedBefore + Devices * episode, HangGuardMs);
        QTRY_COMPARE_WITH_TIMEOUT(back, episode, HangGuardMs);
    }
    QCOMPARE(out, 0);
}

// The peer has aborted a connection that waited to be accepted.
void tst_AcceptGuard::failuresThatPass()
{
    const QSignalSpy fails(&server->guard, &AcceptGuard::acceptFails);
    for (int round = 1; round <= 3; ++round) {
        acceptError = ECONNABORTED;
        failuresLeft = 1;
        prepareDevices(1);
        connectDevices();
        QTRY_COMPARE_WITH_TIMEOUT(accepted, round, HangGuardMs);
        QCOMPARE(failuresLeft.load(), 0);
    }
    acceptError = 0;
    failuresLeft = -1;
    waitForTimers(3);
    QCOMPARE(fails.size(), 0);
    QCOMPARE(back, 0);
}

void tst_AcceptGuard::receiversMayDeleteTheServer_data()
{
    QTest::addColumn<QByteArray>("signal");
    for (const char *name : {"descriptorsOut", "acceptFails", "refused", "full"})
        QTest::newRow(name) << QByteArray(name);
}

void tst_AcceptGuard::receiversMayDeleteTheServer()
{
    QFETCH(QByteArray, signal);
    const auto deleteServer = [this] { server.reset(); };
    connect(&server->guard, &AcceptGuard::descriptorsOut, this, deleteServer);
    connect(&server->guard, &AcceptGuard::acceptFails, this, deleteServer);
    connect(&server->limiter, &ConnectionLimiter::refused, this, deleteServer);
    connect(&server->limiter, &ConnectionLimiter::full, this, deleteServer);
    AcceptLimits limits;
    limits.connections = signal == "full" ? 1 : 0;
    limits.connectionsPerAddress = signal == "refused" ? 1 : 0;
    server->setLimits(limits);
    prepareDevices(3);
    std::optional<NoFreeDescriptors> noDescriptors;
    if (signal == "descriptorsOut")
        noDescriptors.emplace();
    acceptError = signal == "acceptFails" ? ENOBUFS : 0;
    connectDevices();
    QTRY_VERIFY_WITH_TIMEOUT(!server, HangGuardMs);
    acceptError = 0;
}

QTEST_GUILESS_MAIN(tst_AcceptGuard)
#include "tst_acceptguard.moc"
