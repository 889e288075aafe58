// SPDX-FileCopyrightText: the tcpinputplugin2 authors
// SPDX-License-Identifier: MIT

#include "tests/kit/hangguard.h"
#include "tests/kit/nofreedescriptors.h"
#include "tests/kit/play.h"
#include "tests/kit/processresources.h"
#include "tests/kit/testaddress.h"
#include "tests/kit/tlsdevice.h"
#include "tests/tcpinput/accept/tlsfaultstest.h"

#include <QtCore/QRegularExpression>
#include <QtCore/QSemaphore>
#include <QtTest/QtTest>

#include <atomic>
#include <vector>

using namespace tlsfaultstest;

// Ends of the server during a handshake, and ends of the peer right behind its handshake.
class tst_TlsEndings : public TlsFaultsTest
{
    Q_OBJECT

private Q_SLOTS:
    void initTestCase_data() { addEngines(); }
    void init() { begin(); }
    void cleanup() { end(); }

    void openHandshakesEndWithTheServer_data();
    void openHandshakesEndWithTheServer();
    void waitingConnectionsEndWithTheServer_data();
    void waitingConnectionsEndWithTheServer();
    void stopsFromInsideAHandshake();
    void peerGoneBeforeTheHandOver_data();
    void peerGoneBeforeTheHandOver();
    void closeNotifyEndsTheConnection_data();
    void closeNotifyEndsTheConnection();
    void bytesBehindManyKeyChanges_data();
    void bytesBehindManyKeyChanges();
    void acceptsAgainWithNewDescriptors();
};

void tst_TlsEndings::openHandshakesEndWithTheServer_data()
{
    QTest::addColumn<QByteArray>("said"); // empty: nothing; "...": the whole first flight
    QTest::addColumn<bool>("destroys");
    for (const bool destroys : {false, true}) {
        const char *const how = destroys ? "destroyed" : "stopped";
        QTest::addRow("silent, %s", how) << QByteArray() << destroys;
        QTest::addRow("half a hello, %s", how) << HalfHello << destroys;
        QTest::addRow("answered, %s", how) << QByteArray("...") << destroys;
    }
}

void tst_TlsEndings::openHandshakesEndWithTheServer()
{
    QFETCH(QByteArray, said);
    QFETCH(bool, destroys);
    constexpr int Peers = 20;
    start();
    const qsizetype before = openSockets();
    std::vector<TlsDevice> devices;
    for (int n = 0; n < Peers; ++n)
        devices.emplace_back(n % 2 == 0 ? TLS1_2_VERSION : TLS1_3_VERSION);
    QVERIFY(play([&] {
        for (TlsDevice &device : devices) {
            device.connect(testAddress(), port);
            if (said == "...")
                device.handshakeUntilAnswer();
            else if (!said.isEmpty())
                device.socket.send(said);
        }
    }));
    QTRY_COMPARE_WITH_TIMEOUT(handshakes(), Peers, LoadHangGuardMs);
    if (destroys) {
        plugin.reset();
    } else {
        plugin->stop();
        QTRY_COMPARE_WITH_TIMEOUT(handshakes(), 0, HangGuardMs);
        QCOMPARE(server().findChildren<QSslSocket *>().size(), 0);
    }
    for (const TlsDevice &device : devices)
        QVERIFY(device.waitForEnd());
    devices.clear();
    QTRY_COMPARE_WITH_TIMEOUT(openSockets(), before - 1, HangGuardMs);
    QCOMPARE(socketErrors(), 0);
    if (destroys)
        return;
    QVERIFY(plugin->start());
    QVERIFY(serve(TLS1_3_VERSION, "good"));
}

void tst_TlsEndings::waitingConnectionsEndWithTheServer_data()
{
    QTest::addColumn<bool>("destroys");
    QTest::newRow("stopped") << false;
    QTest::newRow("destroyed") << true;
}

