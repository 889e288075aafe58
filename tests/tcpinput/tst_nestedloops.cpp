// SPDX-FileCopyrightText: the tcpinputplugin2 authors
// SPDX-License-Identifier: MIT

#include "plugin/countersevent.h"
#include "tcpinput/tcpinputplugin2.h"
#include "tests/kit/certificates.h"
#include "tests/kit/hangguard.h"
#include "tests/kit/processresources.h"
#include "tests/kit/testaddress.h"
#include "tests/kit/tlsengines.h"

#include <QtCore/QCoreApplication>
#include <QtCore/QSemaphore>
#include <QtNetwork/QSslServer>
#include <QtNetwork/QSslSocket>
#include <QtTest/QTest>

#include <openssl/err.h>
#include <openssl/ssl.h>

#include <algorithm>
#include <atomic>
#include <functional>
#include <memory>

namespace {

/*!
    A host's message handler that runs inside a line: it delivers the events of the thread that
    writes the line until it is told to leave, and a few times more.
*/
class LoopInALine
{
public:
    enum Way { Turns, PostedEvents, TurnsAndDeletions };
    static inline std::atomic<Way> way = Turns;

    // first: is called before the events are delivered. Default: nothing.
    explicit LoopInALine(const QString &text, std::function<void()> first = {})
        : previous(qInstallMessageHandler(&handle))
    {
        action = std::move(first);
        wanted = text;
        entered = false;
        leaving = false;
        left = false;
    }
    ~LoopInALine() { qInstallMessageHandler(previous); }
    Q_DISABLE_COPY_MOVE(LoopInALine)

    static bool hasBegun() { return entered; }
    static void leave() { leaving = true; }
    static bool hasEnded() { return left; }

private:
    static void handle(QtMsgType, const QMessageLogContext &, const QString &line)
    {
        if (!line.contains(wanted) || entered.exchange(true))
            return;
        if (action)
            action();
        while (!leaving)
            deliver(10);
        for (int turn = 0; turn < 20; ++turn)
            deliver(1);
        left = true;
    }

    static void deliver(int ms)
    {
        if (way == PostedEvents) {
            QCoreApplication::sendPostedEvents();
            QThread::msleep(1); // gives other threads time
            return;
        }
        QCoreApplication::processEvents(QEventLoop::AllEvents, ms);
        if (way == TurnsAndDeletions) // as QTest::qWait() does
            QCoreApplication::sendPostedEvents(nullptr, QEvent::DeferredDelete);
    }

    const QtMessageHandler previous;

    static inline QString wanted;
    static inline std::function<void()> action;
    static inline std::atomic<bool> entered = false;
    static inline std::atomic<bool> leaving = false;
    static inline std::atomic<bool> left = false;
};

#define WAIT_FOR(condition) QTRY_VERIFY_WITH_TIMEOUT(condition, HangGuardMs)

} // namespace

// Hosts whose message handler runs the event loop in the thread that writes the line. The nested
// loop may deliver the end of the connection, or of the task, that the line is about.
class tst_NestedLoops : public QObject
{
    Q_OBJECT

private Q_SLOTS:
    void initTestCase_data();
    void init();
    void cleanup();

    void peerEnds_data() { addLines(); }
    void peerEnds();
    void pluginStops_data() { addLines(); }
    void pluginStops();

    void inTheHostsThread_data();
    void inTheHostsThread();
    void failedHandshake_data();
    void failedHandshake();
    void taskEndsWithItsThread();
    void badCertificate_data();
    void badCertificate();
    void handshakesOfOthers();

private:
    static void addLines();
    std::unique_ptr<QSslSocket> connectedDevice() const;
    void bringAboutTheLine();
    bool hasClients() const { return plugin->getStatus().contains(QLatin1String("tcp2:")); }
    bool allIsOffered() const;
    QString taskOfLast() const
    {
        return records.last()->getPluginSubId().value(QStringLiteral("task"));
    }

    std::unique_ptr<TcpInputPlugin2> plugin;
    std::unique_ptr<QSslSocket> device;
    QList<shared_parsedData> records;
    const QByteArray sent = QByteArray(1001, 'x');
    bool useTls = false;
    quint16 port = 0;
};

