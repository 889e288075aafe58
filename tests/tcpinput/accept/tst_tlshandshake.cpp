// SPDX-FileCopyrightText: the tcpinputplugin2 authors
// SPDX-License-Identifier: MIT

#include "tcpinput/accept/tlshandshake.h"
#include "tcpinput/accept/unread.h"
#include "tcpinput/tcpinputplugin2.h"
#include "tests/kit/hangguard.h"
#include "tests/kit/messagecapture.h"
#include "tests/kit/play.h"
#include "tests/kit/processresources.h"
#include "tests/kit/testaddress.h"
#include "tests/kit/tlsdevice.h"

#include <QtCore/QAbstractEventDispatcher>
#include <QtCore/QElapsedTimer>
#include <QtCore/QJsonObject>
#include <QtCore/QSemaphore>
#include <QtNetwork/QSslPreSharedKeyAuthenticator>
#include <QtTest/QtTest>

#include <functional>
#include <memory>
#include <vector>

namespace {

const QByteArray BrokenHello("\x16\x03\x01\x00\x05hello", 10);
const QByteArray FatalAlert("\x15\x03\x03\x00\x02\x02\x28", 7); // handshake_failure

QString text(const char *latin1)
{
    return QString::fromLatin1(latin1);
}

// Runs the event loop, as a dialog does. When it returns, all that was pending at its beginning is
// done, deletions included.
void runEventLoop()
{
    for (int turn = 0; turn < 20; ++turn) {
        QCoreApplication::processEvents(QEventLoop::AllEvents, 1);
        QCoreApplication::sendPostedEvents(nullptr, QEvent::DeferredDelete);
    }
    // The outer loop may have been told to quit in here. Qt's own dispatcher has then forgotten
    // that it was woken.
    QAbstractEventDispatcher::instance()->wakeUp();
}

} // namespace

// What the server signals during a handshake, and receivers that end the server inside such a
// signal.
class tst_TlsHandshake : public QObject
{
    Q_OBJECT

private Q_SLOTS:
    void init();
    void cleanup();

    void endsInsideASignal_data();
    void endsInsideASignal();
    void endsInsideASignalWithALoop_data() { endsInsideASignal_data(); }
    void endsInsideASignalWithALoop();
    void alertIsToldBeforeTheFailure();
    void droppedHandshakeTellsNothing_data();
    void droppedHandshakeTellsNothing();
    void keyIsAskedFor_data();
    void keyIsAskedFor();
    void deviceAnswersDuringAReceiver();
    void receiverTakesLonger();
    void lastAnswerIsSentAtOnce();
    void handshakeEndsWhileTheServerCloses();

private:
    enum class Told {
        Started,
        AlertSent,
        AlertReceived,
        KeyRequired,
        VerifyError,
        Errors,
        Interrupted,
        Failed,
        Available
    };
    enum class End { Closes, Stops, Destroys };

    void start(const QJsonObject &tls = serverTls());
    SslServer &server() const { return *plugin->findChild<SslServer *>(); }
    qsizetype handshakes() const
    {
        return plugin ? plugin->findChildren<TlsHandshake *>().size() : 0;
    }
    void awaitAnswerDuringAReceiver(int leastMs);
    void onFirst(Told told, const std::function<void(QSslSocket *)> &action);
    void prepare(Told told);
    bool bringAbout(Told told);
    void end(End way);

    quint16 port = 0;
    std::unique_ptr<TcpInputPlugin2> plugin;
    std::unique_ptr<TlsDevice> device;
    QList<QByteArray> records;
    std::unique_ptr<MessageCapture> capture;
};

void tst_TlsHandshake::init()
{
    port = freePort();
    capture = std::make_unique<MessageCapture>();
}

void tst_TlsHandshake::cleanup()
{
    plugin.reset();
    device.reset();
    records.clear();
    capture.reset();
}

void tst_TlsHandshake::start(const QJsonObject &tls)
{
    plugin = std::make_unique<TcpInputPlugin2>(
            nullptr,
            QJsonObject{{text("ipAddr"), testAddress().toString()},
                        {text("port"), port},
                        {text("ssl"), tls},
                        {text("threadpoolSize"), 1}});
    connect(plugin.get(), &IInputPlugin::receivedData, this,
            [this](const shared_parsedData &record) {
                records.append(record->getOriginalMessage());
            });
    QVERIFY(plugin->start());
    QVERIFY(server().isListening());
}

