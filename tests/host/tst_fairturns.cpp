// SPDX-FileCopyrightText: the tcpinputplugin2 authors
// SPDX-License-Identifier: MIT

#include "host/messagereader.h"

#include "tests/host/messagereadertest.h"
#include "tests/kit/hangguard.h"

#include <QtTest/QtTest>

using namespace host;
using namespace messagereadertest;

namespace {

// The lines "<name>0" to "<name><count - 1>".
QByteArray lines(char name, int count)
{
    QByteArray result;
    for (int n = 0; n < count; ++n)
        result += name + QByteArray::number(n) + '\n';
    return result;
}

} // namespace

// One connection must not occupy the thread.
class tst_FairTurns : public MessageReaderTest
{
    Q_OBJECT

private Q_SLOTS:
    void init() { begin(); }
    void cleanup() { end(); }

    void connectionsTakeTurns();
    void largeMessagesTakeTurns();
    void eventsComeInBetween();
    void timeOfATurnIsLimited();
    void laterOfferTakesTheTurn();
    void endWaitsForTheRest();
    void longOfferIsAnsweredInBetween_data();
    void longOfferIsAnsweredInBetween();
    void forgetAllReadsWhatWaits();
    void forgottenConnectionHasNoTurn();
    void messageLimitEndsTurns();

private:
    void makeTwoMessagesAGo(std::chrono::nanoseconds time = std::chrono::hours(1));
};

void tst_FairTurns::makeTwoMessagesAGo(std::chrono::nanoseconds time)
{
    Pace pace;
    pace.ofOffer.messages = 2;
    pace.ofTurn = time;
    make({}, OutputOptions::Raw, pace);
    reader->setEndsTold(true);
}

void tst_FairTurns::connectionsTakeTurns()
{
    makeTwoMessagesAGo();
    reader->receive(stamped(1, 0, lines('a', 5)));
    reader->receive(stamped(2, 0, lines('b', 5)));
    reader->receive(stamped(3, 0, lines('c', 1)));
    QCOMPARE(written(), QByteArray("a0\na1\nb0\nb1\nc0\n"));
    QCOMPARE(discards(), QList<int>({3})); // an offer is answered only when all of it is read

    QTRY_COMPARE_WITH_TIMEOUT(counters->messages, 11, HangGuardMs);

    QCOMPARE(written(), QByteArray("a2\na3\nb2\nb3\na4\nb4\n"));
    QCOMPARE(discards(), QList<int>({3, 15, 15}));
}

void tst_FairTurns::largeMessagesTakeTurns()
{
    Pace pace = unhurried();
    pace.ofOffer.bytes = 100;
    make({}, OutputOptions::Raw, pace);
    reader->receive(stamped(1, 0, QByteArray(200, 'x') + "\na\n"));
    QCOMPARE(counters->messages, 1);
    QTRY_COMPARE_WITH_TIMEOUT(counters->messages, 2, HangGuardMs);
}

void tst_FairTurns::eventsComeInBetween()
{
    makeTwoMessagesAGo(std::chrono::nanoseconds(1)); // one go in each turn of the event loop
    reader->receive(stamped(1, 0, lines('a', 20)));
    QList<qint64> seen;
    QTimer timer;
    connect(&timer, &QTimer::timeout, this, [&] { seen += counters->messages; });
    timer.start(0);
    while (counters->messages < 20)
        QCoreApplication::processEvents();
    timer.stop();
    QCOMPARE(seen.mid(0, 8), QList<qint64>({4, 6, 8, 10, 12, 14, 16, 18}));
}

// The reading time in one turn of the event loop is limited, even if many offers come in it.
void tst_FairTurns::timeOfATurnIsLimited()
{
    makeTwoMessagesAGo(std::chrono::nanoseconds(1));
    for (quint64 n = 1; n <= 10; ++n)
        reader->receive(stamped(n, 0, "a\n"));
    QCOMPARE(counters->messages, 1);
    QCOMPARE(counters->offers, 10);
    int turns = 0;
    while (counters->messages < 10 && turns < 100) {
        QCoreApplication::processEvents();
        ++turns;
    }
    QCOMPARE(turns, 9);
}