void tst_NestedLoops::initTestCase_data()
{
    QTest::addColumn<bool>("tls");
    QTest::addColumn<QString>("engine");
    QTest::addColumn<int>("way");
    const QString none;
    QTest::newRow("tcp") << false << none << int(LoopInALine::Turns);
    for (const char *engine : TlsEngines) {
        QTest::addRow("tls, %s", engine)
                << true << QString::fromLatin1(engine) << int(LoopInALine::Turns);
    }
    QTest::newRow("tcp, posted events") << false << none << int(LoopInALine::PostedEvents);
    QTest::newRow("tcp, deletions") << false << none << int(LoopInALine::TurnsAndDeletions);
}

void tst_NestedLoops::init()
{
    QFETCH_GLOBAL(bool, tls);
    useTls = tls;
    QFETCH_GLOBAL(int, way);
    LoopInALine::way = static_cast<LoopInALine::Way>(way);
    port = freePort();
    QJsonObject config{{QStringLiteral("ipAddr"), testAddress().toString()},
                       {QStringLiteral("port"), port},
                       {QStringLiteral("timeout"), 1},
                       {QStringLiteral("threadpoolSize"), 2}};
    QFETCH_GLOBAL(QString, engine);
    if (useTls)
        config.insert(QStringLiteral("ssl"), withEngine(serverTls(), engine));
    plugin = std::make_unique<TcpInputPlugin2>(nullptr, config);
    connect(plugin.get(), &IInputPlugin::receivedData, this,
            [this](const shared_parsedData &record) { records.append(record); });
    QVERIFY(plugin->start());
}

void tst_NestedLoops::cleanup()
{
    plugin.reset();
    device.reset();
    records.clear();
}

void tst_NestedLoops::addLines()
{
    QTest::addColumn<QString>("line");
    for (const char *line : {"Handling", "new connection tcp2", "TcpClient: id", "new client added",
                             "TCP READ", "msgsize", "triggering", "timeout", "closing"})
        QTest::newRow(line) << QString::fromLatin1(line);
}

// A device that is connected, unless the plugin has stopped meanwhile.
std::unique_ptr<QSslSocket> tst_NestedLoops::connectedDevice() const
{
    auto result = std::make_unique<QSslSocket>();
    result->setPeerVerifyMode(QSslSocket::VerifyNone);
    if (useTls)
        result->connectToHostEncrypted(testAddress().toString(), port);
    else
        result->connectToHost(testAddress(), port);
    const auto isReady = [&] {
        return result->state() == QAbstractSocket::UnconnectedState
                || (useTls ? result->isEncrypted()
                           : result->state() == QAbstractSocket::ConnectedState);
    };
    if (!QTest::qWaitFor(isReady, HangGuardMs))
        qFatal("%s", qPrintable(result->errorString()));
    return result;
}

// Makes the worker write the line. When this returns, the worker's thread is inside the line.
void tst_NestedLoops::bringAboutTheLine()
{
    QFETCH(QString, line);
    device = connectedDevice();
    device->write(sent);
    WAIT_FOR(device->bytesToWrite() == 0 && device->encryptedBytesToWrite() == 0);
    if (line == QLatin1String("triggering")) {
        WAIT_FOR(!records.isEmpty());
        plugin->discard(10, records[0]->getPluginSubId());
    } else if (line == QLatin1String("closing")) {
        WAIT_FOR(!records.isEmpty());
        device->disconnectFromHost();
    }
    WAIT_FOR(LoopInALine::hasBegun());
}

bool tst_NestedLoops::allIsOffered() const
{
    return std::any_of(records.begin(), records.end(), [this](const shared_parsedData &record) {
        return record->getOriginalMessage() == sent;
    });
}

void tst_NestedLoops::peerEnds()
{
    QFETCH(QString, line);
    const LoopInALine loop(line);
    bringAboutTheLine();
    device->disconnectFromHost();
    WAIT_FOR(device->state() == QAbstractSocket::UnconnectedState);
    if (line != QLatin1String("closing") // this line is the end already
        && LoopInALine::way != LoopInALine::PostedEvents) // these do not bring the peer's end
        WAIT_FOR(!hasClients());

    LoopInALine::leave();
    WAIT_FOR(LoopInALine::hasEnded());
    WAIT_FOR(allIsOffered());
    WAIT_FOR(!hasClients());
}

void tst_NestedLoops::pluginStops()
{
    QFETCH(QString, line);
    const LoopInALine loop(line);
    bringAboutTheLine();
    plugin->stop();

    LoopInALine::leave();
    plugin.reset();
    QVERIFY(LoopInALine::hasEnded());
    // A connection that no worker has taken yet is dropped.
    QVERIFY(allIsOffered() || line == QLatin1String("Handling"));
}

