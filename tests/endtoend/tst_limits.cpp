// SPDX-FileCopyrightText: the tcpinputplugin2 authors
// SPDX-License-Identifier: MIT

#include "tests/kit/certificates.h"
#include "tests/kit/hangguard.h"
#include "tests/kit/loadedplugin.h"
#include "tests/kit/loglines.h"
#include "tests/kit/nativesocket.h"
#include "tests/kit/tlsdevice.h"

#include <QtTest/QtTest>

#include <atomic>
#include <deque>
#include <thread>

namespace {

constexpr int KiB = 1024;
constexpr int MiB = 1024 * KiB;

//! Sends bytes that all differ in their places, in a thread of its own, plain or by TLS.
class Sender
{
public:
    Sender(quint16 port, int tlsVersion, qsizetype bytes)
        : thread([this, port, tlsVersion, bytes] { run(port, tlsVersion, bytes); })
    {}
    ~Sender()
    {
        stays = false;
        ::shutdown(descriptor, SHUT_RDWR); // if it still sends
        thread.join();
    }
    Q_DISABLE_COPY_MOVE(Sender)

    // The next bytes of the stream.
    static QByteArray part(qsizetype begin, qsizetype size)
    {
        QByteArray bytes(size, Qt::Uninitialized);
        for (qsizetype i = 0; i < size; ++i)
            bytes[i] = static_cast<char>((begin + i) * 7919 >> 8);
        return bytes;
    }

    std::atomic<qsizetype> sent = 0; // that the kernel took
    std::atomic<bool> stays = true; // does not close at the end until this is false
    std::atomic<bool> resets = false; // instead of closing
    std::atomic<bool> finished = false; // with sending

private:
    void run(quint16 port, int tlsVersion, qsizetype bytes)
    {
        constexpr qsizetype PieceBytes = 16000;
        TlsDevice tls(tlsVersion == 0 ? TLS1_3_VERSION : tlsVersion);
        NativeSocket plain;
        NativeSocket &socket = tlsVersion == 0 ? plain : tls.socket;
        if (tlsVersion == 0)
            plain = NativeSocket::connectedTo(testAddress(), port);
        else if (!tls.connect(testAddress(), port) || !tls.handshake())
            return;
        descriptor = socket.descriptor();
        while (sent < bytes) {
            const QByteArray piece = part(sent, qMin(PieceBytes, bytes - sent));
            bool done = false;
            if (tlsVersion == 0) {
                done = socket.send(piece);
            } else {
                tls.write(piece);
                done = tls.flush();
            }
            if (!done)
                break;
            sent += piece.size();
        }
        finished = true;
        while (stays)
            QThread::msleep(1);
        if (resets)
            socket.reset();
    }

    std::atomic<int> descriptor = -1;
    std::thread thread; // the last: it uses the others
};

} // namespace

/*!
    The limits of buffers, through the loaded library.
*/
class tst_Limits : public QObject
{
    Q_OBJECT

private Q_SLOTS:
    void init();
    void cleanup();

    void connectionBuffer_data() { transports(); }
    void connectionBuffer();
    void goesOnAtHalf();
    void recordsCount_data() { transports(); }
    void recordsCount();
    void recordsThatWaitAreMerged();
    void longMessagesGetThrough_data() { transports(); }
    void longMessagesGetThrough();
    void totalBuffer_data() { transports(); }
    void totalBuffer();
    void largestStopFirst();
    void stalledTimeout_data() { transports(); }
    void stalledTimeout();
    void pauseIsNoIdleTime();
    void endOfAPausedConnection_data() { transports(); }
    void endOfAPausedConnection();
    void resetOfAPausedConnection();
    void stopWhilePaused_data() { transports(); }
    void stopWhilePaused();
    void destructionWhilePaused_data() { transports(); }
    void destructionWhilePaused();
    void statusTells();
    void refusesOtherValues_data();
    void refusesOtherValues();

private:
    static void transports();
    void start(const QJsonObject &limits, QJsonObject more = {});
    bool isQuiet() const; // nothing new has come for a while that is long for a machine

    // What a connection's records have brought, without repeats, and what was wrong with it.
    struct Stream
    {
        qsizetype size = 0;
        qsizetype longest = 0; // record
        int records = 0;
        QString end;
        bool intact = true;
    };
    void take(const shared_parsedData &record);
    const Stream &only() const { return streams.first(); }
    bool serve(const std::function<bool()> &condition)
    {
        return QTest::qWaitFor(condition, HangGuardMs);
    }
    void discardAll();

