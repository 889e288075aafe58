// SPDX-FileCopyrightText: the tcpinputplugin2 authors
// SPDX-License-Identifier: MIT

#include "tests/kit/hangguard.h"
#include "tests/kit/load.h"
#include "tests/kit/loadedplugin.h"
#include "tests/kit/loglines.h"
#include "tests/kit/numberedmessages.h"
#include "tests/kit/tlsdevice.h"
#include "tests/kit/tlsengines.h"

#include <QtCore/QRandomGenerator>
#include <QtCore/QRegularExpression>
#include <QtCore/QThreadPool>
#include <QtTest/QtTest>

#include <algorithm>
#include <atomic>

namespace {

const int Connections = load(3000, 300);
constexpr int Parallel = 50;
constexpr int PoolSize = 4;
constexpr int StallMs = 20;

enum class Pattern { WithHandshake, SendAndClose, TwoHalves, SmallWrites, CloseOnly };
constexpr int Patterns = 5;
constexpr int MessagesPerDevice = 20; // CloseOnly sends none

int messagesOf(Pattern pattern)
{
    return pattern == Pattern::CloseOnly ? 0 : MessagesPerDevice;
}

QByteArray messages(int device, int first, int end)
{
    QByteArray result;
    for (int number = first; number < end; ++number)
        result += numberedMessage(device, number);
    return result;
}

void send(TlsDevice &device, Pattern pattern, int number)
{
    switch (pattern) {
    case Pattern::WithHandshake: // with TLS 1.3 the handshake's last flight is not sent yet
    case Pattern::SendAndClose:
        device.write(messages(number, 0, MessagesPerDevice));
        break;
    case Pattern::TwoHalves:
        device.write(messages(number, 0, MessagesPerDevice / 2));
        device.flush();
        QThread::msleep(50); // part of the pattern: the first half arrives alone
        device.write(messages(number, MessagesPerDevice / 2, MessagesPerDevice));
        break;
    case Pattern::SmallWrites:
        for (int n = 0; n < MessagesPerDevice; ++n) {
            device.write(messages(number, n, n + 1));
            device.flush();
        }
        break;
    case Pattern::CloseOnly:
        break;
    }
}

//! Runs devices in a pool of threads, Parallel at a time.
class Fleet
{
public:
    Fleet(const QHostAddress &serverAddress, quint16 serverPort, int count)
        : address(serverAddress),
          port(serverPort)
    {
        pool.setMaxThreadCount(Parallel);
        for (int number = 0; number < count; ++number)
            pool.start([this, number] { play(number); });
    }
    ~Fleet() { pool.waitForDone(); }
    Q_DISABLE_COPY_MOVE(Fleet)

    bool isDone() { return pool.waitForDone(0); }
    int failed() const { return failures; }
    QStringList ends() // "address:port" of each device
    {
        const QMutexLocker locker(&mutex);
        return names;
    }

private:
    void play(int number)
    {
        // Each pattern is played with both TLS versions.
        TlsDevice device((number / Patterns) % 2 == 0 ? TLS1_2_VERSION : TLS1_3_VERSION);
        const auto pattern = static_cast<Pattern>(number % Patterns);
        if (!device.connect(address, port) || !device.handshake()) {
            ++failures;
            return;
        }
        remember(device.socket);
        if (pattern != Pattern::WithHandshake)
            device.flush();
        send(device, pattern, number);
        if (pattern != Pattern::WithHandshake)
            device.writeCloseNotify();
        device.flush();
        device.socket.finish();
        if (!device.waitForEnd()) // reads all: closing with unread bytes would be a reset
            ++failures;
    }
    void remember(const NativeSocket &socket)
    {
        NativeAddress end;
        ::getsockname(socket.descriptor(), end.data(), &end.length);
        const QString name = QHostAddress(end.data()).toString() + QLatin1Char(':')
                + QString::number(end.port());
        const QMutexLocker locker(&mutex);
        names.append(name);
    }

    const QHostAddress address;
    const quint16 port;
    QThreadPool pool;
    std::atomic<int> failures{0};
    QMutex mutex;
    QStringList names; // guarded by mutex
};

} // namespace

