// SPDX-FileCopyrightText: the tcpinputplugin2 authors
// SPDX-License-Identifier: MIT

#include "plugin/exactoffers.h"
#include "tests/kit/certificates.h"
#include "tests/kit/hangguard.h"
#include "tests/kit/load.h"
#include "tests/kit/loadedplugin.h"
#include "tests/kit/tlsengines.h"

#include <QtCore/QRandomGenerator>
#include <QtCore/QTimer>
#include <QtNetwork/QSslSocket>
#include <QtTest/QtTest>

#include <algorithm>
#include <atomic>
#include <memory>
#include <numeric>
#include <vector>

namespace {

const int Devices = load(200, 40);
const int MessagesPerDevice = load(1000, 200);
constexpr int TickMs = 10;
constexpr int HandshakeMs = 20; // more than a handshake takes

//! How a host behaves.
struct Manners
{
    bool offsets = true; // value of the key "offsets"
    bool exact = false; // uses ExactOffers
    int longestDelayMs = 500; // before an offer is handled
    bool sloppy = true; // sometimes answers twice, or in parts
};

QByteArray numbered(int device, int number)
{
    return "device " + QByteArray::number(device) + " message " + QByteArray::number(number);
}

//! Counts the messages that a host has taken. A line that is no whole message counts as mangled.
class Tally
{
public:
    void take(const QByteArray &line)
    {
        const QByteArrayList words = line.split(' ');
        const int device = words.value(1).toInt();
        const int number = words.value(3).toInt();
        if (device < Devices && number < MessagesPerDevice && line == numbered(device, number))
            ++counts[static_cast<size_t>(qsizetype(device) * MessagesPerDevice + number)];
        else
            ++mangled;
    }

    qsizetype lost() const { return std::count(counts.begin(), counts.end(), 0); }
    qsizetype again() const
    {
        return std::accumulate(counts.begin(), counts.end(), qsizetype(0))
                - (qsizetype(counts.size()) - lost());
    }

    qsizetype mangled = 0;

private:
    std::vector<int> counts = std::vector<int>(static_cast<size_t>(Devices * MessagesPerDevice));
};

//! A host that takes messages from offers, as late as the contract allows.
class LateHost : public QObject
{
public:
    LateHost(IInputPlugin &inputPlugin, const Manners &hostManners, QRandomGenerator &generator)
        : plugin(inputPlugin),
          manners(hostManners),
          random(generator)
    {}

    void receive(const shared_parsedData &record)
    {
        handleLater(record);
        if (manners.exact && isSloppyNow())
            handleLater(record); // twice: only a host that detects repeats may do this
    }

    bool isIdle() const { return scheduled == 0; }

    Tally tally;

private:
    void handleLater(const shared_parsedData &record)
    {
        ++scheduled;
        const int delayMs = manners.longestDelayMs > 0 ? random.bounded(manners.longestDelayMs) : 0;
        QTimer::singleShot(delayMs, this, [this, record] {
            --scheduled;
            manners.exact ? handleExactly(record) : handlePlainly(record);
        });
    }

    void handleExactly(const shared_parsedData &record)
    {
        const auto offer = offers.open(*record);
        const QByteArray fresh = offer.fresh().toByteArray();
        qsizetype used = fresh.lastIndexOf('\n') + 1;
        if (isSloppyNow()) {
            used = fresh.indexOf('\n') + 1;
            handleLater(record); // takes the remaining messages later
        }
        takeLines(fresh.left(used));
        answer(*record, offers.consume(offer, used));
    }

    // Takes all messages of the offer, and discards all of them or only the first.
    void handlePlainly(const shared_parsedData &record)
    {
        const QByteArray bytes = record->getOriginalMessage();
        const qsizetype used = bytes.lastIndexOf('\n') + 1;
        takeLines(bytes.left(used));
        answer(*record, static_cast<int>(isSloppyNow() ? bytes.indexOf('\n') + 1 : used));
    }

    void takeLines(const QByteArray &lines)
    {
        for (qsizetype begin = 0; begin < lines.size();) {
            const qsizetype end = lines.indexOf('\n', begin);
            tally.take(lines.mid(begin, end - begin));
            begin = end + 1;
        }
    }

    void answer(const ParsedData &record, int len)
    {
        for (int n = isSloppyNow() ? 2 : 1; n > 0 && len > 0; --n)
            plugin.discard(len, record.getPluginSubId());
    }