// Lines that are written while the plugin makes a worker. Inside the line, either the plugin stops
// or one more worker is needed.
void tst_NestedLoops::inTheHostsThread_data()
{
    QTest::addColumn<QString>("line");
    QTest::addColumn<bool>("stops");
    for (const char *line :
         {"Creating new TCP Thread", "Creating new TcpTask2", "new connection, "}) {
        QTest::addRow("%s, stop", line) << QString::fromLatin1(line) << true;
        QTest::addRow("%s, another device", line) << QString::fromLatin1(line) << false;
    }
}

void tst_NestedLoops::inTheHostsThread()
{
    QFETCH(QString, line);
    QFETCH(bool, stops);
    const qsizetype threadsBefore = runningThreads();
    std::unique_ptr<QSslSocket> other;
    const auto first = [&] {
        if (stops)
            plugin->stop();
        else
            other = connectedDevice();
        LoopInALine::leave();
    };
    const LoopInALine loop(line, first);
    device = connectedDevice();
    WAIT_FOR(LoopInALine::hasEnded());
    if (!stops) {
        device->write(sent);
        WAIT_FOR(allIsOffered());
        const QString taken = taskOfLast();
        records.clear();
        other->write(sent);
        WAIT_FOR(allIsOffered());
        QVERIFY(taskOfLast() != taken); // the rotation went on all the same
    }
    plugin.reset();
    QCOMPARE(runningThreads(), threadsBefore);
}

// Inside the line, either the peer ends or the plugin stops.
void tst_NestedLoops::failedHandshake_data()
{
    QTest::addColumn<bool>("stops");
    QTest::newRow("peer ends") << false;
    QTest::newRow("plugin stops") << true;
}

void tst_NestedLoops::failedHandshake()
{
    QFETCH_GLOBAL(bool, tls);
    if (!tls)
        return;
    QFETCH(bool, stops);
    QTcpSocket peer;
    const LoopInALine loop(QStringLiteral("SSL Socket error"), [&] {
        peer.abort();
        if (stops)
            plugin->stop();
        LoopInALine::leave();
    });
    peer.connectToHost(testAddress(), port);
    WAIT_FOR(peer.state() == QAbstractSocket::ConnectedState);
    peer.write(QByteArray("\x16") + QByteArray(100, 'x'));
    WAIT_FOR(LoopInALine::hasEnded());
    if (stops)
        return;
    device = connectedDevice(); // the plugin goes on listening
    device->write(sent);
    WAIT_FOR(allIsOffered());
}

// The deletion of one client is under way when the task's own end runs the event loop.
void tst_NestedLoops::taskEndsWithItsThread()
{
    QFETCH_GLOBAL(bool, tls);
    if (tls)
        return;
    useTls = false;
    static std::atomic<bool> entered;
    static QSemaphore leaving;
    static std::atomic<bool> looping;
    looping = true;
    entered = false;
    port = freePort();
    plugin = std::make_unique<TcpInputPlugin2>(
            nullptr,
            QJsonObject{{QStringLiteral("ipAddr"), testAddress().toString()},
                        {QStringLiteral("port"), port},
                        {QStringLiteral("threadpoolSize"), 1}});
    QVERIFY(plugin->start());
    const std::unique_ptr<QSslSocket> alive = connectedDevice();
    const auto previous =
            qInstallMessageHandler([](QtMsgType, const QMessageLogContext &, const QString &line) {
                if (line.contains(QLatin1String("msgsize"))) {
                    entered = true;
                    while (looping)
                        QCoreApplication::processEvents(QEventLoop::AllEvents, 10);
                    entered = false;
                    leaving.acquire();
                } else if (line.contains(QLatin1String("closing"))) {
                    for (int turn = 0; turn < 5; ++turn)
                        QCoreApplication::processEvents();
                }
            });
    const auto restore = qScopeGuard([&] { qInstallMessageHandler(previous); });
    device = connectedDevice();
    WAIT_FOR(plugin->getStatus().count(QLatin1String("tcp2:")) == 2);
    device->write(sent);
    WAIT_FOR(entered);
    device->disconnectFromHost();
    WAIT_FOR(plugin->getStatus().count(QLatin1String("tcp2:")) == 1);
    looping = false;
    WAIT_FOR(!entered);
    plugin->stop();
    QCoreApplication::sendPostedEvents(nullptr, QEvent::MetaCall); // the thread is told to quit
    leaving.release();
    plugin.reset();
}

