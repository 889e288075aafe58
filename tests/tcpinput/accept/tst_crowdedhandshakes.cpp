// SPDX-FileCopyrightText: the tcpinputplugin2 authors
// SPDX-License-Identifier: MIT

#include "tests/kit/hangguard.h"
#include "tests/kit/play.h"
#include "tests/kit/processresources.h"
#include "tests/kit/testaddress.h"
#include "tests/kit/tlsdevice.h"
#include "tests/tcpinput/accept/tlsfaultstest.h"

#include <QtTest/QSignalSpy>
#include <QtTest/QtTest>

#include <algorithm>
#include <functional>
#include <utility>
#include <vector>

using namespace tlsfaultstest;

namespace {

constexpr int Most = 4; // open handshakes
constexpr int Many = 200; // more than are accepted in one go
constexpr int NeverMs = 24 * 60 * 60 * 1000;

const QString Crowded = text("W: TcpInputPlugin2(t): Too many open TLS handshakes: ");

// A second address that only this process uses.
QHostAddress otherAddress()
{
    return QHostAddress(testAddress().toIPv4Address() + (64U << 16U));
}

// The largest number that one call of a timer has added to what count tells.
class LargestStep : public QObject
{
public:
    explicit LargestStep(std::function<quint64()> counted) : count(std::move(counted))
    {
        QCoreApplication::instance()->installEventFilter(this);
    }
    bool eventFilter(QObject *, QEvent *event) override
    {
        if (event->type() == QEvent::Timer) {
            const quint64 before = std::exchange(latest, count());
            largest = std::max(largest, latest - before);
        }
        return false;
    }

    quint64 largest = 0;

private:
    const std::function<quint64()> count;
    quint64 latest = 0;
};

bool isOpen(const NativeSocket &peer)
{
    char byte = 0;
    return ::recv(peer.descriptor(), &byte, 1, MSG_DONTWAIT | MSG_PEEK) < 0 && errno == EAGAIN;
}

} // namespace

// More handshakes are open than may be: one of them has to go, and good devices are served.
class tst_CrowdedHandshakes : public TlsFaultsTest
{
    Q_OBJECT

private Q_SLOTS:
    void initTestCase_data() { addEngines(); }
    void init();
    void cleanup() { end(); }

    void goodDeviceAmongSilentOnes();
    void asManyAsMayBe();
    void addressWithMostLoses();
    void firstByteIsProgress();
    void answeredOneHasMovedOn();
    void unreadOneIsSpared();
    void endedOnesDoNotCount_data();
    void endedOnesDoNotCount();
    void silentOnesAmongEndedOnes();
    void acceptingStopsWhileAllAreSpared();
    void fewAreClosedInOneGo();
    void receiverIsNotDisturbed();
    void endsInsideTheNotice_data();
    void endsInsideTheNotice();

private:
    enum class End { Closes, Stops, Destroys };

    static bool isOwn()
    {
        QFETCH_GLOBAL(QString, engine);
        return engine == QLatin1String("own");
    }
    // From the address of the silent ones: the kernel would choose another.
    NativeSocket connectFrom(const QHostAddress &address) const
    {
        NativeSocket peer = NativeSocket::unconnected(testAddress());
        if (!peer.bind(address, 0) || !peer.connect(testAddress(), port))
            peer.close();
        return peer;
    }
    bool connectBeside(TlsDevice &device) const
    {
        device.socket = connectFrom(testAddress());
        return device.socket.isValid();
    }
    // Returns when the thread of the handshakes has begun all that were accepted before.
    void letThemBegin() const;
    // Connects, and waits until its handshake is open, and another one closed if need be.
    void addSilent(const QHostAddress &from = testAddress());
    bool completes(TlsDevice &device, const QByteArray &bytes);
    QList<bool> openOnes() const
    {
        QList<bool> result;
        for (const NativeSocket &peer : silent)
            result += isOpen(peer);
        return result;
    }
    quint64 failed() const { return CountersEvent::countersOf(*plugin)->handshakesFailed; }
    quint64 withoutTls() const { return CountersEvent::countersOf(*plugin)->withoutTls; }

    std::vector<NativeSocket> silent;
};

void tst_CrowdedHandshakes::init()
{
    begin();
    silent.clear();
    start();
    server().setHandshakeTimeout(NeverMs);
    server().setMostOpen(Most);
}