    bool isSloppyNow() const { return manners.sloppy && random.bounded(4) == 0; }

    IInputPlugin &plugin;
    const Manners manners;
    QRandomGenerator &random;
    ExactOffers offers;
    int scheduled = 0;
};

//! Sends numbered messages in random pieces, and closes its connection at random times. If it
//! closes inside a message, it sends that message again at the start of the next connection.
class StreamingDevice : public QObject
{
public:
    StreamingDevice(int deviceNumber, QRandomGenerator &generator, quint16 serverPort, bool useTls)
        : number(deviceNumber),
          random(generator),
          port(serverPort),
          tls(useTls)
    {
        connect(&timer, &QTimer::timeout, this, &StreamingDevice::step);
        // All devices and the server share a thread. Too many handshakes at once would take longer
        // than the time-out of a handshake.
        QTimer::singleShot(tls ? number * HandshakeMs : 0, this, &StreamingDevice::open);
    }

    bool isDone() const
    {
        return sent == MessagesPerDevice && !timer.isActive() && unsent.isEmpty();
    }
    // Whether a connection has ended that this device did not close. Then bytes may be lost.
    bool isCutOff() const { return cutOff; }
    int connections() const { return opened; }

private:
    void open()
    {
        ++opened;
        socket = new QSslSocket(this);
        connect(socket, &QSslSocket::disconnected, this, [this, ended = socket] {
            ended->deleteLater();
            if (ended != socket || closing)
                return;
            qWarning("Device %d is cut off: %s", number, qPrintable(ended->errorString()));
            timer.stop();
            cutOff = true;
        });
        closing = false;
        const auto begin = [this] { timer.start(TickMs); };
        if (tls) {
            socket->setPeerVerifyMode(QSslSocket::VerifyNone);
            connect(socket, &QSslSocket::encrypted, &timer, begin);
            socket->connectToHostEncrypted(testAddress().toString(), port);
        } else {
            connect(socket, &QSslSocket::connected, &timer, begin);
            socket->connectToHost(testAddress(), port);
        }
    }

    void step()
    {
        for (int n = random.bounded(20); n > 0 && sent < MessagesPerDevice; --n, ++sent)
            unsent += numbered(number, sent) + '\n';
        const bool last = sent == MessagesPerDevice;
        send(last ? unsent.size() : random.bounded(static_cast<int>(unsent.size()) + 1));
        if (!last && random.bounded(20) > 0)
            return;
        timer.stop();
        closing = true;
        socket->disconnectFromHost();
        if (last)
            return;
        unsent.prepend(begun);
        begun.clear();
        open();
    }

    void send(qsizetype size)
    {
        const QByteArray piece = unsent.left(size);
        socket->write(piece);
        unsent.remove(0, size);
        begun += piece;
        begun.remove(0, begun.lastIndexOf('\n') + 1);
    }

    const int number;
    QRandomGenerator &random;
    const quint16 port;
    const bool tls;
    QTimer timer;
    QSslSocket *socket = nullptr;
    QByteArray unsent;
    QByteArray begun; // the sent part of an incomplete message
    int sent = 0;
    int opened = 0;
    bool closing = false;
    bool cutOff = false;
};

//! Counts the connections whose end the plugin logs. Passes on only warnings. One at a time.
class EndCounter
{
public:
    EndCounter()
    {
        ended = 0;
        previous = qInstallMessageHandler(&EndCounter::handle);
    }
    ~EndCounter() { qInstallMessageHandler(previous); }
    Q_DISABLE_COPY_MOVE(EndCounter)

    static int count() { return ended; }

private:
    static void handle(QtMsgType level, const QMessageLogContext &context, const QString &text)
    {
        if (text.contains(QLatin1String("TcpClient: closing connection ")))
            ++ended;
        if (level != QtDebugMsg && level != QtInfoMsg)
            previous(level, context, text);
    }

    static inline std::atomic<int> ended = 0;
    static inline QtMessageHandler previous = nullptr; // set before other threads start
};

bool hasConnections(IInputPlugin &plugin)
{
    return plugin.getStatus().contains(QLatin1String("tcp2:"));
}

} // namespace

Q_DECLARE_METATYPE(Manners)

