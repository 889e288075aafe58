// SPDX-FileCopyrightText: the tcpinputplugin2 authors
// SPDX-License-Identifier: MIT

#include "certificates.h"
#include "loadedplugin.h"
#include "loglines.h"
#include "plugin/exactoffers.h"

#include <QtCore/QRandomGenerator>
#include <QtCore/QTimer>
#include <QtNetwork/QSslSocket>
#include <QtTest/QtTest>

namespace {

constexpr int Devices = 200;
constexpr int MessagesPerDevice = 1000;
constexpr int LongestDelayMs = 500;

//! Takes messages from stamped offers, with all the lateness that the contract allows.
class LateHost : public QObject
{
public:
    LateHost(IInputPlugin &inputPlugin, QRandomGenerator &generator)
        : plugin(inputPlugin),
          random(generator)
    {}

    void receive(const shared_parsedData &record)
    {
        handleLater(record);
        if (random.bounded(4) == 0)
            handleLater(record);
    }

    bool isIdle() const { return scheduled == 0; }

    QHash<QByteArray, int> seen;

private:
    void handleLater(const shared_parsedData &record)
    {
        ++scheduled;
        QTimer::singleShot(random.bounded(LongestDelayMs), this, [this, record] {
            --scheduled;
            handle(record);
        });
    }

    void handle(const shared_parsedData &record)
    {
        const auto offer = offers.open(*record);
        const QByteArray fresh = offer.fresh().toByteArray();
        qsizetype used = fresh.lastIndexOf('\n') + 1;
        if (random.bounded(4) == 0) {
            used = fresh.indexOf('\n') + 1;
            handleLater(record); // the rest
        }
        for (qsizetype begin = 0; begin < used;) {
            const qsizetype end = fresh.indexOf('\n', begin);
            ++seen[fresh.mid(begin, end - begin)];
            begin = end + 1;
        }
        const int len = offers.consume(offer, used);
        if (len == 0)
            return;
        for (int n = random.bounded(1, 3); n > 0; --n)
            plugin.discard(len, record->getPluginSubId());
    }

    IInputPlugin &plugin;
    QRandomGenerator &random;
    ExactOffers offers;
    int scheduled = 0;
};

//! Sends numbered messages in random pieces and closes at the end, sometimes also in between.
class StreamingDevice : public QObject
{
public:
    StreamingDevice(int deviceNumber, QRandomGenerator &generator, quint16 serverPort, bool useTls)
        : number(deviceNumber),
          random(generator),
          port(serverPort),
          tls(useTls)
    {
        connect(&timer, &QTimer::timeout, this, &StreamingDevice::sendPiece);
        open();
    }

private:
    void open()
    {
        auto *fresh = new QSslSocket(this);
        socket = fresh;
        if (tls) {
            fresh->setPeerVerifyMode(QSslSocket::VerifyNone);
            connect(fresh, &QSslSocket::encrypted, &timer, [this] { timer.start(10); });
            fresh->connectToHostEncrypted(testAddress().toString(), port);
        } else {
            connect(fresh, &QSslSocket::connected, &timer, [this] { timer.start(10); });
            fresh->connectToHost(testAddress(), port);
        }
        connect(fresh, &QSslSocket::disconnected, fresh, &QObject::deleteLater);
    }

    void sendPiece()
    {
        for (int n = random.bounded(20); n > 0 && sent < MessagesPerDevice; --n, ++sent)
            unsent += QByteArray::number(number) + ' ' + QByteArray::number(sent) + '\n';
        const qsizetype piece =
                sent == MessagesPerDevice ? unsent.size() : random.bounded(int(unsent.size()) + 1);
        socket->write(unsent.left(piece));
        unsent.remove(0, piece);
        if (sent == MessagesPerDevice) {
            timer.stop();
            socket->disconnectFromHost();
        } else if (unsent.isEmpty() && random.bounded(20) == 0) {
            timer.stop();
            socket->disconnectFromHost();
            open();
        }
    }

    const int number;
    QRandomGenerator &random;
    const quint16 port;
    const bool tls;
    QTimer timer;
    QSslSocket *socket = nullptr;
    QByteArray unsent;
    int sent = 0;
};

} // namespace

/*!
    Offers that carry their position, through the loaded library.
*/
class tst_Offsets : public QObject
{
    Q_OBJECT

private Q_SLOTS:
    void init();
    void cleanup();