    LoadedLibrary library;
    quint16 port = 0;
    std::unique_ptr<IInputPlugin> plugin;
    IInputPlugin *input = nullptr; // the same; not null in its destructor
    QMap<QString, Stream> streams; // by connection
    // Likewise: what is to be discarded. Not the record, which would count.
    QMap<QString, std::pair<int, QMap<QString, QString>>> latest;
    std::deque<shared_parsedData> kept; // if keeps
    bool keeps = false;
    bool consumes = false; // at once
    qsizetype consumed = 0; // whole messages, of the only connection
    std::unique_ptr<MessageCapture> capture;
    QElapsedTimer sinceFresh;
};

void tst_Limits::init()
{
    port = freePort();
    capture = std::make_unique<MessageCapture>();
    keeps = consumes = false;
    consumed = 0;
    sinceFresh.start();
}

void tst_Limits::cleanup()
{
    plugin.reset();
    streams.clear();
    latest.clear();
    kept.clear();
    capture.reset();
}

void tst_Limits::transports()
{
    QTest::addColumn<int>("tls");
    QTest::newRow("TCP") << 0;
    QTest::newRow("TLS 1.2") << TLS1_2_VERSION;
    QTest::newRow("TLS 1.3") << TLS1_3_VERSION;
}

void tst_Limits::start(const QJsonObject &limits, QJsonObject more)
{
    const QJsonObject base = tcpConfig(port);
    for (auto entry = base.begin(); entry != base.end(); ++entry)
        more.insert(entry.key(), *entry);
    more.insert(QStringLiteral("limits"), limits);
    more.insert(QStringLiteral("offsets"), true);
    more.insert(QStringLiteral("ends"), true);
    if (QTest::currentDataTag() && QByteArray(QTest::currentDataTag()).startsWith("TLS"))
        more.insert(QStringLiteral("ssl"), serverTls());
    plugin = library.create(more);
    input = plugin.get();
    connect(input, &IInputPlugin::receivedData, this, &tst_Limits::take);
    QVERIFY(plugin->start());
    QVERIFY(isListening(*plugin));
}

void tst_Limits::take(const shared_parsedData &record)
{
    const QString connection = record->getPluginSubIdKey(QStringLiteral("connection"));
    const qsizetype offset = record->getPluginSubIdKey(QStringLiteral("offset")).toLongLong();
    Stream &stream = streams[connection];
    if (const QString end = record->getPluginSubIdKey(QStringLiteral("end")); !end.isNull()) {
        stream.intact = stream.intact && stream.end.isNull() && stream.size == offset;
        stream.end = end;
        return;
    }
    const QByteArray bytes = record->getOriginalMessage();
    const qsizetype fresh = offset + bytes.size() - stream.size;
    stream.intact = stream.intact && stream.end.isNull() && offset <= stream.size
            && (fresh <= 0 || bytes.last(fresh) == Sender::part(stream.size, fresh));
    stream.size += qMax<qsizetype>(fresh, 0);
    if (fresh > 0)
        sinceFresh.start();
    stream.longest = qMax(stream.longest, bytes.size());
    ++stream.records;
    if (keeps)
        kept.push_back(record);
    if (consumes)
        input->discard(static_cast<int>(bytes.size()), record->getPluginSubId());
    else
        latest.insert(connection, {record->getDataLength(), record->getPluginSubId()});
}

void tst_Limits::discardAll()
{
    const auto all = std::exchange(latest, {});
    for (const auto &[length, subid] : all)
        input->discard(length, subid);
}

bool tst_Limits::isQuiet() const
{
    return sinceFresh.elapsed() > 1000;
}

void tst_Limits::connectionBuffer()
{
    QFETCH(int, tls);
    constexpr qsizetype Bytes = 40 * MiB; // more than the kernel's buffers hold
    start({{QStringLiteral("connectionBuffer"), MiB}});
    Sender sender(port, tls, Bytes);
    // Nothing consumes: the sender comes to a halt.
    qsizetype before = -1;
    QVERIFY(serve([&] { return !streams.isEmpty() && only().size >= MiB; }));
    QVERIFY(serve([&] {
        const qsizetype now = sender.sent;
        QTest::qWait(200);
        return now == sender.sent && std::exchange(before, now) == now;
    }));
    QVERIFY(sender.sent < Bytes);
    QVERIFY2(only().longest < MiB + 256 * KiB, qPrintable(QString::number(only().longest)));

    consumes = true;
    discardAll();
    QVERIFY(serve([&] { return only().size == Bytes; }));
    sender.stays = false;
    QVERIFY(serve([&] { return !only().end.isNull(); }));
    QCOMPARE(only().end, QStringLiteral("peer"));
    QVERIFY(only().intact);
}