/*!
    What several kinds of hosts receive from many devices. With FULL_LOAD in the environment: 200
    devices with 1,000 messages each.

    With LATEHOSTS_FIGURES in the environment, also hosts without "offsets". They show what goes
    wrong; the test requires nothing of them.
*/
class tst_LateHosts : public QObject
{
    Q_OBJECT

private Q_SLOTS:
    void messages_data();
    void messages();
};

void tst_LateHosts::messages_data()
{
    QTest::addColumn<Manners>("manners");
    QTest::addColumn<QString>("engine"); // of TLS; empty: TCP

    QStringList engines{QString()};
    for (const char *engine : TlsEngines)
        engines.append(QString::fromLatin1(engine));
    for (const QString &tls : std::as_const(engines)) {
        const QByteArray name = tls.isEmpty() ? QByteArray("TCP") : "TLS, " + tls.toLatin1();
        const char *const transport = name.constData();
        QTest::addRow("exact, %s", transport) << Manners{true, true, 500, true} << tls;
        QTest::addRow("plain with offsets, %s", transport)
                << Manners{true, false, 500, true} << tls;
        if (!qEnvironmentVariableIsSet("LATEHOSTS_FIGURES"))
            continue;
        QTest::addRow("plain, sloppy, %s", transport) << Manners{false, false, 500, true} << tls;
        QTest::addRow("plain, late, %s", transport) << Manners{false, false, 500, false} << tls;
        QTest::addRow("plain, at once, %s", transport) << Manners{false, false, 0, false} << tls;
    }
}

void tst_LateHosts::messages()
{
    QFETCH(Manners, manners);
    QFETCH(QString, engine);
    const bool tls = !engine.isEmpty();
    const quint32 seed = QRandomGenerator::global()->generate();
    QRandomGenerator random(seed);
    const quint16 port = freePort();
    QJsonObject config = tcpConfig(port);
    config.insert(QStringLiteral("offsets"), manners.offsets);
    if (tls)
        config.insert(QStringLiteral("ssl"), withEngine(serverTls(), engine));
    LoadedLibrary library;
    const auto plugin = library.create(config);
    LateHost host(*plugin, manners, random);
    connect(plugin.get(), &IInputPlugin::receivedData, &host, &LateHost::receive);
    QVERIFY(plugin->start());
    QVERIFY(isListening(*plugin));

    std::vector<std::unique_ptr<StreamingDevice>> devices;
    int connections = 0;
    bool ended = false;
    {
        const EndCounter counter;
        for (int n = 0; n < Devices; ++n)
            devices.push_back(std::make_unique<StreamingDevice>(n, random, port, tls));
        const auto isSent = [&] {
            return std::all_of(devices.begin(), devices.end(),
                               [](const auto &device) { return device->isDone(); });
        };
        const auto isEnded = [&] { return EndCounter::count() >= connections; };
        // A client's last record is posted to this thread before the client leaves the status text.
        const auto isQuiet = [&] { return !hasConnections(*plugin); };
        const auto isCutOff = [&] {
            return std::any_of(devices.begin(), devices.end(),
                               [](const auto &device) { return device->isCutOff(); });
        };
        ended = QTest::qWaitFor([&] { return isSent() || isCutOff(); }, LoadHangGuardMs)
                && isSent();
        for (const auto &device : devices)
            connections += device->connections();
        ended = ended && QTest::qWaitFor(isEnded, LoadHangGuardMs)
                && QTest::qWaitFor(isQuiet, LoadHangGuardMs);
        QCoreApplication::sendPostedEvents();
        ended = ended && QTest::qWaitFor([&] { return host.isIdle(); }, LoadHangGuardMs);
    }
    const Tally &tally = host.tally;
    qInfo("%d connections, %d messages: %lld lost, %lld seen again, %lld mangled (seed %u)",
          connections, Devices * MessagesPerDevice, static_cast<long long>(tally.lost()),
          static_cast<long long>(tally.again()), static_cast<long long>(tally.mangled), seed);
    QVERIFY(ended);
    if (!manners.offsets)
        return;
    QCOMPARE(tally.lost(), 0);
    QCOMPARE(tally.mangled, 0);
    if (manners.exact)
        QCOMPARE(tally.again(), 0);
}

QTEST_GUILESS_MAIN(tst_LateHosts)
#include "tst_latehosts.moc"
