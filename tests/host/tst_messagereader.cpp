// SPDX-FileCopyrightText: the tcpinputplugin2 authors
// SPDX-License-Identifier: MIT

#include "host/messagereader.h"

#include "tests/host/messagereadertest.h"
#include "tests/kit/hangguard.h"
#include "tests/kit/messagecapture.h"

#include <QtTest/QtTest>

using namespace host;
using namespace messagereadertest;

namespace {

constexpr int CutGraceMs = 50;

} // namespace

// Offers without a position, and rules for all offers.
class tst_MessageReader : public MessageReaderTest
{
    Q_OBJECT

private Q_SLOTS:
    void init() { begin(); }
    void cleanup() { end(); }

    void answersWithCompleteMessages();
    void doesNotAnswerIncompleteOnes();
    void recordFields();
    void repeatIsNeitherPrintedNorDiscarded();
    void newBytesBehindARepeat();
    void sameBytesLaterAreNew();
    void offersThatWaitAreRepeats();
    void unclearOfferThenSilence();
    void unclearOfferThenAnother();
    void lastOffersOfAPlugin();
    void lastOfferBehindADiscard();
    void unclearOfferIsReadBeforeItsClientIsForgotten();
    void clientsAreApart();
    void otherConnectionUnderTheSameId();
    void tooLongWarnsOnce();
    void tooLongAcrossOffers();
    void lengthFraming();
    void noFraming();
    void messageLimit();
    void messageLimitEndsPartialsToo();
    void forgetsAll();
    void forgetsSilentConnections();
    void forgetsTheLongestSilentOfTooMany();
    void keepsNothingOfSettledConnections();
    void countsConnectionsOnce();
};

void tst_MessageReader::answersWithCompleteMessages()
{
    QSignalSpy spy(reader.get(), &MessageReader::answered);
    reader->receive(offer("a\nbc\nd", QStringLiteral("x"), 3));
    QCOMPARE(written(), QByteArray("a\nbc\n"));
    QCOMPARE(spy.count(), 1);
    QCOMPARE(spy.first().at(0).toInt(), 5);
    const auto subId = spy.first().at(1).value<QMap<QString, QString>>();
    const QMap<QString, QString> expected = {{QStringLiteral("client"), QStringLiteral("x")},
                                             {QStringLiteral("task"), QStringLiteral("3")}};
    QCOMPARE(subId, expected);
    QCOMPARE(counters->longLine(),
             QStringLiteral("messages 2 bytes 3 connections 1 partial 0 too-long 0 offers 1"));
}

void tst_MessageReader::doesNotAnswerIncompleteOnes()
{
    reader->receive(offer("ab"));
    reader->receive(offer("abc"));
    QCOMPARE(discards(), QList<int>());
    reader->receive(offer("abc\n"));
    QCOMPARE(discards(), QList<int>({4}));
    QCOMPARE(written(), QByteArray("abc\n"));
}

void tst_MessageReader::recordFields()
{
    make({}, OutputOptions::Json);
    const shared_parsedData record = offer("a\n", QStringLiteral("x"), 2);
    reader->receive(record);
    const QByteArray time = record->getTimestamp(QTimeZone::utc()).toLatin1();
    QVERIFY(time.endsWith('Z'));
    QCOMPARE(written(),
             "{\"time\":\"" + time
                     + "\","
                       R"("plugin":"tcp","source":"TCP:x","peer":"127.0.0.2","port":40001,)"
                       R"("client":"x","task":2,"bytes":1,"text":"a"})"
                       "\n");
}

void tst_MessageReader::repeatIsNeitherPrintedNorDiscarded()
{
    reader->receive(offer("hello\n"));
    reader->receive(offer("hello\n"));
    QCOMPARE(written(), QByteArray("hello\n"));
    QCOMPARE(discards(), QList<int>({6}));
    QCOMPARE(counters->offers, 2);
}

void tst_MessageReader::newBytesBehindARepeat()
{
    reader->receive(offer("a\nb"));
    reader->receive(offer("a\nbc\nd\ne"));
    QCOMPARE(written(), QByteArray("a\nbc\nd\n"));
    QCOMPARE(discards(), QList<int>({2, 5}));
}

