// SPDX-FileCopyrightText: the tcpinputplugin2 authors
// SPDX-License-Identifier: MIT

#include "tcpinput/accept/tlshandshake.h"
#include "tcpinput/tcpinputplugin2.h"
#include "tests/kit/hangguard.h"
#include "tests/kit/load.h"
#include "tests/kit/loglines.h"
#include "tests/kit/nofreedescriptors.h"
#include "tests/kit/play.h"
#include "tests/kit/processresources.h"
#include "tests/kit/testaddress.h"
#include "tests/kit/tlsdevice.h"

#include <QtCore/QJsonObject>
#include <QtCore/QRegularExpression>
#include <QtCore/QSemaphore>
#include <QtTest/QtTest>

#include <algorithm>
#include <atomic>
#include <vector>

namespace {

constexpr int NeverMs = 24 * 60 * 60 * 1000;

QString text(const char *latin1)
{
    return QString::fromLatin1(latin1);
}

const QByteArray BrokenHello("\x16\x03\x01\x00\x05hello", 10);
const QByteArray HalfHello("\x16\x03\x01\x02\x00\x01", 6);
const QByteArray CorruptRecord = QByteArray("\x17\x03\x03\x00\x20", 5) + QByteArray(32, 'x');

} // namespace

/*!
    What peers that fail at TLS do to the plugin, and must not do.
*/
class tst_TlsFaults : public QObject
{
    Q_OBJECT

private Q_SLOTS:
    void init();
    void cleanup();

    void failedHandshakesLeaveNothing_data();
    void failedHandshakesLeaveNothing();
    void openHandshakesEndWithTheServer_data();
    void openHandshakesEndWithTheServer();
    void waitingConnectionsEndWithTheServer_data();
    void waitingConnectionsEndWithTheServer();
    void stopsFromInsideAHandshake();
    void silentPeersDelayNobody();
    void silentPeersAreDropped();
    void answersThatWaitAreInTime();
    void errorsStayWithTheirConnection();
    void peerGoneBeforeTheHandOver_data();
    void peerGoneBeforeTheHandOver();
    void closeNotifyEndsTheConnection_data();
    void closeNotifyEndsTheConnection();
    void acceptsAgainWithNewDescriptors();

private:
    enum class Failure {
        Closed,
        Reset,
        Garbage,
        Broken,
        Version,
        NoCertificate,
        ForeignCertificate
    };

    void start(const QJsonObject &tls = serverTls());
    SslServer &server() const { return *plugin->findChild<SslServer *>(); }
    qsizetype handshakes() const { return server().findChildren<TlsHandshake *>().size(); }
    bool fail(Failure failure) const;
    bool serve(int version, const QByteArray &bytes, const QString &certificate = QString());
    void keepLog() { log += takeLog(); }
    qsizetype logged(const QString &line)
    {
        keepLog();
        return log.filter(line).size();
    }
    qsizetype socketErrors() { return logged(text("W: TcpInputPlugin2(t): SSL Socket error: ")); }
    bool waitForRecord(const QByteArray &bytes)
    {
        return QTest::qWaitFor([&] { return records.contains(bytes); }, LoadHangGuardMs);
    }

    quint16 port = 0;
    std::unique_ptr<TcpInputPlugin2> plugin;
    double servedMs = 0; // what the last good device took
    bool discards = true;
    QList<QByteArray> records;
    QStringList peers; // of the records
    std::unique_ptr<MessageCapture> capture;
    QStringList log;
};

void tst_TlsFaults::init()
{
    port = freePort();
    capture = std::make_unique<MessageCapture>();
}

void tst_TlsFaults::cleanup()
{
    plugin.reset();
    capture.reset();
    discards = true;
    records.clear();
    peers.clear();
    log.clear();
}

void tst_TlsFaults::start(const QJsonObject &tls)
{
    plugin = std::make_unique<TcpInputPlugin2>(
            nullptr,
            QJsonObject{{text("ipAddr"), testAddress().toString()},
                        {text("port"), port},
                        {text("ssl"), tls},
                        {text("threadpoolSize"), 1},
                        {text("timeout"), 600}});
    plugin->pluginId = text("t");
    connect(plugin.get(), &IInputPlugin::receivedData, this,
            [this, host = plugin.get()](const shared_parsedData &record) {
                records.append(record->getOriginalMessage());
                peers.append(record->getPeerAddress());
                if (discards)
                    host->discard(static_cast<int>(record->getOriginalMessage().size()),
                                  record->getPluginSubId());
            });
    QVERIFY(plugin->start());
    QVERIFY(server().isListening());
}