void tst_CrowdedHandshakes::letThemBegin() const
{
    const quint64 before = withoutTls();
    const NativeSocket last = connectFrom(testAddress());
    QVERIFY(last.send("no TLS"));
    QTRY_COMPARE_WITH_TIMEOUT(withoutTls(), before + 1, HangGuardMs);
}

void tst_CrowdedHandshakes::addSilent(const QHostAddress &from)
{
    const qsizetype before = handshakes();
    const quint64 closed = server().crowds.total();
    silent.push_back(connectFrom(from));
    QVERIFY(silent.back().isValid());
    if (before < Most) {
        QTRY_COMPARE_WITH_TIMEOUT(handshakes(), before + 1, HangGuardMs);
        letThemBegin();
        QTRY_COMPARE_WITH_TIMEOUT(handshakes(), before + 1, HangGuardMs);
    } else {
        QTRY_COMPARE_WITH_TIMEOUT(server().crowds.total(), closed + 1, HangGuardMs);
    }
}

// Plays a device that has connected.
bool tst_CrowdedHandshakes::completes(TlsDevice &device, const QByteArray &bytes)
{
    bool sent = false;
    return play([&] {
               if (!device.handshake())
                   return;
               device.write(bytes);
               sent = device.flush();
           })
            && sent && waitForRecord(bytes);
}

void tst_CrowdedHandshakes::goodDeviceAmongSilentOnes()
{
    for (int n = 0; n < Most; ++n)
        addSilent();
    const QString first = text("%1:%2").arg(testAddress().toString()).arg(silent[0].localPort());
    TlsDevice good(TLS1_3_VERSION);
    QVERIFY(connectBeside(good));
    QTRY_COMPARE_WITH_TIMEOUT(server().crowds.total(), 1, HangGuardMs);
    QVERIFY(completes(good, "good"));
    QCOMPARE(openOnes(), (QList<bool>{false, true, true, true}));
    QVERIFY(serve(TLS1_2_VERSION, "better")); // there is room now
    QCOMPARE(openOnes(), (QList<bool>{false, true, true, true}));
    QCOMPARE(server().crowds.total(), 1);
    QCOMPARE(logged(Crowded + text("1 closed, the latest from ") + first), 1);
    QCOMPARE(failed(), 1);
    QCOMPARE(socketErrors(), 0);
    QTRY_COMPARE_WITH_TIMEOUT(handshakes(), Most - 1, HangGuardMs);
}

void tst_CrowdedHandshakes::asManyAsMayBe()
{
    for (int n = 0; n < Most; ++n)
        addSilent();
    QCOMPARE(server().crowds.total(), 0);
    QCOMPARE(openOnes(), QList<bool>(Most, true));
    for (int n = 0; n < 3 * Most; ++n)
        addSilent();
    QTRY_COMPARE_WITH_TIMEOUT(handshakes(), Most, HangGuardMs);
    QCOMPARE(server().crowds.total(), 3 * Most);
    QCOMPARE(failed(), 3 * Most);
    QCOMPARE(openOnes(), QList<bool>(3 * Most, false) + QList<bool>(Most, true));
    QCOMPARE(logged(Crowded), 1); // the others in a minute
}

void tst_CrowdedHandshakes::addressWithMostLoses()
{
    addSilent(otherAddress());
    for (int n = 1; n < Most; ++n)
        addSilent();
    addSilent(otherAddress()); // the other one has more
    QCOMPARE(openOnes(), (QList<bool>{true, false, true, true, true}));
    addSilent(); // with it, this one has
    QCOMPARE(openOnes(), (QList<bool>{true, false, false, true, true, true}));
}

void tst_CrowdedHandshakes::firstByteIsProgress()
{
    if (isOwn())
        return; // an answer is
    const QSignalSpy started(&server(), &QSslServer::startedEncryptionHandshake);
    addSilent();
    addSilent();
    QVERIFY(silent[0].send(HalfHello));
    QTRY_COMPARE_WITH_TIMEOUT(started.size(), 1, HangGuardMs);
    for (int n = 2; n <= Most; ++n)
        addSilent();
    QCOMPARE(openOnes(), (QList<bool>{true, false, true, true, true}));
}