void tst_MessageReader::sameBytesLaterAreNew()
{
    QElapsedTimer since;
    since.start();
    reader->receive(offer("a\n"));
    QTRY_COMPARE_WITH_TIMEOUT(reader->rememberedConnections(), 0, HangGuardMs);
    QVERIFY(since.elapsed() >= CutGraceMs * 95 / 100);
    reader->receive(offer("a\n"));
    QCOMPARE(written(), QByteArray("a\na\n"));
    QCOMPARE(discards(), QList<int>({2, 2}));
}

// An offer that waited in the queue at the discard was made before it, however long the host takes.
void tst_MessageReader::offersThatWaitAreRepeats()
{
    QMetaObject::invokeMethod(
            reader.get(), [this] { reader->receive(offer("a\na\n")); }, Qt::QueuedConnection);
    reader->receive(offer("a\n"));
    QThread::msleep(2 * CutGraceMs); // as if it had to wait for a slow reader of its output
    QTRY_COMPARE_WITH_TIMEOUT(counters->offers, 2, HangGuardMs);
    QCOMPARE(written(), QByteArray("a\na\n"));
    QCOMPARE(discards(), QList<int>({2, 2}));
}

void tst_MessageReader::unclearOfferThenSilence()
{
    reader->receive(offer("a\n"));
    QCoreApplication::sendPostedEvents();
    reader->receive(offer("a\nb\n"));
    QCOMPARE(written(), QByteArray("a\n"));
    QCOMPARE(discards(), QList<int>({2, 0}));
    QTRY_COMPARE_WITH_TIMEOUT(counters->messages, 2, HangGuardMs);
    QCOMPARE(written(), QByteArray("b\n"));
    QCOMPARE(discards(), QList<int>({2, 0, 2}));
    QTRY_COMPARE_WITH_TIMEOUT(reader->rememberedConnections(), 0, HangGuardMs);
}

void tst_MessageReader::unclearOfferThenAnother()
{
    reader->receive(offer("a\n"));
    QCoreApplication::sendPostedEvents();
    reader->receive(offer("a\nb\n"));
    QCOMPARE(written(), QByteArray("a\n"));
    reader->receive(offer("a\nb\nc\n"));
    QCOMPARE(written(), QByteArray("a\nb\nc\n"));
    QCOMPARE(discards(), QList<int>({2, 0, 6}));
    QTRY_COMPARE_WITH_TIMEOUT(reader->rememberedConnections(), 0, HangGuardMs);
    QCOMPARE(counters->messages, 4);
}

// The plugin is ending: it makes no new offer on request.
void tst_MessageReader::lastOffersOfAPlugin()
{
    for (const char *client : {"x", "y", "z"})
        reader->receive(offer("a\n", QString::fromLatin1(client)));
    QCoreApplication::sendPostedEvents();
    QCOMPARE(written(), QByteArray("a\na\na\n"));
    QCOMPARE(discards(), QList<int>({2, 2, 2}));

    reader->setAnswering(false);
    reader->receive(offer("b\n", QStringLiteral("x"))); // made after the cut
    reader->receive(offer("b\n", QStringLiteral("x"))); // a repeat: made before the next cut
    QCOMPARE(written(), QByteArray("b\n"));
    reader->receive(offer("a\n", QStringLiteral("y"))); // made when the device closed
    reader->receive(offer("a\na\n", QStringLiteral("z"))); // made by an earlier discard
    reader->receive(offer("a\na\na\n", QStringLiteral("z"))); // made by stop()
    QCOMPARE(written(), QByteArray("a\na\na\n"));
    reader->forgetAll();
    QCOMPARE(written(), QByteArray());
    QCOMPARE(discards(), QList<int>({2, 2, 2}));
}

// The discard, and the offer that was made behind it, are no older than the end.
void tst_MessageReader::lastOfferBehindADiscard()
{
    reader->receive(offer("a\nhal"));
    reader->setAnswering(false);
    reader->receive(offer("half\n")); // made when the device closed
    reader->forgetAll();
    QCOMPARE(written(), QByteArray("a\nhalf\n"));
    QCOMPARE(counters->partial, 0);
}

