// SPDX-FileCopyrightText: the tcpinputplugin2 authors
// SPDX-License-Identifier: MIT

#include "tests/host/messagereadertest.h"
#include "tests/kit/hangguard.h"

using namespace messagereadertest;

namespace {

//! A sink that is told when messages are safe, and when it is full.
class ToldSink : public Sink
{
public:
    explicit ToldSink(bool isAcknowledging = true) : acknowledging(isAcknowledging) {}

    bool acknowledges() const override { return acknowledging; }
    void began(const Origin &origin) override
    {
        seen += QStringLiteral("begin %1").arg(origin.connection);
    }
    void write(const Message &message) override
    {
        seen += QStringLiteral("%1 %2 %3-%4%5")
                        .arg(message.origin.connection)
                        .arg(QString::fromUtf8(message.bytes))
                        .arg(message.position)
                        .arg(message.end)
                        .arg(message.partial ? u" partial" : u"");
    }
    void ended(const Origin &origin, const QString &reason, quint64 position) override
    {
        seen += QStringLiteral("end %1 %2 %3").arg(origin.connection).arg(reason).arg(position);
    }
    qint64 finish(std::chrono::milliseconds) override { return 0; }
    void makeRoom() override
    {
        ++waits;
        setFull(false);
    }

    int waits = 0;
    void tell(bool isFull) { setFull(isFull); }
    QStringList take() { return std::exchange(seen, {}); }

private:
    const bool acknowledging;
    QStringList seen;
};

QStringList list(std::initializer_list<const char *> texts)
{
    QStringList result;
    for (const char *text : texts)
        result += QString::fromUtf8(text);
    return result;
}

} // namespace

// A sink that is slow: what it has not saved is not answered, and while it is full nothing is read.
class tst_HeldAnswers : public QObject
{
    Q_OBJECT

private Q_SLOTS:
    void answeredWhenSafe();
    void partOfAnOfferIsSafe();
    void anotherConnectionIsSafe();
    void unfinishedMessageIsAnsweredWithTheLast();
    void notHeldWithoutEnds();
    void notHeldByASinkThatIsAtOnceSafe();
    void positionsAndEnds();
    void fullSinkIsNotGivenMore();
    void fullSinkWithoutOffsets();
    void pauseIsNoSilence();
    void crowdOfEndedConnections();
    void crowdEndsWithThePlugin();

private:
    void make(bool isAcknowledging = true, bool hasEnds = true);

    Counters counters;
    std::unique_ptr<ToldSink> sink;
    std::unique_ptr<MessageReader> reader;
    QList<int> discards;
};

void tst_HeldAnswers::make(bool isAcknowledging, bool hasEnds)
{
    reader.reset();
    discards.clear();
    sink = std::make_unique<ToldSink>(isAcknowledging);
    reader = std::make_unique<MessageReader>(FrameFormat(), *sink, counters, ExactOffers::Limits(),
                                             unhurried());
    connect(reader.get(), &MessageReader::answered, this,
            [this](int bytes, const QMap<QString, QString> &) { discards += bytes; });
    reader->begin({{QStringLiteral("offsets"), true}, {QStringLiteral("ends"), hasEnds}});
}

void tst_HeldAnswers::answeredWhenSafe()
{
    make();
    reader->receive(stamped(1, 0, "a\nb\n"));
    QCOMPARE(sink->take(), list({"begin 1", "1 a 0-2", "1 b 2-4"}));
    QVERIFY(discards.isEmpty());
    Q_EMIT sink->safe(1, 4);
    QCOMPARE(discards, QList<int>{4});
    Q_EMIT sink->safe(1, 4); // a sink that says it twice
    QCOMPARE(discards, QList<int>{4});
}

void tst_HeldAnswers::partOfAnOfferIsSafe()
{
    make();
    reader->receive(stamped(1, 0, "a\nb\n"));
    Q_EMIT sink->safe(1, 2);
    QCOMPARE(discards, QList<int>{2});
    // Offered again, together with what has come meanwhile: only that is new.
    reader->receive(stamped(1, 2, "b\nc\n"));
    QCOMPARE(sink->take(), list({"begin 1", "1 a 0-2", "1 b 2-4", "1 c 4-6"}));
    Q_EMIT sink->safe(1, 6);
    QCOMPARE(discards, QList<int>({2, 4}));
}

void tst_HeldAnswers::anotherConnectionIsSafe()
{
    make();
    reader->receive(stamped(1, 0, "a\n"));
    reader->receive(stamped(2, 0, "bcd\n"));
    Q_EMIT sink->safe(2, 4);
    QCOMPARE(discards, QList<int>{4});
    Q_EMIT sink->safe(3, 9); // there is none
    QCOMPARE(discards, QList<int>{4});
}

