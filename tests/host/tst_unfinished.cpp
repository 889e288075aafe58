// SPDX-FileCopyrightText: the tcpinputplugin2 authors
// SPDX-License-Identifier: MIT

#include "host/messagereader.h"
#include "plugin/kit/linelimit.h"
#include "plugin/kit/unfinishedsizes.h"

#include "tests/host/messagereadertest.h"
#include "tests/kit/hangguard.h"
#include "tests/kit/messagecapture.h"

#include <QtTest/QtTest>

using namespace host;
using inputkit::LineLimit;
using inputkit::UnfinishedSizes;
using namespace messagereadertest;

namespace {

QByteArray some(int bytes)
{
    return QByteArray(bytes, 'x');
}

QStringList warnings()
{
    QStringList texts;
    for (const CapturedMessage &line : MessageCapture::take())
        texts += line.text.mid(13); // without the time
    return texts;
}

} // namespace

// The memory for unfinished messages has a limit.
class tst_Unfinished : public MessageReaderTest
{
    Q_OBJECT

private Q_SLOTS:
    void init() { begin(); }
    void cleanup() { end(); }

    void sizes();
    void givesUpTheLongest();
    void limitIsNotExceeded();
    void finishedOnesCountNoMore();
    void endedOnesCountNoMore();
    void countedMessages();
    void lengthThatIsNotKnown();
    void warnsOfAFew();
    void lineLimit();
    void tooLongOnesCauseFewLines();
};

void tst_Unfinished::sizes()
{
    UnfinishedSizes sizes;
    QCOMPARE(sizes.total(), 0);
    sizes.change(1, 0, 10);
    sizes.change(2, 0, 30);
    sizes.change(3, 0, 20);
    QCOMPARE(sizes.total(), 60);
    QCOMPARE(sizes.largest(), 2U);
    sizes.change(2, 30, 5);
    QCOMPARE(sizes.largest(), 3U);
    sizes.change(3, 20, 0);
    sizes.change(1, 10, 10);
    QCOMPARE(sizes.largest(), 1U);
    QCOMPARE(sizes.total(), 15);
}

// The bytes of the longest unfinished message are printed, and its remaining bytes are skipped. The
// connection continues with the next message.
void tst_Unfinished::givesUpTheLongest()
{
    const MessageCapture capture;
    make({}, OutputOptions::Json);
    reader->setMaxUnfinished(100);
    reader->receive(stamped(1, 0, some(60)));
    reader->receive(stamped(2, 0, some(20)));
    reader->receive(stamped(3, 0, some(20)));
    QCOMPARE(written(), QByteArray());

    reader->receive(stamped(2, 20, "y"));

    const QByteArray text = written();
    QCOMPARE(text.count('\n'), 1);
    QVERIFY2(text.contains(R"("bytes":60,)") && text.contains(R"("partial":true)"),
             text.constData());
    QCOMPARE(counters->partial, 1);
    QCOMPARE(counters->tooLong, 0);
    QCOMPARE(warnings(),
             QStringList(QStringLiteral("Unfinished message of 60 bytes given up, from TCP:c")));

    reader->receive(stamped(1, 60, some(90))); // rest of a given-up message: skipped, not counted
    reader->receive(stamped(1, 150, "x\na\n"));
    reader->receive(stamped(2, 21, "\n"));
    reader->receive(stamped(3, 20, "\n"));
    QCOMPARE(counters->partial, 1);
    QCOMPARE(counters->messages, 3);
    QVERIFY(written().contains("\"text\":\"a\"}\n"));
    QCOMPARE(reader->rememberedConnections(), 0);
}

void tst_Unfinished::limitIsNotExceeded()
{
    const MessageCapture capture;
    make({}, OutputOptions::None);
    reader->setMaxUnfinished(1000);
    for (quint64 n = 1; n <= 100; ++n)
        reader->receive(stamped(n, 0, some(100)));
    QCOMPARE(counters->partial, 90);
    reader->receive(stamped(101, 0, some(1001))); // gives up only this message
    QCOMPARE(counters->partial, 91);
    reader->forgetAll();
    QCOMPARE(counters->partial, 101);
}