void tst_NestedLoops::badCertificate_data()
{
    QTest::addColumn<QString>("line");
    QTest::addColumn<bool>("stops");
    for (const char *line : {"SSL Errors", "SSL handshake error"}) {
        QTest::addRow("%s, peer", line) << QString::fromLatin1(line) << false;
        QTest::addRow("%s, stop", line) << QString::fromLatin1(line) << true;
    }
}

// A nested loop inside some of QSslSocket's signals would re-enter the socket.
void tst_NestedLoops::badCertificate()
{
    QFETCH_GLOBAL(bool, tls);
    if (!tls)
        return;
    QFETCH(QString, line);
    QFETCH(bool, stops);
    const bool debug = line == QLatin1String("SSL handshake error");
    QFETCH_GLOBAL(QString, engine);
    QJsonObject ssl = withEngine(serverTls(), engine);
    ssl.insert(QStringLiteral("verifyPeer"), true);
    ssl.insert(QStringLiteral("tlsDebug"), debug);
    port = freePort();
    plugin = std::make_unique<TcpInputPlugin2>(
            nullptr,
            QJsonObject{{QStringLiteral("ipAddr"), testAddress().toString()},
                        {QStringLiteral("port"), port},
                        {QStringLiteral("ssl"), ssl}});
    QVERIFY(plugin->start());
    QStringList reasons;
    connect(plugin->findChild<QSslServer *>(), &QSslServer::errorOccurred, this,
            [&](QSslSocket *socket) { reasons += socket->errorString(); });
    QSslSocket peer;
    const LoopInALine loop(line, [&] {
        peer.abort();
        if (stops)
            plugin->stop();
        LoopInALine::leave();
    });
    peer.setPeerVerifyMode(QSslSocket::VerifyNone);
    peer.setLocalCertificate(certificateFile(QStringLiteral("self-signed.pem")));
    peer.setPrivateKey(certificateFile(QStringLiteral("self-signed.key")));
    peer.connectToHostEncrypted(testAddress().toString(), port);
    WAIT_FOR(LoopInALine::hasEnded());
    if (!debug) // the failure comes after the line, if at all
        return;
    WAIT_FOR(!reasons.isEmpty());
    QCOMPARE(reasons.size(), 1);
    const char *const reason =
            ERR_reason_error_string(ERR_PACK(ERR_LIB_SSL, 0, SSL_R_CERTIFICATE_VERIFY_FAILED));
    QVERIFY2(reasons[0].contains(QLatin1String(reason)), qPrintable(reasons[0]));
}

// A line may take long, for example with a dialog. If other handshakes waited so long for their
// deletion, the server would pause.
void tst_NestedLoops::handshakesOfOthers()
{
    QFETCH_GLOBAL(bool, tls);
    if (!tls)
        return;
    constexpr int Others = 20;
    // No connection waits for anything else.
    const auto handshakes = [this] { return int(CountersEvent::countersOf(*plugin)->waiting); };
    int left = -1;
    const LoopInALine loop(QStringLiteral("SSL Socket error"), [&] {
        for (int i = 0; i < Others; ++i) {
            QTcpSocket other;
            other.connectToHost(testAddress(), port);
            QVERIFY(QTest::qWaitFor([&] { return other.state() == QTcpSocket::ConnectedState; }));
            other.write("no TLS");
            QVERIFY(QTest::qWaitFor([&] { return other.state() == QTcpSocket::UnconnectedState; }));
        }
        left = handshakes();
        LoopInALine::leave();
    });
    QTcpSocket peer;
    peer.connectToHost(testAddress(), port);
    WAIT_FOR(peer.state() == QAbstractSocket::ConnectedState);
    peer.write(QByteArray("\x16") + QByteArray(100, 'x'));
    WAIT_FOR(LoopInALine::hasEnded());
    QFETCH_GLOBAL(QString, engine);
    QCOMPARE(left, engine == QLatin1String("own") ? 0 : 1); // its own, until the line is written
    WAIT_FOR(handshakes() == 0);
}

QTEST_GUILESS_MAIN(tst_NestedLoops)
#include "tst_nestedloops.moc"