// In any thread. False if the server does not end what it should.
bool tst_TlsFaults::fail(Failure failure) const
{
    TlsDevice device(failure == Failure::ForeignCertificate ? TLS1_3_VERSION : TLS1_2_VERSION,
                     failure == Failure::ForeignCertificate ? text("client-foreign") : QString());
    if (!device.connect(testAddress(), port))
        return false;
    switch (failure) {
    case Failure::Closed:
        return true;
    case Failure::Reset:
        device.socket.reset();
        return true;
    case Failure::Garbage:
        return device.socket.send("GET / HTTP/1.0\r\n\r\n") && device.waitForEnd();
    case Failure::Broken:
        return device.socket.send(BrokenHello) && device.waitForEnd();
    case Failure::Version:
    case Failure::NoCertificate:
    case Failure::ForeignCertificate:
        break;
    }
    if (device.handshake()) // with a certificate, the server still has to look at it
        device.flush();
    return device.waitForEnd();
}

// A good device from beginning to end.
bool tst_TlsFaults::serve(int version, const QByteArray &bytes, const QString &certificate)
{
    bool ended = false;
    return play([&] {
               QElapsedTimer clock;
               clock.start();
               TlsDevice device(version, certificate);
               if (!device.connect(testAddress(), port) || !device.handshake())
                   return;
               device.write(bytes);
               device.writeCloseNotify();
               device.flush();
               device.socket.finish();
               ended = device.waitForEnd();
               servedMs = static_cast<double>(clock.nsecsElapsed()) / 1e6;
           })
            && ended && waitForRecord(bytes);
}

void tst_TlsFaults::failedHandshakesLeaveNothing_data()
{
    QTest::addColumn<Failure>("failure");
    QTest::addColumn<int>("count");
    QTest::addColumn<bool>("logs");
    const struct
    {
        const char *name;
        Failure failure;
        bool logs;
    } rows[] = {{"closed", Failure::Closed, true},
                {"reset", Failure::Reset, true},
                {"garbage", Failure::Garbage, false},
                {"broken hello", Failure::Broken, true},
                {"wrong version", Failure::Version, true},
                {"no certificate", Failure::NoCertificate, true},
                {"foreign certificate", Failure::ForeignCertificate, true}};
    for (const auto &row : rows) {
        for (const int count : {30, load(3000, 300)})
            QTest::addRow("%d %s", count, row.name) << row.failure << count << row.logs;
    }
}

void tst_TlsFaults::failedHandshakesLeaveNothing()
{
    QFETCH(Failure, failure);
    QFETCH(int, count);
    QFETCH(bool, logs);
    QJsonObject tls = serverTls();
    const bool verifies =
            failure == Failure::NoCertificate || failure == Failure::ForeignCertificate;
    tls.insert(text("CAFile"), certificateFile(text("ca.pem")));
    tls.insert(text("verifyPeer"), verifies);
    if (failure == Failure::Version)
        tls.insert(text("tlsVersion"), text("1.3"));
    start(tls);
    const qsizetype before = openSockets();

    int failed = 0;
    QVERIFY(play([&] {
        for (int n = 0; n < count; ++n)
            failed += fail(failure) ? 1 : 0;
    }));
    QCOMPARE(failed, count);
    if (logs)
        QTRY_COMPARE_WITH_TIMEOUT(socketErrors(), count, LoadHangGuardMs);
    QVERIFY(serve(TLS1_3_VERSION, "good", text("client")));
    QTRY_COMPARE(handshakes(), 0);
    QTRY_COMPARE(openSockets(), before);
    QCOMPARE(socketErrors(), logs ? count : 0);
    QCOMPARE(logged(text("new connection")), 2); // the plugin says so, and the task
    QCOMPARE(server().findChildren<QSslSocket *>().size(), 0);
}

