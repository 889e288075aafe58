// SPDX-FileCopyrightText: the tcpinputplugin2 authors
// SPDX-License-Identifier: MIT

#include "tests/kit/hangguard.h"
#include "tests/kit/load.h"
#include "tests/kit/play.h"
#include "tests/kit/processresources.h"
#include "tests/kit/testaddress.h"
#include "tests/kit/tlsdevice.h"
#include "tests/tcpinput/accept/tlsfaultstest.h"

#include <QtCore/QJsonObject>
#include <QtCore/QRegularExpression>
#include <QtCore/QSemaphore>
#include <QtTest/QtTest>

#include <algorithm>
#include <vector>

using namespace tlsfaultstest;

namespace {

constexpr int NeverMs = 24 * 60 * 60 * 1000;

const QByteArray BrokenHello("\x16\x03\x01\x00\x05hello", 10);
const QByteArray CorruptRecord = QByteArray("\x17\x03\x03\x00\x20", 5) + QByteArray(32, 'x');

} // namespace

// Handshakes that fail, or that never end, leave nothing behind and delay nobody.
class tst_TlsFaults : public TlsFaultsTest
{
    Q_OBJECT

private Q_SLOTS:
    void initTestCase_data() { addEngines(); }
    void init() { begin(); }
    void cleanup() { end(); }

    void failedHandshakesLeaveNothing_data();
    void failedHandshakesLeaveNothing();
    void linesNameThePeer_data();
    void linesNameThePeer();
    void peersWithoutTls_data();
    void peersWithoutTls();
    void silentPeersDelayNobody();
    void silentPeersAreDropped();
    void answersThatWaitAreInTime();
    void answersAreSentAtOnce();
    void errorsStayWithTheirConnection();

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

    static QJsonObject serverFor(Failure failure);
    bool fail(Failure failure, quint16 *ownPort = nullptr) const;
};

QJsonObject tst_TlsFaults::serverFor(Failure failure)
{
    QJsonObject tls = serverTls();
    const bool verifies =
            failure == Failure::NoCertificate || failure == Failure::ForeignCertificate;
    tls.insert(text("CAFile"), certificateFile(text("ca.pem")));
    tls.insert(text("verifyPeer"), verifies);
    if (failure == Failure::Version)
        tls.insert(text("tlsVersion"), text("1.3"));
    return tls;
}

// Plays a peer that fails; in any thread. False if the server should end the connection and does
// not.
bool tst_TlsFaults::fail(Failure failure, quint16 *ownPort) const
{
    TlsDevice device(failure == Failure::ForeignCertificate ? TLS1_3_VERSION : TLS1_2_VERSION,
                     failure == Failure::ForeignCertificate ? text("client-foreign") : QString());
    if (!device.connect(testAddress(), port))
        return false;
    if (ownPort)
        *ownPort = device.socket.localPort();
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
    start(serverFor(failure));
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
    QTRY_COMPARE_WITH_TIMEOUT(handshakes(), 0, HangGuardMs);
    QTRY_COMPARE_WITH_TIMEOUT(openSockets(), before, HangGuardMs);
    QCOMPARE(socketErrors(), logs ? count : 0);
    QCOMPARE(logged(text("new connection")), 2); // one line of the plugin, one of the task
    QCOMPARE(server().findChildren<QSslSocket *>().size(), 0);
}

void tst_TlsFaults::linesNameThePeer_data()
{
    QTest::addColumn<Failure>("failure");
    QTest::newRow("closed") << Failure::Closed;
    QTest::newRow("reset") << Failure::Reset;
    QTest::newRow("broken hello") << Failure::Broken;
    QTest::newRow("wrong version") << Failure::Version;
    QTest::newRow("no certificate") << Failure::NoCertificate;
    QTest::newRow("foreign certificate") << Failure::ForeignCertificate;
}