void tst_HeldAnswers::unfinishedMessageIsAnsweredWithTheLast()
{
    make();
    reader->receive(stamped(1, 0, "a\nbc"));
    QVERIFY(discards.isEmpty());
    Q_EMIT sink->safe(1, 2);
    QCOMPARE(discards, QList<int>{4}); // the beginning of a message is kept here
}

void tst_HeldAnswers::notHeldWithoutEnds()
{
    make(true, false);
    reader->receive(stamped(1, 0, "a\n"));
    QCOMPARE(discards, QList<int>{2});
}

void tst_HeldAnswers::notHeldByASinkThatIsAtOnceSafe()
{
    make(false);
    reader->receive(stamped(1, 0, "a\n"));
    QCOMPARE(discards, QList<int>{2});
}

void tst_HeldAnswers::positionsAndEnds()
{
    make();
    reader->receive(stamped(1, 0, "a\r\nbc"));
    reader->receive(stamped(1, 0, "a\r\nbcd\nef"));
    reader->receive(endOf(1, 9));
    QCOMPARE(sink->take(),
             list({"begin 1", "1 a 0-3", "1 bcd 3-7", "1 ef 7-9 partial", "end 1 peer 9"}));
    Q_EMIT sink->safe(1, 9); // its plugin's connection is gone: nobody is answered
    QVERIFY(discards.isEmpty());
}

void tst_HeldAnswers::fullSinkIsNotGivenMore()
{
    make();
    sink->tell(true);
    reader->receive(stamped(1, 0, "a\n"));
    reader->receive(stamped(1, 0, "a\nb\n"));
    reader->receive(endOf(1, 4));
    QVERIFY(sink->take().isEmpty());
    sink->tell(false);
    QStringList seen;
    QTRY_VERIFY_WITH_TIMEOUT((seen += sink->take()).size() == 4, HangGuardMs);
    QCOMPARE(seen, list({"begin 1", "1 a 0-2", "1 b 2-4", "end 1 peer 4"}));
}

void tst_HeldAnswers::fullSinkWithoutOffsets()
{
    make();
    sink->tell(true);
    reader->receive(offer("a\n"));
    QCOMPARE(sink->waits, 1);
    QCOMPARE(sink->take(), list({"0 a 0-2"}));
    QCOMPARE(discards, QList<int>{2});
    reader->receive(offer("a\nb\n")); // the cut is not carried out yet
    QCOMPARE(sink->take(), list({"0 b 0-2"}));
    QCOMPARE(sink->waits, 1);
}

// Without "ends", who is silent for too long is forgotten, and what is there of its message is
// handed out. Who waits for the sink is not silent.
void tst_HeldAnswers::pauseIsNoSilence()
{
    make(true, false);
    reader->setIdleTimeout(-2); // so that no silence is short enough
    sink->tell(true);
    reader->receive(stamped(1, 0, "a\nbeg"));
    int passes = 0;
    QTimer timer; // as long as the reader's own: it has looked at least once
    connect(&timer, &QTimer::timeout, this, [&] { ++passes; });
    timer.start(1000);
    QTRY_COMPARE_WITH_TIMEOUT(passes, 3, HangGuardMs);
    QVERIFY(sink->take().isEmpty());
}

void tst_HeldAnswers::crowdOfEndedConnections()
{
    make();
    QSignalSpy crowded(reader.get(), &MessageReader::crowded);
    sink->tell(true);
    for (quint64 connection = 1; connection <= 20000; ++connection) {
        reader->receive(stamped(connection, 0, "a\n"));
        reader->receive(endOf(connection, 2));
    }
    QCOMPARE(crowded.count(), 1);
    QCOMPARE(crowded.takeFirst().first().toBool(), true);
    sink->tell(false);
    QCOMPARE(crowded.count(), 1);
    QCOMPARE(crowded.takeFirst().first().toBool(), false);
    QStringList seen;
    QTRY_VERIFY_WITH_TIMEOUT((seen += sink->take()).size() == 60000, HangGuardMs);
    sink->tell(true);
    sink->tell(false);
    QVERIFY(crowded.isEmpty());
}

void tst_HeldAnswers::crowdEndsWithThePlugin()
{
    make();
    QSignalSpy crowded(reader.get(), &MessageReader::crowded);
    sink->tell(true);
    for (quint64 connection = 1; connection <= 10000; ++connection) {
        reader->receive(stamped(connection, 0, "a\n"));
        reader->receive(endOf(connection, 2));
    }
    QCOMPARE(crowded.count(), 1);
    reader->forgetAll();
    QCOMPARE(crowded.count(), 2);
    QCOMPARE(crowded.last().first().toBool(), false);
    QCOMPARE(sink->take().size(), 30000);
}

QTEST_GUILESS_MAIN(tst_HeldAnswers)
#include "tst_heldanswers.moc"