void tst_TlsFaults::openHandshakesEndWithTheServer_data()
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

void tst_TlsFaults::openHandshakesEndWithTheServer()
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
        QTRY_COMPARE(handshakes(), 0);
        QCOMPARE(server().findChildren<QSslSocket *>().size(), 0);
    }
    for (const TlsDevice &device : devices)
        QVERIFY(device.waitForEnd());
    devices.clear();
    QTRY_COMPARE(openSockets(), before - 1);
    QCOMPARE(socketErrors(), 0);
    if (destroys)
        return;
    QVERIFY(plugin->start());
    QVERIFY(serve(TLS1_3_VERSION, "good"));
}

void tst_TlsFaults::waitingConnectionsEndWithTheServer_data()
{
    QTest::addColumn<bool>("destroys");
    QTest::newRow("stopped") << false;
    QTest::newRow("destroyed") << true;
}

// Their handshake is done, and nobody has taken them.
void tst_TlsFaults::waitingConnectionsEndWithTheServer()
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
    QTRY_COMPARE(openSockets(), before); // without the listening one's, and with the device's
    QVERIFY(device.waitForEnd());
}

void tst_TlsFaults::stopsFromInsideAHandshake()
{
    start();
    connect(&server(), &QSslServer::startedEncryptionHandshake, plugin.get(),
            [this] { plugin->stop(); });
    bool ended = false;
    QVERIFY(play([&] {
        TlsDevice device(TLS1_3_VERSION);
        ended = device.connect(testAddress(), port) && !device.handshake() && device.waitForEnd();
    }));
    QVERIFY(ended);
    QTRY_COMPARE(handshakes(), 0);
    QCOMPARE(socketErrors(), 0);
}

void tst_TlsFaults::silentPeersDelayNobody()
{
    constexpr int Silent = 1000;
    constexpr int Served = 15;
    rlimit limit{};
    ::getrlimit(RLIMIT_NOFILE, &limit);
    limit.rlim_cur = limit.rlim_max;
    ::setrlimit(RLIMIT_NOFILE, &limit);
    if (limit.rlim_max < 4 * Silent)
        QSKIP("too few file descriptors");
    start();
    server().setHandshakeTimeout(NeverMs);
    const auto medianMs = [this] {
        std::vector<double> times;
        for (int n = 0; n < Served; ++n) {
            if (!serve(TLS1_3_VERSION, QByteArray::number(records.size())))
                return 0.0;
            times.push_back(servedMs);
        }
        std::sort(times.begin(), times.end());
        return times[Served / 2];
    };
    const double alone = medianMs();
    QVERIFY(alone > 0);
    std::vector<NativeSocket> silent;
    QVERIFY(play([&] {
        for (int n = 0; n < Silent; ++n)
            silent.push_back(NativeSocket::connectedTo(testAddress(), port));
    }));
    QTRY_COMPARE_WITH_TIMEOUT(handshakes(), Silent, LoadHangGuardMs);
    const double among = medianMs();
    QVERIFY(among > 0);
    QTRY_COMPARE(handshakes(), Silent); // nobody waited for one of them to end
    plugin.reset();
    capture.reset();
    qInfo("a good device took %.1f ms alone, %.1f ms among %d silent ones", alone, among, Silent);
}

void tst_TlsFaults::silentPeersAreDropped()
{
    constexpr int Peers = 20;
    constexpr int TimeoutMs = 200;
    start();
    server().setHandshakeTimeout(TimeoutMs);
    const qsizetype before = openSockets();
    QElapsedTimer clock;
    clock.start();
    int ended = 0;
    QVERIFY(play([&] {
        std::vector<TlsDevice> devices;
        for (int n = 0; n < Peers; ++n) {
            devices.emplace_back(TLS1_2_VERSION);
            if (devices.back().connect(testAddress(), port) && n % 2 == 0)
                devices.back().socket.send(HalfHello);
        }
        for (const TlsDevice &device : devices)
            ended += device.waitForEnd() ? 1 : 0;
    }));
    QCOMPARE(ended, Peers);
    QVERIFY(clock.elapsed() >= TimeoutMs * 95 / 100);
    QTRY_COMPARE(handshakes(), 0);
    QTRY_COMPARE(openSockets(), before);
    QCOMPARE(socketErrors(), Peers);
    QCOMPARE(logged(text("SSL Socket error: The handshake took too long")), Peers);
}