void tst_Limits::goesOnAtHalf()
{
    constexpr qsizetype Bytes = 40 * MiB;
    start({{QStringLiteral("connectionBuffer"), MiB}});
    Sender sender(port, 0, Bytes);
    QVERIFY(serve([&] { return !streams.isEmpty() && only().longest >= MiB; }));
    const qsizetype held = only().size;
    // Leaves more than half: the remainder is offered, and nothing is read.
    input->discard(300 * KiB, latest.first().second);
    const int records = only().records;
    QVERIFY(serve([&] { return only().records > records; }));
    QTest::qWait(100);
    QCOMPARE(only().size, held);
    discardAll();
    QVERIFY(serve([&] { return only().size > held; }));
    consumes = true;
    discardAll();
    QVERIFY(serve([&] { return only().size == Bytes; }));
    QVERIFY(only().intact);
    sender.stays = false;
}

// What was consumed counts as long as the host keeps the records.
void tst_Limits::recordsCount()
{
    QFETCH(int, tls);
    constexpr qsizetype Bytes = 40 * MiB;
    start({{QStringLiteral("connectionBuffer"), MiB}});
    keeps = consumes = true;
    Sender sender(port, tls, Bytes);
    QVERIFY(serve([&] { return !streams.isEmpty() && only().size >= MiB / 2; }));
    QVERIFY(serve([&] { return isQuiet(); }));
    qint64 inRecords = 0;
    for (const shared_parsedData &record : kept)
        inRecords += record->getDataLength();
    QVERIFY2(inRecords < MiB + 512 * KiB, qPrintable(QString::number(inRecords)));
    QVERIFY(only().size < Bytes);

    keeps = false;
    kept.clear();
    QVERIFY(serve([&] { return only().size == Bytes; }));
    QVERIFY(only().intact);
    sender.stays = false;
}

// As long as the host stands still, a connection has one record on its way to it.
void tst_Limits::recordsThatWaitAreMerged()
{
    start({{QStringLiteral("connectionBuffer"), MiB}}, {{QStringLiteral("prompt"), true}});
    NativeSocket device = NativeSocket::connectedTo(testAddress(), port);
    QVERIFY(device.send(Sender::part(0, 100)));
    QVERIFY(serve([&] { return !streams.isEmpty(); }));
    for (int i = 1; i < 8; ++i) { // each would be offered by itself
        QThread::msleep(250);
        QVERIFY(device.send(Sender::part(100 * i, 100)));
    }
    QThread::msleep(250);
    QCOMPARE(only().records, 1);
    QVERIFY(serve([&] { return only().size == 800; }));
    QVERIFY2(only().records <= 4, qPrintable(QString::number(only().records)));
    QVERIFY(only().intact);
}

// A host that waits for the rest of a message has no records, but many bytes that are not consumed.
void tst_Limits::longMessagesGetThrough()
{
    QFETCH(int, tls);
    constexpr qsizetype Bytes = 30 * MiB;
    constexpr qsizetype MessageBytes = 900 * KiB;
    start({{QStringLiteral("connectionBuffer"), MiB}}, {{QStringLiteral("prompt"), true}});
    connect(input, &IInputPlugin::receivedData, this, [this](const shared_parsedData &record) {
        const qsizetype offset = record->getPluginSubIdKey(QStringLiteral("offset")).toLongLong();
        const qsizetype end = offset + record->getDataLength();
        if (end - consumed < MessageBytes)
            return;
        consumed += (end - consumed) / MessageBytes * MessageBytes;
        input->discard(static_cast<int>(consumed - offset), record->getPluginSubId());
    });
    Sender sender(port, tls, Bytes);
    QVERIFY(serve([&] { return !streams.isEmpty() && only().size == Bytes; }));
    QVERIFY(only().intact);
    sender.stays = false;
}