// With "logPeers". Whether the peer has gone before the server looks at it must not matter.
void tst_TlsFaults::linesNameThePeer()
{
    QFETCH(Failure, failure);
    start(serverFor(failure), {{text("logPeers"), true}});
    const auto line = [](quint16 ownPort) {
        return QRegularExpression(
                text("^W: TcpInputPlugin2\\(t\\): SSL Socket error: [^,]+.*, from 127[.0-9]+:%1$")
                        .arg(ownPort));
    };
    quint16 ofLooking = 0;
    QVERIFY(play([&] { fail(failure, &ofLooking); }));
    QTRY_COMPARE_WITH_TIMEOUT(socketErrors(), 1, HangGuardMs);
    QVERIFY2(log.filter(line(ofLooking)).size() == 1, qPrintable(log.join(u'\n')));
    if (failure != Failure::Closed && failure != Failure::Reset)
        return;
    quint16 ofLate = 0;
    QVERIFY(fail(failure, &ofLate)); // in this thread: it is over when the server looks
    QTRY_COMPARE_WITH_TIMEOUT(socketErrors(), 2, HangGuardMs);
    QVERIFY2(log.filter(line(ofLate)).size() == 1, qPrintable(log.join(u'\n')));
}

void tst_TlsFaults::peersWithoutTls_data()
{
    QTest::addColumn<bool>("named");
    QTest::newRow("by default") << false;
    QTest::newRow("logPeers") << true;
}

// One line at once, and one for all that follow.
void tst_TlsFaults::peersWithoutTls()
{
    QFETCH(bool, named);
    constexpr int Peers = 5;
    start(serverTls(), {{text("logPeers"), named}});
    quint16 first = 0;
    quint16 last = 0;
    QVERIFY(play([&] { fail(Failure::Garbage, &first); }));
    QTRY_COMPARE_WITH_TIMEOUT(server().withoutTls.total(), 1, HangGuardMs);
    for (int n = 1; n < Peers; ++n)
        QVERIFY(play([&] { fail(Failure::Garbage, &last); }));
    QTRY_COMPARE_WITH_TIMEOUT(server().withoutTls.total(), Peers, HangGuardMs);
    plugin->stop();
    const QString line =
            text("^W: TcpInputPlugin2\\(t\\): Not TLS: %1 closed, the latest from 127[.0-9]+:%2$");
    keepLog();
    const auto shown = [&](int count, quint16 peer) {
        return log.filter(QRegularExpression(line.arg(count).arg(peer))).size();
    };
    QCOMPARE(shown(1, first), named ? 1 : 0);
    QCOMPARE(shown(Peers - 1, last), named ? 1 : 0);
    QCOMPARE(log.filter(text("Not TLS")).size(), named ? 2 : 0);
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
    QTRY_COMPARE_WITH_TIMEOUT(handshakes(), Silent, HangGuardMs); // none of them had to end first
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
    QTRY_COMPARE_WITH_TIMEOUT(handshakes(), 0, HangGuardMs);
    QTRY_COMPARE_WITH_TIMEOUT(openSockets(), before, HangGuardMs);
    QCOMPARE(socketErrors(), Peers);
    QCOMPARE(logged(text("SSL Socket error: The handshake took too long")), Peers);
}

// A host holds its thread up for longer than a handshake may take. Devices must not suffer for
// that.
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
    QThread::msleep(2 * TimeoutMs); // the host is busy
    for (int n = 0; n < 20; ++n)
        QVERIFY(waitForRecord("held up " + QByteArray::number(n)));
    QCOMPARE(socketErrors(), 0);
}

// The host holds its thread up right after the server has made its answer. The device need not wait
// for it, so its next bytes are there when the time-out looks for them.
void tst_TlsFaults::answersAreSentAtOnce()
{
    start();
    TlsDevice device(TLS1_3_VERSION);
    QSemaphore answered;
    bool meanwhile = false;
    connect(
            &server(), &QSslServer::startedEncryptionHandshake, this,
            [&] { meanwhile = answered.tryAcquire(1, HangGuardMs); }, Qt::QueuedConnection);
    QVERIFY(play([&] {
        if (device.connect(testAddress(), port) && device.handshakeUntilAnswer())
            answered.release();
        device.write("answered");
        device.flush();
    }));
    QVERIFY(waitForRecord("answered"));
    QVERIFY(meanwhile);
}

void tst_TlsFaults::errorsStayWithTheirConnection()
{
    constexpr int Rounds = 10;
    // Then the last offer of a connection is all that the connection sent.
    discards = false;
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

QTEST_GUILESS_MAIN(tst_TlsFaults)
#include "tst_tlsfaults.moc"