// Devices do not suffer for a host that holds its thread up for longer than handshakes may take.
void tst_TlsFaults::answersThatWaitAreInTime()
{
    constexpr int TimeoutMs = 1000; // more than it takes to answer all, on a busy machine too
    start();
    server().setHandshakeTimeout(TimeoutMs);
    std::vector<TlsDevice> devices;
    for (int n = 0; n < 20; ++n)
        devices.emplace_back(TLS1_3_VERSION);
    bool answered = true;
    QVERIFY(play([&] {
        for (TlsDevice &device : devices)
            answered = answered && device.connect(testAddress(), port)
                    && device.handshakeUntilAnswer();
    }));
    QVERIFY(answered);
    for (int n = 0; n < 20; ++n) {
        TlsDevice &device = devices[static_cast<size_t>(n)];
        device.write("held up " + QByteArray::number(n));
        QVERIFY(device.flush());
    }
    QThread::msleep(2 * TimeoutMs); // the host
    for (int n = 0; n < 20; ++n)
        QVERIFY(waitForRecord("held up " + QByteArray::number(n)));
    QCOMPARE(socketErrors(), 0);
}

void tst_TlsFaults::errorsStayWithTheirConnection()
{
    constexpr int Rounds = 10;
    discards = false; // so the last offer of a connection is all that it sent
    start();
    std::vector<TlsDevice> neighbours;
    neighbours.emplace_back(TLS1_2_VERSION);
    neighbours.emplace_back(TLS1_3_VERSION);
    QStringList ends;
    QVERIFY(play([&] {
        for (TlsDevice &device : neighbours) {
            if (device.connect(testAddress(), port) && device.handshake() && device.flush())
                ends.append(text(":%1").arg(device.socket.localPort()));
        }
    }));
    QCOMPARE(ends.size(), 2);
    for (int round = 0; round < Rounds; ++round) {
        bool refused = false;
        QVERIFY(play([&] {
            TlsDevice corrupt(round % 2 == 0 ? TLS1_2_VERSION : TLS1_3_VERSION);
            refused = fail(Failure::Garbage) && fail(Failure::Broken)
                    && corrupt.connect(testAddress(), port) && corrupt.handshake()
                    && corrupt.flush() && corrupt.socket.send(CorruptRecord)
                    && corrupt.waitForEnd();
        }));
        QVERIFY(refused);
        for (TlsDevice &device : neighbours) {
            device.write(QByteArray::number(device.socket.localPort()) + '\n');
            QVERIFY(device.flush());
        }
    }
    keepLog();
    for (const QString &end : std::as_const(ends))
        QCOMPARE(log.filter(text("closing")).filter(end), QStringList());
    for (TlsDevice &device : neighbours) {
        device.writeCloseNotify();
        QVERIFY(device.flush());
        QVERIFY(waitForRecord(
                (QByteArray::number(device.socket.localPort()) + '\n').repeated(Rounds)));
    }
    QCOMPARE(socketErrors(), Rounds); // of the broken hellos
    QCOMPARE(log.filter(QRegularExpression(text("^[WCFwcf]: "))).size(), Rounds);
}

void tst_TlsFaults::peerGoneBeforeTheHandOver_data()
{
    QTest::addColumn<int>("version");
    QTest::newRow("1.2") << TLS1_2_VERSION;
    QTest::newRow("1.3") << TLS1_3_VERSION;
}

// The end of the handshake, the bytes and the end of the connection are all there when the plugin's
// thread looks.
void tst_TlsFaults::peerGoneBeforeTheHandOver()
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

void tst_TlsFaults::closeNotifyEndsTheConnection_data()
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

// The device keeps TCP open. The idle time-out is beyond the device's patience.
void tst_TlsFaults::closeNotifyEndsTheConnection()
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

void tst_TlsFaults::acceptsAgainWithNewDescriptors()
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

QTEST_GUILESS_MAIN(tst_TlsFaults)
#include "tst_tlsfaults.moc"