void tst_CrowdedHandshakes::answeredOneHasMovedOn()
{
    const QSignalSpy started(&server(), &QSslServer::startedEncryptionHandshake);
    TlsDevice device(TLS1_3_VERSION);
    QVERIFY(connectBeside(device));
    QTRY_COMPARE_WITH_TIMEOUT(handshakes(), 1, HangGuardMs);
    const QByteArray hello = device.takeHello();
    addSilent();
    QVERIFY(device.socket.send(hello.left(1)));
    if (!isOwn()) // which tells that later
        QTRY_COMPARE_WITH_TIMEOUT(started.size(), 1, HangGuardMs);
    addSilent();
    addSilent();
    QVERIFY(device.socket.send(hello.mid(1)));
    QVERIFY(play([&] { device.handshakeUntilAnswer(); }));
    for (int n = 1; n < Most; ++n)
        addSilent();
    QCOMPARE(openOnes(), (QList<bool>{false, false, false, true, true, true}));
    QVERIFY(device.flush());
    device.write("slow");
    QVERIFY(device.flush());
    QVERIFY(waitForRecord("slow"));
}

// The thread was held up: what the device has sent is not read yet.
void tst_CrowdedHandshakes::unreadOneIsSpared()
{
    TlsDevice device(TLS1_3_VERSION);
    QVERIFY(connectBeside(device));
    QTRY_COMPARE_WITH_TIMEOUT(handshakes(), 1, HangGuardMs);
    for (int n = 1; n < Most; ++n)
        addSilent();
    const NativeSocket late = NativeSocket::connectedTo(testAddress(), port);
    QVERIFY(device.socket.send(device.takeHello()));
    QTRY_COMPARE_WITH_TIMEOUT(server().crowds.total(), 1, HangGuardMs);
    QVERIFY(completes(device, "held up"));
    QCOMPARE(openOnes(), (QList<bool>{false, true, true}));
    QVERIFY(isOpen(late));
}

void tst_CrowdedHandshakes::endedOnesDoNotCount_data()
{
    QTest::addColumn<QByteArray>("bytes");
    QTest::newRow("without a byte") << QByteArray();
    QTest::newRow("after half a hello") << HalfHello;
}

// The thread was held up, and has not seen yet that they have gone. The device has come first, and
// has not sent its hello.
void tst_CrowdedHandshakes::endedOnesDoNotCount()
{
    QFETCH(QByteArray, bytes);
    TlsDevice device(TLS1_3_VERSION);
    QVERIFY(connectBeside(device));
    for (int n = 0; n < Many; ++n)
        QVERIFY(connectFrom(testAddress()).send(bytes));
    QTRY_VERIFY_WITH_TIMEOUT(failed() >= Many, HangGuardMs);
    QCOMPARE(server().crowds.total(), 0);
    QCOMPARE(socketErrors(), Many);
    QTRY_COMPARE_WITH_TIMEOUT(handshakes(), 1, HangGuardMs);
    QVERIFY(completes(device, "among them"));
}

// The former are closed to make room for one another, the latter have the lines that they always
// have.
void tst_CrowdedHandshakes::silentOnesAmongEndedOnes()
{
    for (int n = 0; n < Many; ++n) {
        QVERIFY(connectFrom(testAddress()).isValid());
        if (n % (Many / (3 * Most)) == 0)
            silent.push_back(connectFrom(testAddress()));
    }
    const auto all = static_cast<quint64>(silent.size());
    QTRY_VERIFY_WITH_TIMEOUT(failed() >= Many + all - Most, HangGuardMs);
    QCOMPARE(server().crowds.total(), all - Most);
    QCOMPARE(socketErrors(), Many);
    QTRY_COMPARE_WITH_TIMEOUT(handshakes(), Most, HangGuardMs);
    QCOMPARE(openOnes().count(true), Most);
    QCOMPARE(openOnes().last(Most), QList<bool>(Most, true));
}

// What all of them have sent is there when the thread looks.
void tst_CrowdedHandshakes::acceptingStopsWhileAllAreSpared()
{
    if (isOwn())
        return; // nothing holds up its threads
    for (int n = 0; n < Many; ++n) {
        silent.push_back(connectFrom(testAddress()));
        QVERIFY(silent.back().send(HalfHello));
    }
    qsizetype mostOpen = 0;
    quint64 closedBefore = Many; // before the first one was heard
    connect(&server(), &QSslServer::startedEncryptionHandshake, this, [&](QSslSocket *) {
        mostOpen = std::max(mostOpen, handshakes());
        closedBefore = std::min(closedBefore, server().crowds.total());
    });
    QTRY_COMPARE_WITH_TIMEOUT(server().crowds.total(), Many - Most, HangGuardMs);
    QCOMPARE(closedBefore, 0);
    QVERIFY2(mostOpen > Most && mostOpen < Many, qPrintable(QString::number(mostOpen)));
    QTRY_COMPARE_WITH_TIMEOUT(handshakes(), Most, HangGuardMs);
    QVERIFY(serve(TLS1_3_VERSION, "good"));
}