void tst_Unfinished::finishedOnesCountNoMore()
{
    reader->setMaxUnfinished(100);
    for (quint64 n = 0; n < 10; ++n)
        reader->receive(stamped(1, 60 * n, n % 2 == 0 ? some(60) : some(59) + '\n'));
    QCOMPARE(counters->messages, 5);
    QCOMPARE(counters->partial, 0);
}

void tst_Unfinished::endedOnesCountNoMore()
{
    make({}, OutputOptions::None);
    reader->setEndsTold(true);
    reader->setMaxUnfinished(100);
    for (quint64 n = 1; n <= 10; ++n) {
        reader->receive(stamped(n, 0, some(60)));
        QCOMPARE(counters->partial, qint64(n - 1)); // none was given up before its end
        reader->receive(endOf(n, 60));
        QCOMPARE(counters->partial, qint64(n));
    }
}

void tst_Unfinished::countedMessages()
{
    const MessageCapture capture;
    make({Framing::Length, 1000}, OutputOptions::Json);
    reader->setMaxUnfinished(10);
    reader->receive(stamped(1, 0, QByteArray("\0\0\0\x14", 4) + some(7))); // 7 bytes of 20
    QVERIFY(written().contains(R"("bytes":7,"text":"xxxxxxx","partial":true)"));
    reader->receive(stamped(1, 11, some(13) + QByteArray("\0\0\0\1a", 5)));
    QVERIFY(written().contains(R"("bytes":1,"text":"a"})"));
    QCOMPARE(counters->messages, 1);
    QCOMPARE(counters->partial, 1);
}

// An incomplete byte count is kept despite the limit: without it, the number of bytes to skip is
// unknown.
void tst_Unfinished::lengthThatIsNotKnown()
{
    make({Framing::Length, 1000});
    reader->setMaxUnfinished(1);
    reader->receive(stamped(1, 0, QByteArray("\0\0\0", 3)));
    reader->receive(stamped(1, 3, QByteArray("\1a", 2)));
    QCOMPARE(counters->messages, 1);
    QCOMPARE(counters->partial, 0);
}

void tst_Unfinished::warnsOfAFew()
{
    const MessageCapture capture;
    make({}, OutputOptions::None);
    reader->setMaxUnfinished(10);
    for (quint64 n = 1; n <= 1000; ++n)
        reader->receive(stamped(n, 0, some(11)));
    QCOMPARE(counters->partial, 1000);
    QCOMPARE(warnings().size(), 10);
    reader->forgetAll();
    QCOMPARE(warnings(), QStringList(QStringLiteral("990 more unfinished messages given up")));
}

void tst_Unfinished::lineLimit()
{
    LineLimit limit(2, std::chrono::milliseconds(100));
    QElapsedTimer since;
    since.start();
    QVERIFY(limit.allows());
    QVERIFY(limit.allows());
    QVERIFY(!limit.allows());
    QVERIFY(!limit.allows());
    QCOMPARE(limit.takeMissed(true), 2);
    QVERIFY(limit.allows());
    QVERIFY(limit.allows());
    QVERIFY(!limit.allows());
    qint64 missed = 0;
    QDeadlineTimer guard(HangGuardMs);
    while ((missed = limit.takeMissed(false)) == 0 && !guard.hasExpired())
        QTest::qWait(1);
    QVERIFY(since.elapsed() >= 100);
    QCOMPARE(missed, 1);
    QCOMPARE(limit.takeMissed(true), 0);
}

void tst_Unfinished::tooLongOnesCauseFewLines()
{
    const MessageCapture capture;
    make({Framing::Lines, 3}, OutputOptions::None);
    reader->receive(stamped(1, 0, QByteArray("12345\n").repeated(10000)));
    QCOMPARE(counters->tooLong, 10000);
    QCOMPARE(warnings(),
             QStringList(10, QStringLiteral("Message of more than 3 bytes skipped, from TCP:c")));
    reader->forgetAll();
    QCOMPARE(warnings(),
             QStringList(QStringLiteral("9990 more messages of more than 3 bytes "
                                        "skipped")));
}

QTEST_GUILESS_MAIN(tst_Unfinished)
#include "tst_unfinished.moc"
