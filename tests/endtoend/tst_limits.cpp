// SPDX-FileCopyrightText: the tcpinputplugin2 authors
// SPDX-License-Identifier: MIT

#include "tests/endtoend/limitstest.h"

using namespace limitstest;

/*!
    The limits of buffers, through the loaded library.
*/
class tst_Limits : public LimitsTest
{
    Q_OBJECT

private Q_SLOTS:
    void init() { begin(); }
    void cleanup() { end(); }

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
    void hostThatStandsStill_data() { transports(); }
    void hostThatStandsStill();
    void largestStopFirst();
    void statusTells();
    void refusesOtherValues_data();
    void refusesOtherValues();
};

void tst_Limits::connectionBuffer()
{
    QFETCH(int, tls);
    constexpr qsizetype Bytes = 40 * MiB; // more than the kernel's buffers hold
    start({{QStringLiteral("connectionBuffer"), MiB}});
    Sender sender(port, tls, Bytes);
    // The host consumes nothing, so the sender has to stop.
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
    // More than half of the buffer stays full. So the plugin offers the rest but reads nothing.
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

void tst_Limits::recordsCount()
{
    QFETCH(int, tls);
    constexpr qsizetype Bytes = 40 * MiB;
    start({{QStringLiteral("connectionBuffer"), MiB}});
    keeps = consumes = true;
    Sender sender(port, tls, Bytes);
    QVERIFY(serve([&] { return !streams.isEmpty() && only().size >= MiB / 2; }));
    QVERIFY(serve([&] { return isQuiet(); }));
    // All received bytes are in records. Some are in two records, if the cut came late. The limit
    // counts them once.
    QVERIFY2(only().size < MiB + 256 * KiB, qPrintable(QString::number(only().size)));

    keeps = false;
    kept.clear();
    QVERIFY(serve([&] { return only().size == Bytes; }));
    QVERIFY(only().intact);
    sender.stays = false;
}

void tst_Limits::recordsThatWaitAreMerged()
{
    start({{QStringLiteral("connectionBuffer"), MiB}});
    NativeSocket device = NativeSocket::connectedTo(testAddress(), port);
    QVERIFY(device.send(Sender::part(0, 100)));
    QVERIFY(serve([&] { return !streams.isEmpty(); }));
    for (int i = 1; i < 8; ++i) { // late enough for an offer each
        QThread::msleep(250);
        QVERIFY(device.send(Sender::part(100 * i, 100)));
    }
    QThread::msleep(250);
    QCOMPARE(only().records, 1);
    QVERIFY(serve([&] { return only().size == 800; }));
    QVERIFY2(only().records <= 4, qPrintable(QString::number(only().records)));
    QVERIFY(only().intact);
}

void tst_Limits::longMessagesGetThrough()
{
    QFETCH(int, tls);
    constexpr qsizetype Bytes = 30 * MiB;
    constexpr qsizetype MessageBytes = 900 * KiB;
    start({{QStringLiteral("connectionBuffer"), MiB}});
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
    // The plugin may read nothing from the last devices, because the host consumes nothing.
    QVERIFY(serve([&] { return !streams.isEmpty() && isQuiet(); }));
    qsizetype held = 0;
    for (const Stream &stream : std::as_const(streams))
        held += stream.size;
    QVERIFY2(held < 2 * MiB + Devices * 128 * KiB, // Qt decrypts so much in advance
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

void tst_Limits::hostThatStandsStill()
{
    QFETCH(int, tls);
    constexpr qsizetype Bytes = 12 * MiB;
    constexpr int Devices = 16;
    constexpr int StandsStillMs = 4000;
    constexpr qint64 TotalBytes = 16 * MiB;
    start({{QStringLiteral("connectionBuffer"), MiB}, {QStringLiteral("totalBuffer"), TotalBytes}});
    consumes = true;
    std::deque<Sender> senders;
    bool hasStood = false;
    qint64 most = 0;
    const QObject inThisFunction; // destroyed before the variables that the slot uses
    connect(input, &IInputPlugin::receivedData, &inThisFunction, [&] {
        if (streams.size() < Devices || std::exchange(hasStood, true))
            return;
        for (Sender &sender : senders)
            sender.waits = false;
        QElapsedTimer still;
        for (still.start(); still.elapsed() < StandsStillMs; QThread::msleep(10))
            most = qMax(most, heldBytes());
    });
    for (int i = 0; i < Devices; ++i)
        senders.emplace_back(port, tls, Bytes, true);
    QVERIFY(serve([&] {
        return streams.size() == Devices
                && std::all_of(streams.cbegin(), streams.cend(),
                               [](const Stream &stream) { return stream.size == Bytes; });
    }));
    for (const Stream &stream : std::as_const(streams))
        QVERIFY(stream.intact);
    QVERIFY(most > TotalBytes / 2);
    const qint64 ahead = tls == 0 ? 0 : Devices * 128 * KiB; // Qt decrypts so much in advance
    QVERIFY2(most <= TotalBytes + ahead, qPrintable(QString::number(most)));
}

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
        "unknown key limits.ConnectionBuffer, accepted: addressBits, connectionBuffer, "
        "connectionRate, exempt, handshakeTimeout, maxConnections, maxConnectionsPerAddress, "
        "maxHandshakes, stalledTimeout, totalBuffer");
    const QString bits = QStringLiteral("limits.addressBits is %1, accepted: two numbers: 1 to 32 "
                                        "for IPv4, 1 to 128 for IPv6");
    for (const QJsonArray &value :
         {QJsonArray(), QJsonArray{32}, QJsonArray{33, 64}, QJsonArray{32, 129}, QJsonArray{0, 64},
          QJsonArray{32, 64, 1}, QJsonArray{QStringLiteral("32"), 64}}) {
        const QByteArray text = QJsonDocument(value).toJson(QJsonDocument::Compact);
        QTest::addRow("bits %s", text.constData())
                << QJsonValue(QJsonObject{{QStringLiteral("addressBits"), value}})
                << bits.arg(QString::fromUtf8(text));
    }
    QJsonArray many;
    for (int n = 0; n < 70; ++n)
        many += 32;
    QTest::newRow("bits, too many to be shown")
            << QJsonValue(QJsonObject{{QStringLiteral("addressBits"), many}})
            << bits.arg(QStringLiteral("an array of 70 values"));
    const QString rate = QStringLiteral("limits.connectionRate is an object, accepted: "
                                        "\"perSecond\" and perhaps \"burst\": 1 to 2147483647");
    const QString perSecond = QStringLiteral("perSecond");
    const QString burst = QStringLiteral("burst");
    for (const QJsonObject &value :
         {QJsonObject(), QJsonObject{{burst, 1}}, QJsonObject{{perSecond, 0}},
          QJsonObject{{perSecond, 1.5}}, QJsonObject{{perSecond, 1}, {burst, 0}},
          QJsonObject{{perSecond, 1}, {QStringLiteral("Burst"), 1}}})
        QTest::addRow("rate %s", QJsonDocument(value).toJson(QJsonDocument::Compact).constData())
                << QJsonValue(QJsonObject{{QStringLiteral("connectionRate"), value}}) << rate;
    row("exempt", QJsonObject{{QStringLiteral("exempt"), QJsonArray{QStringLiteral("10.0.0/8")}}},
        "limits.exempt is [\"10.0.0/8\"], accepted: an array of addresses and networks such as "
        "\"10.0.0.0/8\"");
    row("negative", QJsonObject{{QStringLiteral("maxConnections"), -1}},
        "limits.maxConnections is -1, accepted: 1 to 2147483647");
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