// Many PROXY headers can be complete at once. The other work of the thread must not wait until all
// are closed that are too many.
void tst_CrowdedHandshakes::fewAreClosedInOneGo()
{
    if (isOwn())
        return; // closing them costs its threads little
    constexpr quint64 MostInOneGo = 64;
    server().setMostOpen(Many);
    for (int n = 0; n < Many; ++n)
        silent.push_back(connectFrom(testAddress()));
    QTRY_COMPARE_WITH_TIMEOUT(handshakes(), Many, HangGuardMs);
    const LargestStep closed([this] { return server().crowds.total(); });
    server().setMostOpen(Most);
    silent.push_back(connectFrom(testAddress()));
    QTRY_COMPARE_WITH_TIMEOUT(server().crowds.total(), Many + 1 - Most, HangGuardMs);
    QCOMPARE(closed.largest, MostInOneGo);
    QTRY_COMPARE_WITH_TIMEOUT(handshakes(), Most, HangGuardMs);
    QCOMPARE(openOnes().last(Most), QList<bool>(Most, true));
}

// The handshake of that receiver waits for it, not for the device.
void tst_CrowdedHandshakes::receiverIsNotDisturbed()
{
    if (isOwn())
        return; // it is over when a receiver hears of it
    TlsDevice device(TLS1_3_VERSION);
    QVERIFY(connectBeside(device));
    QTRY_COMPARE_WITH_TIMEOUT(handshakes(), 1, HangGuardMs);
    bool wasCrowded = false;
    const auto context = std::make_unique<QObject>();
    connect(&server(), &QSslServer::startedEncryptionHandshake, context.get(), [&](QSslSocket *) {
        for (int n = 0; n < 2 * Most; ++n)
            silent.push_back(connectFrom(testAddress()));
        QTRY_COMPARE_WITH_TIMEOUT(server().crowds.total(), Most, HangGuardMs);
        QCOMPARE(openOnes(), QList<bool>(Most, false) + QList<bool>(Most, true));
        silent.pop_back(); // from now on the device counts
        wasCrowded = true;
    });
    const QByteArray hello = device.takeHello();
    QVERIFY(device.socket.send(hello.left(1)));
    QTRY_VERIFY_WITH_TIMEOUT(wasCrowded, HangGuardMs);
    QVERIFY(isOpen(device.socket));
    QVERIFY(device.socket.send(hello.mid(1)));
    QVERIFY(completes(device, "patient"));
    QCOMPARE(server().crowds.total(), Most);
}

void tst_CrowdedHandshakes::endsInsideTheNotice_data()
{
    QTest::addColumn<End>("way");
    QTest::newRow("closes") << End::Closes;
    QTest::newRow("stops") << End::Stops;
    QTest::newRow("destroys") << End::Destroys;
}

void tst_CrowdedHandshakes::endsInsideTheNotice()
{
    QFETCH(End, way);
    for (int n = 0; n < Most; ++n)
        addSilent();
    bool ended = false;
    connect(&server().crowds, &MinuteNotice::due, plugin.get(), [&] {
        if (std::exchange(ended, true))
            return;
        if (way == End::Closes)
            server().close();
        else if (way == End::Stops)
            plugin->stop();
        else
            plugin.reset();
    });
    silent.push_back(NativeSocket::connectedTo(testAddress(), port));
    silent.push_back(NativeSocket::connectedTo(testAddress(), port));
    QTRY_VERIFY_WITH_TIMEOUT(ended, HangGuardMs);
    for (const NativeSocket &peer : silent)
        QVERIFY(peer.ends());
    if (plugin)
        QTRY_COMPARE_WITH_TIMEOUT(handshakes(), 0, HangGuardMs);
}

QTEST_GUILESS_MAIN(tst_CrowdedHandshakes)
#include "tst_crowdedhandshakes.moc"