/*!
    Finished TLS connections on their way from the plugin's thread to the workers.
*/
class tst_TlsHandover : public QObject
{
    Q_OBJECT

private Q_SLOTS:
    void initTestCase_data();
    void losesNothing_data();
    void losesNothing();

private:
    void verifyRecord(const shared_parsedData &record);
    void verifyLog(const QStringList &log, QStringList ends);

    int badRecords = 0;
};

void tst_TlsHandover::initTestCase_data()
{
    QTest::addColumn<QString>("engine");
    for (const char *engine : TlsEngines)
        QTest::newRow(engine) << QString::fromLatin1(engine);
}

void tst_TlsHandover::losesNothing_data()
{
    QTest::addColumn<bool>("stalls");
    QTest::newRow("plugin's thread at hand") << false;
    QTest::newRow("plugin's thread stalls") << true;
}

void tst_TlsHandover::losesNothing()
{
    QFETCH_GLOBAL(QString, engine);
    QFETCH(bool, stalls);
    const quint16 port = freePort();
    QJsonObject config = tcpConfig(port);
    config.insert(QStringLiteral("ssl"), withEngine(serverTls(), engine));
    config.insert(QStringLiteral("threadpoolSize"), PoolSize);
    const MessageCapture capture;
    LoadedLibrary library;
    const auto plugin = library.create(config);
    NumberedHost host;
    badRecords = 0;
    connect(plugin.get(), &IInputPlugin::receivedData, this, [&](const shared_parsedData &record) {
        verifyRecord(record);
        host.receive(*plugin, record);
    });
    QVERIFY(plugin->start());
    QVERIFY(isListening(*plugin));

    QTimer stall;
    connect(&stall, &QTimer::timeout, this, [&stall] {
        QThread::msleep(StallMs);
        stall.setInterval(QRandomGenerator::global()->bounded(2 * StallMs));
    });
    if (stalls)
        stall.start(StallMs);

    qsizetype expected = 0;
    for (int number = 0; number < Connections; ++number)
        expected += messagesOf(static_cast<Pattern>(number % Patterns));
    Fleet fleet(testAddress(), port, Connections);
    QStringList log;
    const QString closing = QStringLiteral("TcpClient: closing connection");
    qsizetype closed = 0;
    const auto isOver = [&] {
        const QStringList lines = takeLog();
        closed += lines.filter(closing).size();
        log += lines;
        return fleet.isDone() && closed >= Connections && host.received() >= expected;
    };
    const bool over = QTest::qWaitFor(isOver, LoadHangGuardMs);
    QCOMPARE(fleet.failed(), 0);
    QCOMPARE(host.received(), expected);
    QCOMPARE(host.missing(), 0);
    QCOMPARE(closed, Connections);
    QVERIFY(over);
    QCOMPARE(badRecords, 0);
    verifyLog(log, fleet.ends());
}

void tst_TlsHandover::verifyRecord(const shared_parsedData &record)
{
    const QString id = record->getPluginSubIdKey(QStringLiteral("client"));
    const QString peer =
            QStringLiteral("-%1:%2").arg(record->getPeerAddress()).arg(record->getPeerPort());
    if (record->getPeerAddress().isEmpty() || record->getPeerPort() == 0 || !id.endsWith(peer)
        || record->getSource() != QLatin1String("TCP:") + id)
        ++badRecords;
}

void tst_TlsHandover::verifyLog(const QStringList &log, QStringList ends)
{
    QCOMPARE(log.filter(QRegularExpression(QStringLiteral("^[WCFwcf]: "))), QStringList());

    // Each device appears under its own address.
    const QString begin = QStringLiteral("D: TcpTask2: new connection tcp2:");
    QStringList seen;
    const QStringList lines = log.filter(begin);
    for (const QString &line : lines)
        seen.append(line.section(QLatin1Char('-'), 1));
    std::sort(seen.begin(), seen.end());
    std::sort(ends.begin(), ends.end());
    QCOMPARE(seen, ends);

    // Strict round robin: the tasks' numbers of clients differ by at most one.
    for (int task = 0; task < PoolSize; ++task) {
        const qsizetype share =
                log.filter(QStringLiteral("D: TcpTask2 (%1): new client added").arg(task)).size();
        QCOMPARE(share, (ends.size() + PoolSize - 1 - task) / PoolSize);
    }
}

QTEST_GUILESS_MAIN(tst_TlsHandover)
#include "tst_tlshandover.moc"
