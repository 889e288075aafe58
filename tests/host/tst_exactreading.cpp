// SPDX-FileCopyrightText: the tcpinputplugin2 authors
// SPDX-License-Identifier: MIT

#include "host/messagereader.h"

#include "tests/host/messagereadertest.h"
#include "tests/kit/messagecapture.h"

#include <QtTest/QtTest>

using namespace host;
using namespace messagereadertest;

namespace {

constexpr int FirstAskAfterMs = 10;

// An offer of a connection, from its byte number offset on.
shared_parsedData stamped(quint64 connection, quint64 offset, const QByteArray &bytes)
{
    const shared_parsedData record = offer(bytes);
    record->addPluginSubId(QStringLiteral("offset"), QString::number(offset));
    record->addPluginSubId(QStringLiteral("connection"), QString::number(connection));
    return record;
}

} // namespace

// Offers that carry their position.
class tst_ExactReading : public MessageReaderTest
{
    Q_OBJECT

private Q_SLOTS:
    void init() { begin(); }
    void cleanup() { end(); }

    void countsStampedConnectionsOnce();
    void stampedOffersAreTakenOnce();
    void stampedTailIsPartial();
    void stampedTooLongAcrossOffers();
    void stampedConnectionsShareAnId();
    void keepsNoMoreThanTheTailOfAStampedOffer();
    void heldUpHostForgetsNoStampedConnection();
    void asksForTheRest();
    void goesOnAsking();
    void newBytesBeginAnew();
    void asksForNothingElse_data();
    void asksForNothingElse();
    void asksNobodyWhileThePluginStops();
};

void tst_ExactReading::countsStampedConnectionsOnce()
{
    const auto from = [this](const QString &client, quint64 connection, quint64 offset,
                             const QByteArray &bytes) {
        const shared_parsedData record = stamped(connection, offset, bytes);
        record->addPluginSubId(QStringLiteral("client"), client);
        reader->receive(record);
    };
    from(QStringLiteral("x"), 1, 0, "half"); // nothing of it is ever consumed
    QCOMPARE(counters->connections(), 1);
    from(QStringLiteral("y"), 2, 0, "half");
    from(QStringLiteral("y"), 2, 0, "half\na\n");
    from(QStringLiteral("y"), 2, 5, "a\nb\n");
    from(QStringLiteral("y"), 2, 9, "c\n");
    QCOMPARE(counters->connections(), 2);
    from(QStringLiteral("y"), 3, 0, "a\n"); // has the same id, and counts as the same
    QCOMPARE(counters->connections(), 2);
    from(QStringLiteral("z"), 4, 0, "a\n");
    QCOMPARE(counters->connections(), 3);
}

void tst_ExactReading::stampedOffersAreTakenOnce()
{
    make({});
    reader->receive(stamped(1, 0, "a\nb\nc"));
    QCOMPARE(written(), QByteArray("a\nb\n"));
    QCOMPARE(discards(), QList<int>{4});
    QCOMPARE(reader->rememberedConnections(), 1);

    reader->receive(stamped(1, 0, "a\nb\nc")); // not cut yet
    reader->receive(stamped(1, 0, "a\nb\nc\na\nb\n")); // and the same bytes sent again
    QCOMPARE(written(), QByteArray("c\na\nb\n"));
    QCOMPARE(discards(), QList<int>({4, 10}));
    QCOMPARE(reader->rememberedConnections(), 0); // nothing is left of it

    reader->receive(stamped(1, 4, "c\na\nb\n")); // the last offer, half cut
    QCOMPARE(written(), QByteArray());
    QCOMPARE(discards().size(), 2);
    reader->receive(stamped(1, 10, "a\n"));
    QCOMPARE(written(), QByteArray("a\n"));
    QCOMPARE(discards().last(), 2);
}

void tst_ExactReading::stampedTailIsPartial()
{
    make({}, OutputFormat::Json);
    reader->receive(stamped(1, 0, "a\nrest"));
    reader->receive(stamped(1, 2, "rest")); // its last offer
    reader->forgetAll();
    const QByteArray text = written();
    QCOMPARE(text.count("\"partial\":true"), 1);
    QVERIFY2(text.contains("\"text\":\"rest\""), text.constData());
    QCOMPARE(reader->rememberedConnections(), 0);
}

void tst_ExactReading::stampedTooLongAcrossOffers()
{
    FrameFormat format;
    format.maxMessage = 4;
    make(format);
    const MessageCapture capture;
    reader->receive(stamped(1, 0, "0123456789"));
    reader->receive(stamped(1, 0, "0123456789abc"));
    reader->receive(stamped(1, 10, "abc\nok\n"));
    QCOMPARE(written(), QByteArray("ok\n"));
    QCOMPARE(MessageCapture::take().size(), 1);
    int sum = 0;
    QCOMPARE(discards().size(), 3);
    for (int length : discards())
        sum = std::max(sum, length);
    QCOMPARE(sum, 13);
    QCOMPARE(counters->tooLong, 1);
}

// A device that uses its port again has the same client id, and nothing to do with the one before.
void tst_ExactReading::stampedConnectionsShareAnId()
{
    make({});
    reader->receive(stamped(1, 0, "same\n"));
    reader->receive(stamped(2, 0, "same\n"));
    QCOMPARE(written(), QByteArray("same\nsame\n"));
    QCOMPARE(discards(), QList<int>({5, 5}));
}