void tst_MessageReader::unclearOfferIsReadBeforeItsClientIsForgotten()
{
    reader->receive(offer("a\n"));
    QCoreApplication::sendPostedEvents();
    reader->receive(offer("a\nb\nhalf"));
    reader->forgetAll();
    QCOMPARE(written(), QByteArray("a\nb\n"));
    QCOMPARE(discards(), QList<int>({2, 0})); // no more requests: the plugin is gone
    QCOMPARE(counters->partial, 1);
}

void tst_MessageReader::clientsAreApart()
{
    reader->receive(offer("a\nb", QStringLiteral("x"), 0));
    reader->receive(offer("a\nb", QStringLiteral("y"), 0));
    reader->receive(offer("a\nb", QStringLiteral("x"), 1));
    QCOMPARE(written(), QByteArray("a\na\na\n"));
    QCOMPARE(discards(), QList<int>({2, 2, 2}));
    QCOMPARE(counters->connections(), 2);
}

void tst_MessageReader::otherConnectionUnderTheSameId()
{
    make({}, OutputOptions::Json);
    reader->receive(offer("half"));
    reader->receive(offer("whole\n"));
    const QByteArrayList lines = written().split('\n');
    QVERIFY(lines.at(0).endsWith(R"("bytes":4,"text":"half","partial":true})"));
    QVERIFY(lines.at(1).endsWith(R"("bytes":5,"text":"whole"})"));
    QCOMPARE(discards(), QList<int>({6}));
    QCOMPARE(counters->partial, 1);
}

void tst_MessageReader::tooLongWarnsOnce()
{
    make({Framing::Lines, 3});
    const MessageCapture capture;
    reader->receive(offer("1234\nabc\n12345\n", QStringLiteral("x")));
    const QList<CapturedMessage> lines = MessageCapture::take();
    QCOMPARE(lines.size(), 2);
    for (const CapturedMessage &line : lines) {
        QCOMPARE(line.level, QtWarningMsg);
        QVERIFY(line.text.endsWith(
                QLatin1String("Message of more than 3 bytes skipped, from TCP:x")));
    }
    QCOMPARE(written(), QByteArray("abc\n"));
    QCOMPARE(discards(), QList<int>({15}));
    QCOMPARE(counters->tooLong, 2);
}

void tst_MessageReader::tooLongAcrossOffers()
{
    make({Framing::Lines, 3});
    const MessageCapture capture;
    reader->receive(offer("12345"));
    // All five bytes were discarded, so the plugin's buffer is empty.
    QCOMPARE(discards(), QList<int>({5}));
    reader->receive(offer("12345678")); // a repeat with more bytes behind it
    QCOMPARE(discards(), QList<int>({5, 3}));
    QCoreApplication::sendPostedEvents();
    reader->receive(offer("9\nabc\n"));
    QCOMPARE(discards(), QList<int>({5, 3, 6}));
    QCOMPARE(written(), QByteArray("abc\n"));
    QCOMPARE(MessageCapture::take().size(), 1);
    QCOMPARE(counters->tooLong, 1);
}

void tst_MessageReader::lengthFraming()
{
    make({Framing::Length, 100}, OutputOptions::Json);
    const QByteArray bytes("\0\0\0\1a\0\0\0\0\0\0\0\3bc", 15);
    reader->receive(offer(bytes));
    QCOMPARE(discards(), QList<int>({9}));
    reader->forgetAll();
    const QByteArrayList lines = written().split('\n');
    QVERIFY(lines.at(0).endsWith(R"("bytes":1,"text":"a"})"));
    QVERIFY(lines.at(1).endsWith(R"("bytes":0,"text":""})"));
    QVERIFY(lines.at(2).endsWith(R"("bytes":2,"text":"bc","partial":true})"));
}

void tst_MessageReader::noFraming()
{
    make({Framing::None, 3});
    reader->receive(offer("12345\n"));
    reader->receive(offer("12345\n67"));
    QCOMPARE(written(), QByteArray("12345\n67"));
    QCOMPARE(discards(), QList<int>({6, 2}));
    QCOMPARE(counters->messages, 2);
    QCOMPARE(counters->bytes, 8);
}