    void offByDefault_data();
    void offByDefault();
    void stampsOffers();
    void keyIsReadAtEveryStart();
    void repeatedDiscardCutsOnce();
    void positionsAtTheLimits_data();
    void positionsAtTheLimits();
    void stampedDiscardThatCutsNothingIsNotAnswered();
    void otherConnectionIsLeftAlone();
    void invalidPositionIsLogged_data();
    void invalidPositionIsLogged();
    void plainDiscardWorksAsBefore();
    void positionsAreIgnoredWhenOff();
    void connectionNumbersAreNotUsedAgain();
    void lateHostTakesEveryMessageOnce_data();
    void lateHostTakesEveryMessageOnce();

private:
    void start(const QJsonValue &offsets = true, const QJsonObject &ssl = {});
    std::unique_ptr<QTcpSocket> connectDevice();
    bool waitForRecords(qsizetype count);
    void fence();
    QByteArray bytes(qsizetype index) const { return records.at(index)->getOriginalMessage(); }
    QString subid(qsizetype index, const char *key) const
    {
        return records.at(index)->getPluginSubIdKey(QLatin1String(key));
    }
    QByteArray lastOffer(QTcpSocket &device);

    LoadedLibrary library;
    quint16 port = 0;
    std::unique_ptr<IInputPlugin> plugin;
    QList<shared_parsedData> records;
    std::unique_ptr<MessageCapture> capture;
    std::vector<std::unique_ptr<QTcpSocket>> fences;
};

void tst_Offsets::init()
{
    port = freePort();
    capture = std::make_unique<MessageCapture>();
}

void tst_Offsets::cleanup()
{
    plugin.reset();
    fences.clear();
    records.clear();
    capture.reset();
}

void tst_Offsets::start(const QJsonValue &offsets, const QJsonObject &ssl)
{
    QJsonObject config = tcpConfig(port);
    if (!ssl.isEmpty())
        config.insert(QStringLiteral("ssl"), ssl);
    config.insert(QStringLiteral("threadpoolSize"), 1);
    if (!offsets.isUndefined())
        config.insert(QStringLiteral("offsets"), offsets);
    plugin = library.create(config);
    connect(plugin.get(), &IInputPlugin::receivedData, this,
            [this](const shared_parsedData &record) { records.append(record); });
    QVERIFY(plugin->start());
    QVERIFY(isListening(*plugin));
}

std::unique_ptr<QTcpSocket> tst_Offsets::connectDevice()
{
    auto device = std::make_unique<QTcpSocket>();
    device->connectToHost(testAddress(), port);
    if (!device->waitForConnected())
        qFatal("%s", qPrintable(device->errorString()));
    return device;
}

bool tst_Offsets::waitForRecords(qsizetype count)
{
    return QTest::qWaitFor([&] { return records.size() >= count; }, 60000);
}

// With one worker, a new connection is adopted after every cut posted before it.
void tst_Offsets::fence()
{
    fences.push_back(connectDevice()); // stays open: its end would be offered, too
    const qsizetype before = records.size();
    fences.back()->write("fence");
    QVERIFY(waitForRecords(before + 1));
    QCOMPARE(records.size(), before + 1); // and nothing else was offered meanwhile
    QCOMPARE(records.takeLast()->getOriginalMessage(), QByteArray("fence"));
}

// What was left in the connection's buffer.
QByteArray tst_Offsets::lastOffer(QTcpSocket &device)
{
    fence();
    const qsizetype before = records.size();
    device.write("."); // so that there is something to offer
    device.disconnectFromHost();
    if (!waitForRecords(before + 1))
        return "nothing came";
    QByteArray last;
    const auto ended = [&] {
        last = records.last()->getOriginalMessage();
        return last.endsWith('.');
    };
    return QTest::qWaitFor(ended, 60000) ? last.chopped(1) : "no end";
}

void tst_Offsets::offByDefault_data()
{
    QTest::addColumn<QJsonValue>("offsets");
    QTest::newRow("absent") << QJsonValue(QJsonValue::Undefined);
    QTest::newRow("false") << QJsonValue(false);
    QTest::newRow("text") << QJsonValue(QStringLiteral("true"));
    QTest::newRow("number") << QJsonValue(1);
}

void tst_Offsets::offByDefault()
{
    QFETCH(QJsonValue, offsets);
    start(offsets);
    const auto device = connectDevice();
    device->write("abc");
    QVERIFY(waitForRecords(1));
    QCOMPARE(records.first()->getPluginSubId().keys(),
             QStringList({QStringLiteral("client"), QStringLiteral("task")}));
}