// The handshake of these connections is done, but nobody has taken them.
void tst_TlsEndings::waitingConnectionsEndWithTheServer()
{
    QFETCH(bool, destroys);
    start();
    disconnect(&server(), &QTcpServer::pendingConnectionAvailable, plugin.get(), nullptr);
    const qsizetype before = openSockets();
    TlsDevice device(TLS1_3_VERSION);
    QVERIFY(play([&] {
        if (device.connect(testAddress(), port) && device.handshake())
            device.flush();
    }));
    QTRY_VERIFY_WITH_TIMEOUT(server().hasPendingConnections(), LoadHangGuardMs);
    QCOMPARE(openSockets(), before + 2);
    if (destroys) {
        plugin.reset();
    } else {
        plugin->stop();
        QVERIFY(!server().hasPendingConnections());
    }
    // Less the listening socket, plus the device's.
    QTRY_COMPARE_WITH_TIMEOUT(openSockets(), before, HangGuardMs);
    QVERIFY(device.waitForEnd());
}

void tst_TlsEndings::stopsFromInsideAHandshake()
{
    QFETCH_GLOBAL(QString, engine);
    start();
    connect(&server(), &QSslServer::startedEncryptionHandshake, plugin.get(),
            [this] { plugin->stop(); });
    bool ended = false;
    QVERIFY(play([&] {
        TlsDevice device(TLS1_3_VERSION);
        // Our own engine tells of the beginning when the handshake is over.
        ended = device.connect(testAddress(), port)
                && (!device.handshake() || (engine == QLatin1String("own") && device.flush()))
                && device.waitForEnd();
    }));
    QVERIFY(ended);
    QTRY_COMPARE_WITH_TIMEOUT(handshakes(), 0, HangGuardMs);
    QCOMPARE(socketErrors(), 0);
}

void tst_TlsEndings::peerGoneBeforeTheHandOver_data()
{
    QTest::addColumn<int>("version");
    QTest::newRow("1.2") << TLS1_2_VERSION;
    QTest::newRow("1.3") << TLS1_3_VERSION;
}

// When the plugin's thread looks, the end of the handshake, the bytes and the end of the connection
// are all there.
void tst_TlsEndings::peerGoneBeforeTheHandOver()
{
    QFETCH(int, version);
    start();
    QSemaphore go;
    QSemaphore gone;
    std::atomic<bool> waiting{false};
    QByteArray bytes;
    quint16 devicePort = 0;
    const std::unique_ptr<QThread> thread(QThread::create([&] {
        TlsDevice device(version);
        if (device.connect(testAddress(), port) && device.handshakeUntilAnswer()) {
            devicePort = device.socket.localPort();
            waiting = true;
            go.acquire();
            if (device.isEncrypted()) {
                device.write("last words");
                device.writeCloseNotify();
                bytes = "last words";
            }
            device.flush();
            device.socket.finish();
            gone.release();
            device.waitForEnd();
        }
    }));
    thread->start();
    QTRY_VERIFY_WITH_TIMEOUT(waiting, LoadHangGuardMs);
    go.release();
    gone.acquire();
    QTRY_COMPARE_WITH_TIMEOUT(logged(text("closing connection")), 1, LoadHangGuardMs);
    QVERIFY(thread->wait(LoadHangGuardMs));

    const QRegularExpression end(
            text("TcpTask2: new connection tcp2:[0-9.:]+-127[0-9.]+:%1$").arg(devicePort));
    QCOMPARE(log.filter(end).size(), 1);
    if (version == TLS1_3_VERSION) {
        QCOMPARE(bytes, QByteArray("last words"));
        QVERIFY(waitForRecord(bytes));
        QVERIFY(!peers.first().isEmpty());
    }
    QCOMPARE(socketErrors(), 0);
}

void tst_TlsEndings::closeNotifyEndsTheConnection_data()
{
    QTest::addColumn<int>("version");
    QTest::addColumn<bool>("atOnce");
    QTest::addColumn<QByteArray>("bytes");
    QTest::newRow("1.2, at once") << TLS1_2_VERSION << true << QByteArray("bye");
    QTest::newRow("1.3, at once") << TLS1_3_VERSION << true << QByteArray("bye");
    QTest::newRow("1.2, later") << TLS1_2_VERSION << false << QByteArray("bye");
    QTest::newRow("1.3, later") << TLS1_3_VERSION << false << QByteArray("bye");
    QTest::newRow("1.2, nothing else") << TLS1_2_VERSION << true << QByteArray();
    QTest::newRow("1.3, nothing else") << TLS1_3_VERSION << true << QByteArray();
}