void tst_MessageReader::messageLimit()
{
    QSignalSpy finished(reader.get(), &MessageReader::finished);
    reader->setMessageLimit(3);
    reader->receive(offer("a\nb\n"));
    QCOMPARE(finished.count(), 0);
    reader->receive(offer("c\nd\n", QStringLiteral("x")));
    QCOMPARE(finished.count(), 1);
    reader->receive(offer("e\n", QStringLiteral("y")));
    QCOMPARE(finished.count(), 1);
    QCOMPARE(counters->offers, 2);
    QCOMPARE(written(), QByteArray("a\nb\nc\n"));
    QCOMPARE(discards(), QList<int>({4, 2}));
    QCOMPARE(counters->messages, 3);
}

void tst_MessageReader::messageLimitEndsPartialsToo()
{
    make({}, OutputOptions::Json);
    reader->setMessageLimit(1);
    reader->receive(offer("half", QStringLiteral("x")));
    reader->receive(offer("a\nb\n"));
    reader->forgetAll();
    QCOMPARE(written().count('\n'), 1);
    QCOMPARE(counters->partial, 0);
}

void tst_MessageReader::forgetsAll()
{
    make({}, OutputOptions::Json);
    reader->receive(offer("a\nhalf"));
    reader->receive(offer("b\n", QStringLiteral("x")));
    reader->forgetAll();
    QCOMPARE(written().split('\n').at(2).right(35),
             QByteArray(R"("bytes":4,"text":"half","partial":true})").right(35));
    reader->forgetAll();
    QCOMPARE(written(), QByteArray());
    // A new plugin has new connections.
    reader->receive(offer("a\n"));
    QCOMPARE(counters->messages, 3);
}

void tst_MessageReader::forgetsSilentConnections()
{
    make({}, OutputOptions::Json);
    reader->setIdleTimeout(1);
    QElapsedTimer since;
    since.start();
    reader->receive(offer("half"));
    QTRY_COMPARE_WITH_TIMEOUT(counters->partial, 1, HangGuardMs);
    QVERIFY(since.elapsed() >= 3050 * 95 / 100);
    QVERIFY(written().endsWith(R"("text":"half","partial":true})"
                               "\n"));
}

void tst_MessageReader::forgetsTheLongestSilentOfTooMany()
{
    make({}, OutputOptions::Json);
    for (int n = 0; n < 100000; ++n)
        reader->receive(offer("half", QString::number(n)));
    reader->receive(offer("half of it", QStringLiteral("0")));
    QCOMPARE(written(), QByteArray());
    reader->receive(offer("half", QStringLiteral("x")));
    // Client 0 has sent more meanwhile, so client 1 has been silent for the longest time.
    const QByteArray forgotten = written();
    QCOMPARE(forgotten.count('\n'), 1);
    QVERIFY2(forgotten.contains(R"("client":"1",)"), forgotten.constData());
    QCOMPARE(reader->rememberedConnections(), 100000);
}

void tst_MessageReader::keepsNothingOfSettledConnections()
{
    for (int n = 0; n < 10; ++n)
        reader->receive(offer("a\n", QString::number(n)));
    reader->receive(offer("a\nb", QStringLiteral("x")));
    QCOMPARE(reader->rememberedConnections(), 11);
    QTRY_COMPARE_WITH_TIMEOUT(reader->rememberedConnections(), 1, HangGuardMs);
    reader->receive(offer("bc\n", QStringLiteral("x")));
    QCOMPARE(counters->messages, 12);
    QTRY_COMPARE_WITH_TIMEOUT(reader->rememberedConnections(), 0, HangGuardMs);
}

void tst_MessageReader::countsConnectionsOnce()
{
    for (int round = 0; round < 2; ++round) {
        for (int n = 0; n < 5; ++n)
            reader->receive(offer("a\n", QString::number(n)));
        QTRY_COMPARE_WITH_TIMEOUT(reader->rememberedConnections(), 0, HangGuardMs);
    }
    QCOMPARE(counters->connections(), 5);
}

QTEST_GUILESS_MAIN(tst_MessageReader)
#include "tst_messagereader.moc"
