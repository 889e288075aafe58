// SPDX-FileCopyrightText: the tcpinputplugin2 authors
// SPDX-License-Identifier: MIT

#include "certificates.h"
#include "tcpinput/tcpinputplugin2.h"
#include "tests/testaddress.h"

#include <QtCore/QCoreApplication>
#include <QtNetwork/QSslSocket>
#include <QtTest/QTest>

#include <algorithm>
#include <atomic>
#include <memory>

namespace {

constexpr int HangGuardMs = 60000;

/*!
    A host's message handler that runs the event loop of a worker thread inside of a line: until it
    is told to leave, and a few turns more.
*/
class LoopInALine
{
public:
    explicit LoopInALine(const QString &text) : previous(qInstallMessageHandler(&handle))
    {
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
        while (!leaving)
            QCoreApplication::processEvents(QEventLoop::AllEvents, 10);
        for (int turn = 0; turn < 20; ++turn)
            QCoreApplication::processEvents(QEventLoop::AllEvents, 1);
        left = true;
    }

    const QtMessageHandler previous;

    static inline QString wanted;
    static inline std::atomic<bool> entered = false;
    static inline std::atomic<bool> leaving = false;
    static inline std::atomic<bool> left = false;
};

#define WAIT_FOR(condition) QTRY_VERIFY_WITH_TIMEOUT(condition, HangGuardMs)

} // namespace

// Hosts whose message handler runs the event loop, in the thread that writes the line. What comes
// in there may be the end of the connection or of the task whose line it is.
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

private:
    static void addLines();
    void connectDevice();
    void bringAboutTheLine();
    bool hasClients() const { return plugin->getStatus().contains(QLatin1String("tcp2:")); }
    bool allIsOffered() const;

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
    QTest::newRow("tcp") << false;
    QTest::newRow("tls") << true;
}

void tst_NestedLoops::init()
{
    QFETCH_GLOBAL(bool, tls);
    useTls = tls;
    port = freePort();
    QJsonObject config{{QStringLiteral("ipAddr"), testAddress().toString()},
                       {QStringLiteral("port"), port},
                       {QStringLiteral("timeout"), 1},
                       {QStringLiteral("threadpoolSize"), 1}};
    if (useTls)
        config.insert(QStringLiteral("ssl"), serverTls());
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

void tst_NestedLoops::connectDevice()
{
    device = std::make_unique<QSslSocket>();
    device->setPeerVerifyMode(QSslSocket::VerifyNone);
    if (useTls)
        device->connectToHostEncrypted(testAddress().toString(), port);
    else
        device->connectToHost(testAddress(), port);
    WAIT_FOR(useTls ? device->isEncrypted() : device->state() == QAbstractSocket::ConnectedState);
}

// In the worker, whose thread is in that line when this returns.
void tst_NestedLoops::bringAboutTheLine()
{
    QFETCH(QString, line);
    connectDevice();
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
    if (line != QLatin1String("closing")) // is the end already
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
    // What no worker has taken yet is dropped.
    QVERIFY(allIsOffered() || line == QLatin1String("Handling"));
}

QTEST_GUILESS_MAIN(tst_NestedLoops)
#include "tst_nestedloops.moc"
