// SPDX-FileCopyrightText: the tcpinputplugin2 authors
// SPDX-License-Identifier: MIT

#include "host/messagereader.h"

#include "tests/host/messagereadertest.h"
#include "tests/kit/hangguard.h"
#include "tests/kit/messagecapture.h"

#include <QtTest/QtTest>

#include <ctime>

using namespace host;
using namespace messagereadertest;

namespace {

double cpuSeconds()
{
    timespec time = {};
    ::clock_gettime(CLOCK_THREAD_CPUTIME_ID, &time);
    return static_cast<double>(time.tv_sec) + 1e-9 * static_cast<double>(time.tv_nsec);
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
    void consumesWhatIsUnfinished();
    void stampedTailIsPartial();
    void stampedTooLongAcrossOffers();
    void pieces_data();
    void pieces();
    void stampedConnectionsShareAnId();
    void keepsNoMoreThanTheTailOfAStampedOffer();
    void heldUpHostForgetsNoStampedConnection();
    void asksForNothing();
    void forgetsSilentConnections();
    void bytesOfALongTailCostNoMore();

    void endGivesUpWhatIsUnfinished();
    void endEndsASkippedMessage();
    void remembersTheOpenOnes();
    void forgetsNoOpenOneByAge();
};

void tst_ExactReading::countsStampedConnectionsOnce()
{
    const auto from = [this](const QString &client, quint64 connection, quint64 offset,
                             const QByteArray &bytes) {
        const shared_parsedData record = stamped(connection, offset, bytes);
        record->addPluginSubId(QStringLiteral("client"), client);
        reader->receive(record);
    };
    from(QStringLiteral("x"), 1, 0, "half");
    QCOMPARE(counters->connections(), 1);
    from(QStringLiteral("y"), 2, 0, "half");
    from(QStringLiteral("y"), 2, 0, "half\na\n");
    from(QStringLiteral("y"), 2, 5, "a\nb\n");
    from(QStringLiteral("y"), 2, 9, "c\n");
    QCOMPARE(counters->connections(), 2);
    from(QStringLiteral("y"), 3, 0, "a\n"); // another connection with an equal id: not counted
    QCOMPARE(counters->connections(), 2);
    from(QStringLiteral("z"), 4, 0, "a\n");
    QCOMPARE(counters->connections(), 3);
}

void tst_ExactReading::stampedOffersAreTakenOnce()
{
    make({});
    reader->receive(stamped(1, 0, "a\nb\nc"));
    QCOMPARE(written(), QByteArray("a\nb\n"));
    QCOMPARE(discards(), QList<int>{5});
    QCOMPARE(reader->rememberedConnections(), 1);

    reader->receive(stamped(1, 0, "a\nb\nc")); // made before the cut
    reader->receive(stamped(1, 0, "a\nb\nc\na\nb\n")); // a repeat, then equal messages sent again
    QCOMPARE(written(), QByteArray("c\na\nb\n"));
    QCOMPARE(discards(), QList<int>({5, 10}));
    QCOMPARE(reader->rememberedConnections(), 0); // all of its bytes are consumed

    reader->receive(stamped(1, 4, "c\na\nb\n")); // the last offer, made between the two cuts
    QCOMPARE(written(), QByteArray());
    QCOMPARE(discards().size(), 2);
    reader->receive(stamped(1, 10, "a\n"));
    QCOMPARE(written(), QByteArray("a\n"));
    QCOMPARE(discards().last(), 2);
}

// The reader also discards unfinished messages. So the plugin's buffer and later offers stay small.
void tst_ExactReading::consumesWhatIsUnfinished()
{
    QSignalSpy spy(reader.get(), &MessageReader::answered);
    reader->receive(stamped(1, 30, "half"));
    QCOMPARE(discards(), QList<int>({4}));
    const auto subId = spy[0][1].value<QMap<QString, QString>>();
    QCOMPARE(subId.value(QStringLiteral("offset")), QStringLiteral("30"));

    reader->receive(stamped(1, 34, " of it\nnext"));
    QCOMPARE(discards(), QList<int>({4, 11}));
    reader->receive(stamped(1, 45, " one\n"));
    QCOMPARE(written(), QByteArray("half of it\nnext one\n"));
    QCOMPARE(counters->messages, 2);
    QCOMPARE(counters->bytes, 18);
    QCOMPARE(reader->rememberedConnections(), 0);
}

void tst_ExactReading::stampedTailIsPartial()
{
    make({}, OutputOptions::Json);
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
    reader->receive(stamped(1, 0, "01"));
    reader->receive(stamped(1, 0, "0123456789"));
    reader->receive(stamped(1, 0, "0123456789abc"));
    reader->receive(stamped(1, 10, "abc\nok\n"));
    QCOMPARE(written(), QByteArray("ok\n"));
    QCOMPARE(MessageCapture::take().size(), 1);
    QCOMPARE(discards(), QList<int>({2, 10, 13, 7}));
    QCOMPARE(counters->tooLong, 1);
}

void tst_ExactReading::pieces_data()
{
    QTest::addColumn<Framing>("framing");
    QTest::addColumn<QByteArray>("bytes");
    QTest::addColumn<QByteArray>("expected"); // output in the raw format
    const QByteArray lines = "a\r\n\r\n\nabcdefgh\nabcdefgh\r\nabcdefghi\nxyz\n";
    QTest::newRow("lines") << Framing::Lines << lines
                           << QByteArray("a\n\n\nabcdefgh\nabcdefgh\nxyz\n");
    const QByteArray counted("\0\0\0\1a\0\0\0\0\0\0\0\x9zzzzzzzzz\0\0\0\3xyz", 29);
    QTest::newRow("length") << Framing::Length << counted
                            << QByteArray("\0\0\0\1a\0\0\0\0\0\0\0\3xyz", 16);
}

// The messages do not depend on how the bytes are divided into offers.
void tst_ExactReading::pieces()
{
    QFETCH(Framing, framing);
    QFETCH(QByteArray, bytes);
    QFETCH(QByteArray, expected);
    const MessageCapture capture; // takes the warnings of messages that are too long
    for (qsizetype size = 1; size <= bytes.size(); ++size) {
        make({framing, 8});
        for (qsizetype begin = 0; begin < bytes.size(); begin += size)
            reader->receive(stamped(1, static_cast<quint64>(begin), bytes.mid(begin, size)));
        QCOMPARE(written(), expected);
        QCOMPARE(counters->tooLong, 1);
        QCOMPARE(reader->rememberedConnections(), 0);
    }
}

// A device that reuses its port gets the same client id. But it is a new connection.
void tst_ExactReading::stampedConnectionsShareAnId()
{
    make({});
    reader->receive(stamped(1, 0, "same\n"));
    reader->receive(stamped(2, 0, "same\n"));
    QCOMPARE(written(), QByteArray("same\nsame\n"));
    QCOMPARE(discards(), QList<int>({5, 5}));
}

// Of a large offer, only the few bytes behind its last message stay in memory.
void tst_ExactReading::keepsNoMoreThanTheTailOfAStampedOffer()
{
    make({}, OutputOptions::None); // nobody reads the pipe, so output would fill it
    QByteArray bytes = QByteArray(1 << 20, 'x') + "\nhalf";
    shared_parsedData record = stamped(1, 0, bytes);
    reader->receive(record);
    record.clear();
    QCOMPARE(reader->rememberedConnections(), 1);
    QVERIFY(bytes.isDetached()); // the reader holds no reference
}

// If nobody reads the output, offers wait for any time. A repeat must still be found among them.
void tst_ExactReading::heldUpHostForgetsNoStampedConnection()
{
    constexpr std::chrono::milliseconds age(1);
    reader = std::make_unique<MessageReader>(FrameFormat(), *sink, *counters,
                                             ExactOffers::Limits{age, 10}, unhurried());
    reader->receive(stamped(1, 0, "a\n"));
    QTest::qSleep(2 * static_cast<int>(age.count())); // not for synchronising: this is the delay
    reader->receive(stamped(1, 0, "a\n"));
    QCOMPARE(written(), QByteArray("a\n"));
}

// The reader answers no repeat, and nothing that it has already answered.
void tst_ExactReading::asksForNothing()
{
    reader->receive(stamped(1, 0, "half"));
    reader->receive(stamped(1, 0, "half"));
    reader->setAnswering(false);
    reader->receive(stamped(1, 0, "half of it"));
    QCOMPARE(discards(), QList<int>({4}));
}

// Here the plugin does not report the ends of connections.
void tst_ExactReading::forgetsSilentConnections()
{
    make({}, OutputOptions::Json);
    reader->setIdleTimeout(1);
    QElapsedTimer since;
    since.start();
    reader->receive(stamped(1, 0, "half"));
    QTRY_COMPARE_WITH_TIMEOUT(counters->partial, 1, HangGuardMs);
    QVERIFY(since.elapsed() >= 3050 * 95 / 100);
    QVERIFY(written().endsWith(R"("text":"half","partial":true})"
                               "\n"));
    QCOMPARE(reader->rememberedConnections(), 0);
}

// A new byte causes no copy of the bytes before it, and no search through them.
void tst_ExactReading::bytesOfALongTailCostNoMore()
{
    constexpr int pieces = 2000;
    const auto costBehind = [this](qsizetype tail) {
        make({}, OutputOptions::None);
        reader->receive(stamped(1, 0, QByteArray(tail, 'x')));
        const double before = cpuSeconds();
        for (int n = 0; n < pieces; ++n)
            reader->receive(stamped(1, static_cast<quint64>(tail + n), "x"));
        return cpuSeconds() - before;
    };
    const double behindFew = costBehind(1000);
    const double behindMany = costBehind(1000 * 1000);
    QVERIFY2(behindMany < 5 * behindFew, QByteArray::number(behindMany / behindFew));
}

void tst_ExactReading::endGivesUpWhatIsUnfinished()
{
    make({}, OutputOptions::Json);
    reader->setEndsTold(true);
    reader->receive(stamped(1, 0, "a\nhalf"));
    QCOMPARE(written().count('\n'), 1);

    reader->receive(endOf(1, 6));

    const QByteArray text = written();
    QCOMPARE(text.count('\n'), 1);
    QVERIFY2(text.endsWith("\"bytes\":4,\"text\":\"half\",\"partial\":true}\n"), text.constData());
    QCOMPARE(counters->partial, 1);
    QCOMPARE(counters->offers, 1); // the end is no offer
    QCOMPARE(counters->connections(), 1);
    QCOMPARE(discards(), QList<int>({6}));
    QCOMPARE(reader->rememberedConnections(), 0);
}

void tst_ExactReading::endEndsASkippedMessage()
{
    make({Framing::Lines, 3});
    reader->setEndsTold(true);
    const MessageCapture capture; // takes the warning of a message that is too long
    reader->receive(stamped(1, 0, "12345"));
    QCOMPARE(reader->rememberedConnections(), 1);
    reader->receive(endOf(1, 5));
    QCOMPARE(counters->partial, 0);
    QCOMPARE(reader->rememberedConnections(), 0);
}

void tst_ExactReading::remembersTheOpenOnes()
{
    constexpr quint64 connections = 1000;
    reader->setEndsTold(true);
    for (quint64 n = 1; n <= connections; ++n)
        reader->receive(stamped(n, 0, n % 2 == 0 ? "half" : "\n"));
    QCOMPARE(reader->rememberedConnections(), qsizetype(connections));
    for (quint64 n = 1; n <= connections; ++n) {
        reader->receive(endOf(n, 1));
        QCOMPARE(reader->rememberedConnections(), qsizetype(connections - n));
    }
    reader->receive(endOf(connections + 1, 0)); // a connection that has sent nothing
    QCOMPARE(reader->rememberedConnections(), 0);
    QCOMPARE(counters->connections(), 1); // all of them have the same id
}

// Open connections are forgotten neither for their age nor for their number.
void tst_ExactReading::forgetsNoOpenOneByAge()
{
    reader = std::make_unique<MessageReader>(FrameFormat(), *sink, *counters,
                                             ExactOffers::Limits{std::chrono::milliseconds(1), 1},
                                             unhurried());
    reader->setEndsTold(true);
    reader->setIdleTimeout(0);
    reader->receive(stamped(1, 0, "a\nhalf"));
    reader->receive(stamped(2, 0, "b\n"));
    // This reader expects no ends. When it forgets, the first one would also have forgotten.
    MessageReader other({}, *sink, *counters, ExactOffers::Limits(), unhurried());
    other.setIdleTimeout(0);
    other.receive(stamped(3, 0, "half"));
    QTRY_COMPARE_WITH_TIMEOUT(other.rememberedConnections(), 0, HangGuardMs);
    QCOMPARE(reader->rememberedConnections(), 2);
    reader->receive(stamped(1, 0, "a\nhalf of it\n"));
    QCOMPARE(written(), QByteArray("a\nb\nhalf of it\n"));
}

QTEST_GUILESS_MAIN(tst_ExactReading)
#include "tst_exactreading.moc"