// Prepares the server and the device so that the server will emit the signal.
void tst_TlsHandshake::prepare(Told told)
{
    QJsonObject tls = serverTls();
    tls.insert(text("verifyPeer"),
               told == Told::VerifyError || told == Told::Errors || told == Told::Interrupted);
    tls.insert(text("tlsDebug"), told == Told::Interrupted);
    if (told == Told::AlertSent)
        tls.insert(text("tlsVersion"), text("1.3"));
    start(tls);

    const bool older = told == Told::AlertSent || told == Told::AlertReceived;
    device = std::make_unique<TlsDevice>(older ? TLS1_2_VERSION : TLS1_3_VERSION,
                                         told == Told::Interrupted ? text("client-foreign")
                                                                   : QString());
    if (told == Told::KeyRequired)
        device->offerSharedKey();
    QVERIFY(device->connect(testAddress(), port));
}

// Makes the device cause the signal. False if the connection does not end.
bool tst_TlsHandshake::bringAbout(Told told)
{
    bool ended = false;
    const bool played = play([&] {
        if (told == Told::AlertReceived) {
            device->handshakeUntilAnswer();
            device->socket.send(FatalAlert);
        } else if (told == Told::Failed) {
            device->socket.send(BrokenHello);
        } else if (device->handshake()) { // the server may still have to look at it
            device->flush();
        }
        if (told == Told::Available)
            device->socket
                    .finish(); // a worker may have the connection, and the server not any more
        ended = device->waitForEnd();
    });
    return played && ended;
}

// action: gets the signal's socket, or null if the signal has none.
void tst_TlsHandshake::onFirst(Told told, const std::function<void(QSslSocket *)> &action)
{
    const auto once = [action, done = std::make_shared<bool>(false)](QSslSocket *socket) {
        if (!std::exchange(*done, true))
            action(socket);
    };
    switch (told) {
    case Told::Started:
        connect(&server(), &QSslServer::startedEncryptionHandshake, this, once);
        break;
    case Told::AlertSent:
        connect(&server(), &QSslServer::alertSent, this, once);
        break;
    case Told::AlertReceived:
        connect(&server(), &QSslServer::alertReceived, this, once);
        break;
    case Told::KeyRequired:
        connect(&server(), &QSslServer::preSharedKeyAuthenticationRequired, this, once);
        break;
    case Told::VerifyError:
        connect(&server(), &QSslServer::peerVerifyError, this, once);
        break;
    case Told::Errors:
        connect(&server(), &QSslServer::sslErrors, this, once);
        break;
    case Told::Interrupted:
        connect(&server(), &QSslServer::handshakeInterruptedOnError, this, once);
        break;
    case Told::Failed:
        connect(&server(), &QSslServer::errorOccurred, this, once);
        break;
    case Told::Available:
        connect(&server(), &QTcpServer::pendingConnectionAvailable, this,
                [once] { once(nullptr); });
        break;
    }
}

void tst_TlsHandshake::end(End way)
{
    if (way == End::Closes)
        server().close();
    else if (way == End::Stops)
        plugin->stop();
    else
        plugin.reset();
}

void tst_TlsHandshake::endsInsideASignal_data()
{
    QTest::addColumn<Told>("told");
    QTest::addColumn<End>("way");
    const struct
    {
        const char *name;
        Told told;
    } signalsOfTheServer[] = {{"started", Told::Started},
                              {"alert sent", Told::AlertSent},
                              {"alert received", Told::AlertReceived},
                              {"key required", Told::KeyRequired},
                              {"verify error", Told::VerifyError},
                              {"errors", Told::Errors},
                              {"interrupted", Told::Interrupted},
                              {"failed", Told::Failed},
                              {"available", Told::Available}};
    for (const auto &signal : signalsOfTheServer) {
        QTest::addRow("%s, closes", signal.name) << signal.told << End::Closes;
        QTest::addRow("%s, stops", signal.name) << signal.told << End::Stops;
        QTest::addRow("%s, destroys", signal.name) << signal.told << End::Destroys;
    }
}