// A later offer contains all unconsumed bytes. So it replaces the earlier one, and memory holds
// only one offer of a connection.
void tst_FairTurns::laterOfferTakesTheTurn()
{
    makeTwoMessagesAGo();
    QByteArray bytes = lines('a', 5);
    shared_parsedData first = stamped(1, 0, bytes);
    reader->receive(first);
    reader->receive(stamped(1, 3, lines('a', 7).mid(3))); // made after the first message was cut
    first.clear();
    QVERIFY(bytes.isDetached());
    QTRY_COMPARE_WITH_TIMEOUT(counters->messages, 7, HangGuardMs);
    QCOMPARE(written(), lines('a', 7));
    QCOMPARE(discards(), QList<int>({18}));
    QCOMPARE(counters->offers, 2);
}

void tst_FairTurns::endWaitsForTheRest()
{
    makeTwoMessagesAGo();
    reader->receive(stamped(1, 0, lines('a', 5) + "half"));
    reader->receive(stamped(1, 0, lines('a', 6) + "half"));
    reader->receive(endOf(1, 22));
    QCOMPARE(counters->partial, 0);
    QTRY_COMPARE_WITH_TIMEOUT(counters->partial, 1, HangGuardMs);
    QCOMPARE(written(), lines('a', 6));
    QCOMPARE(reader->rememberedConnections(), 0);
}

// If the plugin's buffer is full, the device has to wait. Early answers let it go on sending.
// That costs, so only an offer that takes long has them.
void tst_FairTurns::longOfferIsAnsweredInBetween_data()
{
    QTest::addColumn<std::chrono::nanoseconds>("after");
    QTest::addColumn<qsizetype>("answers");
    QTest::newRow("it takes long") << std::chrono::nanoseconds::zero()
                                   << qsizetype(3); // a half, a quarter, the rest below 256 KiB
    QTest::newRow("it does not") << std::chrono::nanoseconds(std::chrono::hours(1)) << qsizetype(1);
}

void tst_FairTurns::longOfferIsAnsweredInBetween()
{
    QFETCH(std::chrono::nanoseconds, after);
    QFETCH(qsizetype, answers);
    Pace pace;
    pace.ofAnswer = after;
    make({}, OutputOptions::None, pace);
    constexpr int length = 1000 * 1000;
    reader->receive(stamped(1, 0, QByteArray(length, '\n')));
    QTRY_COMPARE_WITH_TIMEOUT(counters->messages, length, HangGuardMs);
    QCOMPARE(discards().size(), answers);
    QCOMPARE(discards().last(), length);
    QVERIFY(std::is_sorted(discarded.begin(), discarded.end()));
}

void tst_FairTurns::forgetAllReadsWhatWaits()
{
    makeTwoMessagesAGo();
    reader->receive(stamped(1, 0, lines('a', 5) + "half"));
    reader->setAnswering(false);
    reader->forgetAll();
    QCOMPARE(counters->partial, 1);
    QCOMPARE(written(), lines('a', 5));
    QCOMPARE(discards(), QList<int>());
    QCOMPARE(reader->rememberedConnections(), 0);
}

void tst_FairTurns::forgottenConnectionHasNoTurn()
{
    makeTwoMessagesAGo();
    reader->receive(stamped(1, 0, lines('a', 5)));
    reader->forgetAll();
    reader->receive(stamped(1, 15, lines('b', 3)));
    QTRY_COMPARE_WITH_TIMEOUT(counters->messages, 8, HangGuardMs);
    QCOMPARE(written(), lines('a', 5) + lines('b', 3));
}

void tst_FairTurns::messageLimitEndsTurns()
{
    makeTwoMessagesAGo();
    reader->setMessageLimit(3);
    QSignalSpy finished(reader.get(), &MessageReader::finished);
    reader->receive(stamped(1, 0, lines('a', 5)));
    reader->receive(stamped(2, 0, lines('b', 5)));
    QTRY_COMPARE_WITH_TIMEOUT(finished.count(), 1, HangGuardMs);
    reader->forgetAll();
    QCOMPARE(finished.count(), 1);
    QCOMPARE(counters->messages, 3);
    QCOMPARE(written().count('\n'), 3);
}

QTEST_GUILESS_MAIN(tst_FairTurns)
#include "tst_fairturns.moc"