void tst_Limits::totalBuffer()
{
    QFETCH(int, tls);
    constexpr qsizetype Bytes = 20 * MiB;
    constexpr int Devices = 6;
    start({{QStringLiteral("totalBuffer"), 2 * MiB}});
    std::deque<Sender> senders;
    for (int i = 0; i < Devices; ++i)
        senders.emplace_back(port, tls, Bytes);
    // The last ones may get nothing: nothing is consumed.
    QVERIFY(serve([&] { return !streams.isEmpty() && isQuiet(); }));
    qsizetype held = 0;
    for (const Stream &stream : std::as_const(streams))
        held += stream.size;
    QVERIFY2(held < 2 * MiB + Devices * 128 * KiB, // that much Qt decrypts ahead
             qPrintable(QString::number(held)));
    QVERIFY2(held > MiB, qPrintable(QString::number(held)));

    consumes = true;
    discardAll();
    QVERIFY(serve([&] {
        return streams.size() == Devices
                && std::all_of(streams.cbegin(), streams.cend(),
                               [](const Stream &stream) { return stream.size == Bytes; });
    }));
    for (const Stream &stream : std::as_const(streams))
        QVERIFY(stream.intact);
    for (Sender &sender : senders)
        sender.stays = false;
}

// A small connection goes on while a large one is paused.
void tst_Limits::largestStopFirst()
{
    start({{QStringLiteral("totalBuffer"), 2 * MiB}});
    Sender large(port, 0, 40 * MiB);
    QVERIFY(serve([&] { return !streams.isEmpty() && only().size > MiB && isQuiet(); }));
    const QString first = streams.firstKey();
    const qsizetype stopped = streams[first].size;

    Sender small(port, 0, 10 * KiB);
    QVERIFY(serve([&] {
        return streams.size() == 2
                && streams.first().size + streams.last().size == stopped + 10 * KiB;
    }));
    large.stays = small.stays = false;
    consumes = true;
    discardAll();
    QVERIFY(serve([&] { return streams[first].size == 40 * MiB; }));
}

void tst_Limits::stalledTimeout()
{
    QFETCH(int, tls);
    start({{QStringLiteral("connectionBuffer"), 64 * KiB}, {QStringLiteral("stalledTimeout"), 1}});
    Sender sender(port, tls, 40 * MiB);
    QVERIFY(serve([&] { return !streams.isEmpty() && !only().end.isNull(); }));
    QCOMPARE(only().end, QStringLiteral("limit"));
    QVERIFY(only().intact);
    const QStringList lines = takeLog().filter(QStringLiteral("nothing consumed"));
    QCOMPARE(lines.size(), 1);
    QVERIFY(lines.first().startsWith(QStringLiteral("W: TcpClient2 (tcp2:")));
    QVERIFY(lines.first().endsWith(
            QStringLiteral("): paused for 1 s and nothing consumed, closing")));
    sender.stays = false;
}

void tst_Limits::pauseIsNoIdleTime()
{
    start({{QStringLiteral("connectionBuffer"), 64}}, {{QStringLiteral("timeout"), 1}});
    Sender sender(port, 0, 200);
    QVERIFY(serve([&] { return !streams.isEmpty() && only().size >= 64; }));
    const int records = only().records;
    QTest::qWait(2500); // of 64 bytes there are no kicks
    QCOMPARE(only().records, records);
    QVERIFY(only().end.isNull());
    consumes = true;
    discardAll();
    QVERIFY(serve([&] { return only().end == QLatin1String("idle"); }));
    QCOMPARE(only().size, 200);
    QVERIFY(only().intact);
    sender.stays = false;
}

// The end is noticed, and all that the kernel has is offered.
void tst_Limits::endOfAPausedConnection()
{
    QFETCH(int, tls);
    constexpr qsizetype Bytes = 48 * KiB; // the kernel has room for them
    start({{QStringLiteral("connectionBuffer"), 16 * KiB}});
    Sender sender(port, tls, Bytes);
    QVERIFY(serve([&] { return !streams.isEmpty() && sender.finished; }));
    QVERIFY(serve([&] { return isQuiet(); }));
    QVERIFY(tls != 0 || only().size < Bytes); // Qt decrypts that much ahead
    sender.stays = false;
    QVERIFY(serve([&] { return !only().end.isNull(); }));
    QCOMPARE(only().end, QStringLiteral("peer"));
    QCOMPARE(only().size, Bytes);
    QVERIFY(only().intact);
}