// The receiver is called while the socket, and OpenSSL inside it, are still working.
void tst_TlsHandshake::endsInsideASignal()
{
    QFETCH(Told, told);
    QFETCH(End, way);
    const qsizetype before = openSockets();
    prepare(told);
    bool ended = false;
    onFirst(told, [&](QSslSocket *socket) {
        const QPointer<QSslSocket> atWork = socket;
        end(way);
        ended = true;
        QVERIFY(atWork || !socket); // Qt goes on with it when this returns
    });
    QVERIFY(bringAbout(told));
    QVERIFY(ended);
    QTRY_COMPARE_WITH_TIMEOUT(handshakes(), 0, HangGuardMs);
    plugin.reset();
    device.reset();
    QTRY_COMPARE_WITH_TIMEOUT(openSockets(), before, HangGuardMs);
    QCOMPARE(records, QList<QByteArray>());
}

// The peer has gone when the server ends, and the socket's thread had time to notice.
void tst_TlsHandshake::endsInsideASignalWithALoop()
{
    QFETCH(Told, told);
    QFETCH(End, way);
    const qsizetype before = openSockets();
    prepare(told);
    bool ended = false;
    onFirst(told, [&](QSslSocket *) {
        ::shutdown(device->socket.descriptor(), SHUT_RDWR);
        runEventLoop();
        end(way);
        runEventLoop();
        ended = true;
    });
    QVERIFY(bringAbout(told));
    QTRY_VERIFY_WITH_TIMEOUT(ended, HangGuardMs);
    QTRY_COMPARE_WITH_TIMEOUT(handshakes(), 0, HangGuardMs);
    plugin.reset();
    device.reset();
    QTRY_COMPARE_WITH_TIMEOUT(openSockets(), before, HangGuardMs);
}

void tst_TlsHandshake::alertIsToldBeforeTheFailure()
{
    prepare(Told::AlertSent);
    QStringList told;
    connect(&server(), &QSslServer::startedEncryptionHandshake, this,
            [&](QSslSocket *) { told += text("started"); });
    connect(&server(), &QSslServer::alertSent, this,
            [&](QSslSocket *socket, QSsl::AlertLevel level, QSsl::AlertType type) {
                QVERIFY(socket);
                QCOMPARE(level, QSsl::AlertLevel::Fatal);
                QCOMPARE(type, QSsl::AlertType::ProtocolVersion);
                told += text("alert");
            });
    connect(&server(), &QSslServer::errorOccurred, this,
            [&](QSslSocket *, QAbstractSocket::SocketError) { told += text("error"); });
    QVERIFY(bringAbout(Told::AlertSent));
    QTRY_COMPARE_WITH_TIMEOUT(told, (QStringList{text("started"), text("alert"), text("error")}),
                              HangGuardMs);
    QTRY_COMPARE_WITH_TIMEOUT(handshakes(), 0, HangGuardMs);
    QCOMPARE(told.size(), 3);
}

void tst_TlsHandshake::droppedHandshakeTellsNothing_data()
{
    QTest::addColumn<Told>("last");
    QTest::addColumn<Told>("next");
    QTest::newRow("an alert is on its way") << Told::Started << Told::AlertSent;
    QTest::newRow("before the start is told") << Told::KeyRequired << Told::Started;
    QTest::newRow("before the failure is told") << Told::AlertReceived << Told::Failed;
    QTest::newRow("more than one about a certificate") << Told::VerifyError << Told::Errors;
}

void tst_TlsHandshake::droppedHandshakeTellsNothing()
{
    QFETCH(Told, last);
    QFETCH(Told, next);
    const Told subject = last == Told::Started ? next : last;
    prepare(subject);
    bool dropped = false;
    bool told = false;
    onFirst(last, [&](QSslSocket *) {
        server().close();
        dropped = true;
    });
    onFirst(next, [&](QSslSocket *) { told = true; });
    QVERIFY(bringAbout(subject));
    QTRY_COMPARE_WITH_TIMEOUT(handshakes(), 0, HangGuardMs);
    QVERIFY(dropped);
    QVERIFY(!told);
}

void tst_TlsHandshake::keyIsAskedFor_data()
{
    QTest::addColumn<bool>("loops");
    QTest::newRow("answered at once") << false;
    QTest::newRow("the receiver runs the event loop") << true;
}

// The server asks for the key, and uses the answer.
void tst_TlsHandshake::keyIsAskedFor()
{
    QFETCH(bool, loops);
    prepare(Told::KeyRequired);
    QByteArray identity;
    connect(&server(), &QSslServer::preSharedKeyAuthenticationRequired, this,
            [&](QSslSocket *, QSslPreSharedKeyAuthenticator *authenticator) {
                if (loops)
                    runEventLoop();
                identity = authenticator->identity();
                authenticator->setPreSharedKey(TlsDevice::sharedKey());
            });
    bool ended = false;
    QVERIFY(play([&] {
        if (!device->handshake())
            return;
        device->write("hello");
        device->writeCloseNotify();
        device->flush();
        device->socket.finish();
        ended = device->waitForEnd();
    }));
    QVERIFY(ended);
    QCOMPARE(identity, "device");
    QVERIFY(device->usesSharedKey());
    QTRY_VERIFY_WITH_TIMEOUT(records.contains("hello"), HangGuardMs);
}