void tst_Offsets::stampsOffers()
{
    start();
    const auto device = connectDevice();
    device->write("abcd" + QByteArray(30, 'x'));
    QVERIFY(waitForRecords(1));
    QCOMPARE(subid(0, "offset"), QStringLiteral("0"));
    const QString connection = subid(0, "connection");
    QVERIFY(connection.toULongLong() > 0);

    plugin->discard(4, records.at(0)->getPluginSubId());
    QVERIFY(waitForRecords(2));
    QCOMPARE(bytes(1), QByteArray(30, 'x'));
    QCOMPARE(subid(1, "offset"), QStringLiteral("4"));
    QCOMPARE(subid(1, "connection"), connection);

    plugin->discard(30, records.at(1)->getPluginSubId());
    fence();
    device->write("end");
    device->disconnectFromHost();
    QVERIFY(waitForRecords(3));
    QCOMPARE(subid(2, "offset"), QStringLiteral("34"));
    QVERIFY(bytes(2).startsWith('e'));
}

void tst_Offsets::keyIsReadAtEveryStart()
{
    start();
    plugin->stop();
    plugin->setConfig(tcpConfig(port));
    QVERIFY(plugin->start());
    const auto plain = connectDevice();
    plain->write("abc");
    QVERIFY(waitForRecords(1));
    QVERIFY(subid(0, "offset").isNull());
    plugin->stop();
    QVERIFY(waitForRecords(2));

    QJsonObject config = tcpConfig(port);
    config.insert(QStringLiteral("offsets"), true);
    plugin->setConfig(config);
    QVERIFY(plugin->start());
    const auto stamped = connectDevice();
    stamped->write("abc");
    QVERIFY(waitForRecords(3));
    QCOMPARE(subid(2, "offset"), QStringLiteral("0"));
}

void tst_Offsets::repeatedDiscardCutsOnce()
{
    start();
    const auto device = connectDevice();
    device->write("abcdef");
    QVERIFY(waitForRecords(1));
    for (int n = 0; n < 3; ++n)
        plugin->discard(4, records.first()->getPluginSubId());
    plugin->discard(2, records.first()->getPluginSubId());
    QCOMPARE(lastOffer(*device), QByteArray("ef"));
}

void tst_Offsets::positionsAtTheLimits_data()
{
    QTest::addColumn<QString>("offset");
    QTest::addColumn<int>("len");
    QTest::addColumn<QByteArray>("left");
    const QString greatest = QString::number(std::numeric_limits<quint64>::max());
    QTest::newRow("the front") << QStringLiteral("0") << 0 << QByteArray("abcdef");
    QTest::newRow("before the front") << QStringLiteral("0") << -5 << QByteArray("abcdef");
    QTest::newRow("one byte") << QStringLiteral("0") << 1 << QByteArray("bcdef");
    QTest::newRow("backwards") << QStringLiteral("5") << -2 << QByteArray("def");
    QTest::newRow("all") << QStringLiteral("6") << 0 << QByteArray();
    QTest::newRow("beyond the end") << QStringLiteral("3") << 1000 << QByteArray();
    QTest::newRow("far beyond") << greatest << 1 << QByteArray();
    QTest::newRow("leading zeros") << QStringLiteral("0002") << 0 << QByteArray("cdef");
}

void tst_Offsets::positionsAtTheLimits()
{
    QFETCH(QString, offset);
    QFETCH(int, len);
    QFETCH(QByteArray, left);
    start();
    const auto device = connectDevice();
    device->write("abcdef");
    QVERIFY(waitForRecords(1));
    auto subids = records.first()->getPluginSubId();
    subids.insert(QStringLiteral("offset"), offset);
    plugin->discard(len, subids);
    QCOMPARE(lastOffer(*device), left);
}

void tst_Offsets::stampedDiscardThatCutsNothingIsNotAnswered()
{
    start();
    const auto device = connectDevice();
    const QByteArray message(30, 'x');
    device->write(message);
    QVERIFY(waitForRecords(1));
    plugin->discard(0, records.first()->getPluginSubId());
    fence(); // sees that no record comes
    plugin->discard(1, records.first()->getPluginSubId());
    QVERIFY(waitForRecords(2)); // 29 bytes are left: the usual rule
    QCOMPARE(bytes(1), message.mid(1));
    plugin->discard(1, records.first()->getPluginSubId());
    fence();
}

void tst_Offsets::otherConnectionIsLeftAlone()
{
    start();
    const auto device = connectDevice();
    device->write("abcdef");
    QVERIFY(waitForRecords(1));
    auto subids = records.first()->getPluginSubId();
    subids.insert(QStringLiteral("connection"),
                  QString::number(subid(0, "connection").toULongLong() + 1000));
    capture->take();
    plugin->discard(6, subids);
    QCOMPARE(takeLog(), QStringList());
    QCOMPARE(lastOffer(*device), QByteArray("abcdef"));
}