// The device keeps TCP open. It would not wait as long as the idle time-out.
void tst_TlsEndings::bytesBehindManyKeyChanges_data()
{
    QTest::addColumn<int>("changes");
    QTest::addColumn<bool>("withinTheHandshake"); // sent together with its last flight
    for (const int changes : {1, 40, 200, 4000}) {
        QTest::addRow("%d, later", changes) << changes << false;
        QTest::addRow("%d, at once", changes) << changes << true;
    }
}

// A device may change its keys, but not do only that: others have the thread in between. Nothing is
// lost, not even if the end is there already.
void tst_TlsEndings::bytesBehindManyKeyChanges()
{
    constexpr int MostInARow = 900;
    QFETCH(int, changes);
    QFETCH(bool, withinTheHandshake);
    start();
    int sent = 0;
    bool ended = false;
    QVERIFY(play([&] {
        TlsDevice device(TLS1_3_VERSION);
        if (!device.connect(testAddress(), port) || !device.handshake())
            return;
        if (!withinTheHandshake)
            device.flush();
        for (int i = 0; i < changes; ++i) {
            SSL_key_update(device.native(), SSL_KEY_UPDATE_NOT_REQUESTED);
            SSL_do_handshake(device.native());
            if (i % MostInARow == 0) {
                device.write("x");
                ++sent;
            }
        }
        device.write(QByteArray(1000, 'y'));
        sent += 1000;
        device.writeCloseNotify();
        device.flush();
        device.socket.finish();
        ended = device.waitForEnd();
    }));
    QVERIFY(ended);
    QTRY_COMPARE_WITH_TIMEOUT(logged(text("(received %1 bytes,").arg(sent)), 1, LoadHangGuardMs);
}

void tst_TlsEndings::closeNotifyEndsTheConnection()
{
    QFETCH(int, version);
    QFETCH(bool, atOnce);
    QFETCH(QByteArray, bytes);
    start();
    bool ended = false;
    QSemaphore offered;
    connect(plugin.get(), &IInputPlugin::receivedData, this, [&] { offered.release(); });
    QVERIFY(play([&] {
        TlsDevice device(version);
        if (!device.connect(testAddress(), port) || !device.handshake())
            return;
        device.write(bytes);
        if (!atOnce) {
            device.flush();
            offered.tryAcquire(1, LoadHangGuardMs);
        }
        device.writeCloseNotify();
        device.flush();
        ended = device.waitForEnd();
    }));
    QVERIFY(ended);
    QTRY_COMPARE_WITH_TIMEOUT(logged(text("(received %1 bytes,").arg(bytes.size())), 1,
                              LoadHangGuardMs);
    if (!bytes.isEmpty())
        QVERIFY(waitForRecord(bytes));
    QCOMPARE(socketErrors(), 0);
}

void tst_TlsEndings::acceptsAgainWithNewDescriptors()
{
    start();
    QVERIFY(serve(TLS1_3_VERSION, "before")); // the worker has its descriptors
    NativeSocket late = NativeSocket::unconnected(testAddress());
    {
        const NoFreeDescriptors none;
        QVERIFY(late.connect(testAddress(), port));
        QTRY_COMPARE_WITH_TIMEOUT(logged(text("Out of file descriptors, accepting paused")), 1,
                                  LoadHangGuardMs);
        QCOMPARE(handshakes(), 0);
    }
    QTRY_COMPARE_WITH_TIMEOUT(handshakes(), 1, LoadHangGuardMs);
    QVERIFY(serve(TLS1_3_VERSION, "after"));
    QTRY_COMPARE_WITH_TIMEOUT(logged(text("Accepting resumed")), 1, LoadHangGuardMs);
    QCOMPARE(socketErrors(), 0);
}

QTEST_GUILESS_MAIN(tst_TlsEndings)
#include "tst_tlsendings.moc"