void tst_Limits::resetOfAPausedConnection()
{
    start({{QStringLiteral("connectionBuffer"), 16 * KiB}});
    Sender sender(port, 0, 48 * KiB);
    sender.resets = true;
    QVERIFY(serve([&] { return !streams.isEmpty() && sender.finished; }));
    sender.stays = false;
    QVERIFY(serve([&] { return !only().end.isNull(); }));
    QCOMPARE(only().end, QStringLiteral("reset"));
    QVERIFY(only().size >= 16 * KiB);
    QVERIFY(only().intact);
}

void tst_Limits::stopWhilePaused()
{
    QFETCH(int, tls);
    constexpr qsizetype Bytes = 48 * KiB; // the kernel has room for them
    start({{QStringLiteral("connectionBuffer"), 16 * KiB}});
    Sender sender(port, tls, Bytes);
    QVERIFY(serve([&] { return !streams.isEmpty() && sender.finished; }));
    plugin->stop();
    QVERIFY(serve([&] { return !only().end.isNull(); }));
    QCOMPARE(only().end, QStringLiteral("stop"));
    QCOMPARE(only().size, Bytes);
    QVERIFY(only().intact);
    sender.stays = false;
}

void tst_Limits::destructionWhilePaused()
{
    QFETCH(int, tls);
    constexpr qsizetype Bytes = 48 * KiB; // the kernel has room for them
    start({{QStringLiteral("connectionBuffer"), 16 * KiB}});
    keeps = true;
    Sender sender(port, tls, Bytes);
    QVERIFY(serve([&] { return !streams.isEmpty() && sender.finished; }));
    plugin.reset();
    QCOMPARE(only().end, QStringLiteral("stop"));
    QCOMPARE(only().size, Bytes);
    QVERIFY(only().intact);
    kept.clear(); // records outlive the plugin
    sender.stays = false;
}

void tst_Limits::statusTells()
{
    start({{QStringLiteral("connectionBuffer"), 100}});
    QVERIFY(plugin->getStatus().endsWith(
            QStringLiteral("Limits: 0 bytes held, 0 connections paused\r\n")));
    Sender sender(port, 0, 1000);
    QVERIFY(serve([&] { return !streams.isEmpty() && only().size >= 100; }));
    QVERIFY(plugin->getStatus().endsWith(
            QStringLiteral("Limits: 100 bytes held, 1 connections paused\r\n")));
    sender.stays = false;
    QVERIFY(serve([&] { return !only().end.isNull(); }));
    QVERIFY(serve([&] {
        return plugin->getStatus().endsWith(
                QStringLiteral("Limits: 0 bytes held, 0 connections paused\r\n"));
    }));
}

void tst_Limits::refusesOtherValues_data()
{
    QTest::addColumn<QJsonValue>("limits");
    QTest::addColumn<QString>("line");
    const auto row = [](const char *name, const QJsonValue &limits, const char *line) {
        QTest::newRow(name) << limits << QString::fromLatin1(line);
    };
    row("no object", QJsonValue(1), "limits is 1, accepted: an object");
    row("no number", QJsonObject{{QStringLiteral("connectionBuffer"), QStringLiteral("4M")}},
        "limits.connectionBuffer is \"4M\", accepted: 1 to 9007199254740991");
    row("zero", QJsonObject{{QStringLiteral("totalBuffer"), 0}},
        "limits.totalBuffer is 0, accepted: 1 to 9007199254740991");
    row("fraction", QJsonObject{{QStringLiteral("stalledTimeout"), 0.5}},
        "limits.stalledTimeout is 0.5, accepted: 1 to 2147483647");
    row("unknown", QJsonObject{{QStringLiteral("ConnectionBuffer"), 1}},
        "unknown key limits.ConnectionBuffer, accepted: connectionBuffer, stalledTimeout, "
        "totalBuffer");
}

void tst_Limits::refusesOtherValues()
{
    QFETCH(QJsonValue, limits);
    QFETCH(QString, line);
    QJsonObject config = tcpConfig(port);
    config.insert(QStringLiteral("limits"), limits);
    plugin = library.create(config);
    QVERIFY(!plugin->start());
    QCOMPARE(takeLog(),
             QStringList(QStringLiteral("W: TcpInputPlugin2(t): Configuration: ") + line));
}

QTEST_GUILESS_MAIN(tst_Limits)
#include "tst_limits.moc"