void tst_Offsets::invalidPositionIsLogged_data()
{
    QTest::addColumn<QString>("key");
    QTest::addColumn<QString>("value");
    for (const char *key : {"offset", "connection"}) {
        for (const char *value :
             {"", "x", "-1", "+1", " 1", "1 ", "0x1", "1.0", "18446744073709551616"})
            QTest::addRow("%s '%s'", key, value)
                    << QString::fromLatin1(key) << QString::fromLatin1(value);
    }
}

void tst_Offsets::invalidPositionIsLogged()
{
    QFETCH(QString, key);
    QFETCH(QString, value);
    start();
    const auto device = connectDevice();
    device->write("abcdef");
    QVERIFY(waitForRecords(1));
    auto subids = records.first()->getPluginSubId();
    subids.insert(key, value);
    takeLog();
    plugin->discard(6, subids);
    QCOMPARE(takeLog(),
             QStringList(QStringLiteral("D: TcpTask2: discard with invalid position ") + value));
    QCOMPARE(lastOffer(*device), QByteArray("abcdef"));
}

void tst_Offsets::plainDiscardWorksAsBefore()
{
    start();
    const auto device = connectDevice();
    device->write("abcdef");
    QVERIFY(waitForRecords(1));
    auto subids = records.first()->getPluginSubId();
    subids.remove(QStringLiteral("offset"));
    plugin->discard(2, subids);
    plugin->discard(2, subids);
    QCOMPARE(lastOffer(*device), QByteArray("ef"));
    QCOMPARE(records.last()->getPluginSubIdKey(QStringLiteral("offset")), QStringLiteral("4"));
}

void tst_Offsets::positionsAreIgnoredWhenOff()
{
    start(false);
    const auto device = connectDevice();
    device->write("abcdef");
    QVERIFY(waitForRecords(1));
    auto subids = records.first()->getPluginSubId();
    subids.insert(QStringLiteral("offset"), QStringLiteral("nonsense"));
    subids.insert(QStringLiteral("connection"), QStringLiteral("5"));
    plugin->discard(2, subids);
    plugin->discard(2, subids);
    QCOMPARE(lastOffer(*device), QByteArray("ef"));
}

void tst_Offsets::connectionNumbersAreNotUsedAgain()
{
    constexpr int Cycles = 3;
    constexpr int Connections = 5;
    QSet<QString> seen;
    for (int cycle = 0; cycle < Cycles; ++cycle) {
        start();
        std::vector<std::unique_ptr<QTcpSocket>> devices;
        for (int n = 0; n < Connections; ++n) {
            devices.push_back(connectDevice());
            devices.back()->write("x");
        }
        QVERIFY(waitForRecords(Connections));
        plugin.reset();
        for (qsizetype n = 0; n < records.size(); ++n)
            seen.insert(subid(n, "connection"));
        records.clear();
    }
    QCOMPARE(seen.size(), Cycles * Connections);
}

void tst_Offsets::lateHostTakesEveryMessageOnce_data()
{
    QTest::addColumn<bool>("tls");
    QTest::newRow("tcp") << false;
    QTest::newRow("tls") << true;
}

// The host answers every offer 0 to 500 ms late, some twice, some in parts.
void tst_Offsets::lateHostTakesEveryMessageOnce()
{
    QFETCH(bool, tls);
    const quint32 seed = QRandomGenerator::global()->generate();
    qInfo("seed %u", seed);
    QRandomGenerator random(seed);
    start(true, tls ? serverTls() : QJsonObject());
    disconnect(plugin.get(), nullptr, this, nullptr);

    LateHost host(*plugin, random);
    connect(plugin.get(), &IInputPlugin::receivedData, &host, &LateHost::receive);
    std::vector<std::unique_ptr<StreamingDevice>> devices;
    for (int n = 0; n < Devices; ++n)
        devices.push_back(std::make_unique<StreamingDevice>(n, random, port, tls));
    const bool complete = QTest::qWaitFor(
            [&] { return host.seen.size() == Devices * MessagesPerDevice; }, 300000);
    QVERIFY2(complete, qPrintable(QString::number(host.seen.size())));
    QTRY_VERIFY(host.isIdle()); // what comes late must be no repeat
    for (auto count = host.seen.cbegin(); count != host.seen.cend(); ++count)
        QVERIFY2(count.value() == 1, count.key().constData());
}

QTEST_GUILESS_MAIN(tst_Offsets)
#include "tst_offsets.moc"