// leastMs: how long the receiver runs at least.
void tst_TlsHandshake::awaitAnswerDuringAReceiver(int leastMs)
{
    QSemaphore answered;
    bool meanwhile = false;
    const auto context = std::make_unique<QObject>();
    connect(&server(), &QSslServer::startedEncryptionHandshake, context.get(),
            [&](QSslSocket *socket) {
                QElapsedTimer clock;
                clock.start();
                // The kernel has nothing any more: the answer is in the socket.
                meanwhile = QTest::qWaitFor(
                        [&] {
                            return answered.available() > 0
                                    && !hasUnread(socket->socketDescriptor())
                                    && clock.elapsed() >= leastMs;
                        },
                        HangGuardMs);
            });
    TlsDevice answering(TLS1_3_VERSION);
    QVERIFY(play([&] {
        if (!answering.connect(testAddress(), port) || !answering.handshakeUntilAnswer())
            return;
        answering.write("hello");
        if (answering.flush())
            answered.release();
    }));
    QTRY_VERIFY_WITH_TIMEOUT(records.contains("hello"), HangGuardMs);
    QVERIFY(meanwhile);
}

// No more bytes come that would have the server look at the answer.
void tst_TlsHandshake::deviceAnswersDuringAReceiver()
{
    start();
    awaitAnswerDuringAReceiver(0);
}

// The time-out is for the peer.
void tst_TlsHandshake::receiverTakesLonger()
{
    constexpr int TimeoutMs = 1000; // more than the device takes, on a busy machine too
    start();
    server().setHandshakeTimeout(TimeoutMs);
    awaitAnswerDuringAReceiver(5 * TimeoutMs / 2);
}

// The host holds its thread up right after the handshake, before a worker has the socket. With
// TLS 1.2 the device waits for the server.
void tst_TlsHandshake::lastAnswerIsSentAtOnce()
{
    start();
    QSemaphore completed;
    bool meanwhile = false;
    connect(&server(), &QSslServer::startedEncryptionHandshake, this, [&] {
        const auto *handshake = server().findChild<TlsHandshake *>();
        QVERIFY(handshake);
        connect(
                handshake, &TlsHandshake::cameOut, this,
                [&] { meanwhile = completed.tryAcquire(1, HangGuardMs); }, Qt::QueuedConnection);
    });
    TlsDevice waiting(TLS1_2_VERSION);
    QVERIFY(play([&] {
        if (waiting.connect(testAddress(), port) && waiting.handshake())
            completed.release();
        waiting.write("completed");
        waiting.flush();
    }));
    QTRY_VERIFY_WITH_TIMEOUT(records.contains("completed"), HangGuardMs);
    QVERIFY(meanwhile);
}

// The first one's socket runs the event loop when it is closed, and the second one is deleted
// there.
void tst_TlsHandshake::handshakeEndsWhileTheServerCloses()
{
    start();
    std::vector<NativeSocket> peers;
    const auto context = std::make_unique<QObject>();
    int started = 0;
    bool ended = false;
    connect(&server(), &QSslServer::startedEncryptionHandshake, context.get(),
            [&](QSslSocket *socket) {
                if (++started > 1)
                    return;
                connect(socket, &QAbstractSocket::disconnected, context.get(), [&] {
                    peers.back().close();
                    ended = QTest::qWaitFor([&] { return handshakes() == 1; }, HangGuardMs);
                });
            });
    for (int count = 1; count <= 2; ++count) {
        peers.push_back(NativeSocket::connectedTo(testAddress(), port));
        QVERIFY(peers.back().send(BrokenHello.first(6)));
        QTRY_COMPARE_WITH_TIMEOUT(started, count, HangGuardMs);
    }
    server().close();
    QVERIFY(ended);
    QTRY_COMPARE_WITH_TIMEOUT(handshakes(), 0, HangGuardMs);
}

QTEST_GUILESS_MAIN(tst_TlsHandshake)
#include "tst_tlshandshake.moc"