// A large offer must not stay in memory for the sake of the few bytes behind its last message.
void tst_ExactReading::keepsNoMoreThanTheTailOfAStampedOffer()
{
    make({}, OutputFormat::None); // nobody reads the pipe, which would be full
    QByteArray bytes = QByteArray(1 << 20, 'x') + "\nhalf";
    shared_parsedData record = stamped(1, 0, bytes);
    reader->receive(record);
    record.clear();
    QCOMPARE(reader->rememberedConnections(), 1);
    QVERIFY(bytes.isDetached()); // nobody else holds them
}

// Whoever reads the output decides how long offers wait. A repeat among them is one all the same.
void tst_ExactReading::heldUpHostForgetsNoStampedConnection()
{
    constexpr std::chrono::milliseconds age(1);
    reader = std::make_unique<MessageReader>(FrameFormat(), *output, *counters,
                                             ExactOffers::Limits{age, 10});
    reader->receive(stamped(1, 0, "a\n"));
    QTest::qSleep(2 * static_cast<int>(age.count())); // no synchronisation: this is the hold-up
    reader->receive(stamped(1, 0, "a\n"));
    QCOMPARE(written(), QByteArray("a\n"));
}

// Not from a position: what is asked for is the buffer, however much of it has been cut.
void tst_ExactReading::asksForTheRest()
{
    QSignalSpy spy(reader.get(), &MessageReader::answered);
    QElapsedTimer since;
    since.start();
    reader->receive(stamped(1, 30, "a\nhalf"));
    QCOMPARE(discards(), QList<int>({2}));

    QTRY_VERIFY(spy.count() >= 2);

    QVERIFY(since.elapsed() >= FirstAskAfterMs);
    QCOMPARE(spy[1][0].toInt(), 0);
    const auto subId = spy[1][1].value<QMap<QString, QString>>();
    const QMap<QString, QString> expected = {{QStringLiteral("client"), QStringLiteral("c")},
                                             {QStringLiteral("task"), QStringLiteral("0")},
                                             {QStringLiteral("connection"), QStringLiteral("1")}};
    QCOMPARE(subId, expected);

    reader->receive(stamped(1, 32, "half\n"));
    QCOMPARE(written(), QByteArray("a\nhalf\n"));
    QCOMPARE(reader->rememberedConnections(), 0);
}

// Whether the plugin has nothing to offer, or only what is known, each interval is twice the last.
void tst_ExactReading::goesOnAsking()
{
    QElapsedTimer since;
    QList<qint64> times;
    connect(reader.get(), &MessageReader::answered, this, [&](int bytes) {
        QCOMPARE(bytes, 0);
        times += since.elapsed();
        if (times.size() == 3)
            reader->receive(stamped(1, 0, "half"));
    });
    since.start();
    reader->receive(stamped(1, 0, "half"));
    QTRY_VERIFY(times.size() >= 6);

    for (int ask = 0; ask < 6; ++ask)
        QVERIFY2(times[ask] >= (FirstAskAfterMs << (ask + 1)) - FirstAskAfterMs,
                 QByteArray::number(ask));
}

// Of two that have been asked as often, the one with something new is asked first.
void tst_ExactReading::newBytesBeginAnew()
{
    QMap<QString, int> asks;
    int between = 0; // questions to the first one between the fifth and the sixth to the other
    const auto count = [&](int, const QMap<QString, QString> &subId) {
        const QString connection = subId.value(QStringLiteral("connection"));
        ++asks[connection];
        const int other = asks[QStringLiteral("2")];
        if (connection == QLatin1String("1") && other == 5)
            ++between;
        if (connection == QLatin1String("2") && other == 5)
            reader->receive(stamped(1, 0, "half of it"));
    };
    connect(reader.get(), &MessageReader::answered, this, count);
    reader->receive(stamped(1, 0, "half"));
    reader->receive(stamped(2, 0, "half"));
    QTRY_VERIFY(asks[QStringLiteral("2")] >= 6);
    QVERIFY2(between >= 2, QByteArray::number(between));
}

void tst_ExactReading::asksForNothingElse_data()
{
    QTest::addColumn<quint64>("connection");
    QTest::addColumn<QByteArray>("bytes");
    QTest::newRow("complete") << quint64(1) << QByteArray("a\n");
    QTest::newRow("without positions") << quint64(0) << QByteArray("half");
    QTest::newRow("skipped, as it is too long") << quint64(1) << QByteArray("123456789");
}

void tst_ExactReading::asksForNothingElse()
{
    QFETCH(quint64, connection);
    QFETCH(QByteArray, bytes);
    make({Framing::Lines, 5});
    const MessageCapture capture; // a warning that something is too long
    reader->receive(connection == 0 ? offer(bytes) : stamped(connection, 0, bytes));
    discarded.clear();
    QSignalSpy spy(reader.get(), &MessageReader::answered);

    reader->receive(stamped(2, 0, "half")); // its question comes later
    QTRY_VERIFY(!spy.isEmpty());

    const auto subId = spy[0][1].value<QMap<QString, QString>>();
    QCOMPARE(subId.value(QStringLiteral("connection")), QStringLiteral("2"));
}

void tst_ExactReading::asksNobodyWhileThePluginStops()
{
    reader->receive(stamped(1, 0, "half"));
    reader->setAnswering(false);
    QThread::msleep(2 * FirstAskAfterMs); // the time of the question is over
    QCoreApplication::processEvents();
    reader->setAnswering(true);
    reader->receive(stamped(2, 0, "half"));
    QSignalSpy spy(reader.get(), &MessageReader::answered);
    QTRY_VERIFY(!spy.isEmpty());
    const auto subId = spy[0][1].value<QMap<QString, QString>>();
    QCOMPARE(subId.value(QStringLiteral("connection")), QStringLiteral("2"));
}

QTEST_GUILESS_MAIN(tst_ExactReading)
#include "tst_exactreading.moc"
