// SPDX-FileCopyrightText: the tcpinputplugin2 authors
// SPDX-License-Identifier: MIT

#include "host/messagereader.h"

#include "tests/kit/hangguard.h"
#include "tests/kit/messagecapture.h"

#include <QtTest/QtTest>

#include <fcntl.h>
#include <unistd.h>

using namespace host;

namespace {

constexpr int CutGraceMs = 50;
constexpr int FirstAskAfterMs = 10;

shared_parsedData offer(const QByteArray &bytes, const QString &client = QStringLiteral("c"),
                        int task = 0)
{
    shared_parsedData record(new ParsedData);
    record->setPluginId(QStringLiteral("tcp"));
    record->setPeerAddress(QStringLiteral("127.0.0.2"));
    record->setPeerPort(40001);
    record->setSource(QStringLiteral("TCP:") + client);
    record->setOriginalMessage(bytes);
    record->addPluginSubId(QStringLiteral("client"), client);
    record->addPluginSubId(QStringLiteral("task"), QString::number(task));
    return record;
}

// An offer of a connection, from its byte number offset on.
shared_parsedData stamped(quint64 connection, quint64 offset, const QByteArray &bytes)
{
    const shared_parsedData record = offer(bytes);
    record->addPluginSubId(QStringLiteral("offset"), QString::number(offset));
    record->addPluginSubId(QStringLiteral("connection"), QString::number(connection));
    return record;
}

} // namespace

class tst_MessageReader : public QObject
{
    Q_OBJECT

private Q_SLOTS:
    void init();
    void cleanup();

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

private:
    void make(const FrameFormat &format, OutputFormat outputFormat = OutputFormat::Raw);
    QByteArray written() const; // since the last call
    QList<int> discards() const { return discarded; }

    int pipeEnds[2] = {-1, -1};
    std::unique_ptr<Counters> counters;
    std::unique_ptr<Output> output;
    std::unique_ptr<MessageReader> reader;
    QList<int> discarded;
};

void tst_MessageReader::init()
{
    QCOMPARE(::pipe2(pipeEnds, O_NONBLOCK | O_CLOEXEC), 0);
    make({});
}

void tst_MessageReader::cleanup()
{
    reader.reset();
    ::close(pipeEnds[0]);
    ::close(pipeEnds[1]);
}

void tst_MessageReader::make(const FrameFormat &format, OutputFormat outputFormat)
{
    reader.reset();
    discarded.clear();
    counters = std::make_unique<Counters>();
    output = std::make_unique<Output>(outputFormat, format.framing, pipeEnds[1]);
    reader = std::make_unique<MessageReader>(format, *output, *counters);
    connect(reader.get(), &MessageReader::answered, this,
            [this](int bytes, const QMap<QString, QString> &) { discarded += bytes; });
}

QByteArray tst_MessageReader::written() const
{
    output->flush();
    QByteArray result;
    char buffer[4096];
    for (ssize_t size = 0; (size = ::read(pipeEnds[0], buffer, sizeof buffer)) > 0;)
        result.append(buffer, size);
    return result;
}

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
    make({}, OutputFormat::Json);
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
    QTRY_COMPARE(reader->rememberedConnections(), 0);
    QVERIFY(since.elapsed() >= CutGraceMs * 95 / 100);
    reader->receive(offer("a\n"));
    QCOMPARE(written(), QByteArray("a\na\n"));
    QCOMPARE(discards(), QList<int>({2, 2}));
}

// However long the host takes: what waited when it discarded was made before.
void tst_MessageReader::offersThatWaitAreRepeats()
{
    QMetaObject::invokeMethod(
            reader.get(), [this] { reader->receive(offer("a\na\n")); }, Qt::QueuedConnection);
    reader->receive(offer("a\n"));
    QThread::msleep(2 * CutGraceMs); // as writing to a slow reader does
    QTRY_COMPARE(counters->offers, 2);
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
    QTRY_COMPARE(counters->messages, 2);
    QCOMPARE(written(), QByteArray("b\n"));
    QCOMPARE(discards(), QList<int>({2, 0, 2}));
    QTRY_COMPARE(reader->rememberedConnections(), 0);
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
    QTRY_COMPARE(reader->rememberedConnections(), 0);
    QCOMPARE(counters->messages, 4);
}

// Nobody answers a question any more.
void tst_MessageReader::lastOffersOfAPlugin()
{
    for (const char *client : {"x", "y", "z"})
        reader->receive(offer("a\n", QString::fromLatin1(client)));
    QCoreApplication::sendPostedEvents();
    QCOMPARE(written(), QByteArray("a\na\na\n"));
    QCOMPARE(discards(), QList<int>({2, 2, 2}));

    reader->setAnswering(false);
    reader->receive(offer("b\n", QStringLiteral("x"))); // the cut was carried out
    reader->receive(offer("b\n", QStringLiteral("x"))); // but not the one for this
    QCOMPARE(written(), QByteArray("b\n"));
    reader->receive(offer("a\n", QStringLiteral("y"))); // made when the device closed
    reader->receive(offer("a\na\n", QStringLiteral("z"))); // made by an earlier discard
    reader->receive(offer("a\na\na\n", QStringLiteral("z"))); // made by stop()
    QCOMPARE(written(), QByteArray("a\na\na\n"));
    reader->forgetAll();
    QCOMPARE(written(), QByteArray());
    QCOMPARE(discards(), QList<int>({2, 2, 2}));
}

void tst_MessageReader::unclearOfferIsReadBeforeItsClientIsForgotten()
{
    reader->receive(offer("a\n"));
    QCoreApplication::sendPostedEvents();
    reader->receive(offer("a\nb\nhalf"));
    reader->forgetAll();
    QCOMPARE(written(), QByteArray("a\nb\n"));
    QCOMPARE(discards(), QList<int>({2, 0})); // nobody is there to answer
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
    make({}, OutputFormat::Json);
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
    // Nothing of it is held: the plugin's buffer is empty again.
    QCOMPARE(discards(), QList<int>({5}));
    reader->receive(offer("12345678")); // a repeat, and more
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
    make({Framing::Length, 100}, OutputFormat::Json);
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
    make({}, OutputFormat::Json);
    reader->setMessageLimit(1);
    reader->receive(offer("half", QStringLiteral("x")));
    reader->receive(offer("a\nb\n"));
    reader->forgetAll();
    QCOMPARE(written().count('\n'), 1);
    QCOMPARE(counters->partial, 0);
}

void tst_MessageReader::forgetsAll()
{
    make({}, OutputFormat::Json);
    reader->receive(offer("a\nhalf"));
    reader->receive(offer("b\n", QStringLiteral("x")));
    reader->forgetAll();
    QCOMPARE(written().split('\n').at(2).right(35),
             QByteArray(R"("bytes":4,"text":"half","partial":true})").right(35));
    reader->forgetAll();
    QCOMPARE(written(), QByteArray());
    // A new plugin: new connections.
    reader->receive(offer("a\n"));
    QCOMPARE(counters->messages, 3);
}

void tst_MessageReader::forgetsSilentConnections()
{
    make({}, OutputFormat::Json);
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
    make({}, OutputFormat::Json);
    for (int n = 0; n < 100000; ++n)
        reader->receive(offer("half", QString::number(n)));
    reader->receive(offer("half of it", QStringLiteral("0")));
    QCOMPARE(written(), QByteArray());
    reader->receive(offer("half", QStringLiteral("x")));
    // 0 has made itself heard meanwhile.
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
    QTRY_COMPARE(reader->rememberedConnections(), 1);
    reader->receive(offer("bc\n", QStringLiteral("x")));
    QCOMPARE(counters->messages, 12);
    QTRY_COMPARE(reader->rememberedConnections(), 0);
}

void tst_MessageReader::countsConnectionsOnce()
{
    for (int round = 0; round < 2; ++round) {
        for (int n = 0; n < 5; ++n)
            reader->receive(offer("a\n", QString::number(n)));
        QTRY_COMPARE(reader->rememberedConnections(), 0);
    }
    QCOMPARE(counters->connections(), 5);
}

void tst_MessageReader::countsStampedConnectionsOnce()
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

void tst_MessageReader::stampedOffersAreTakenOnce()
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

void tst_MessageReader::stampedTailIsPartial()
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

void tst_MessageReader::stampedTooLongAcrossOffers()
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
void tst_MessageReader::stampedConnectionsShareAnId()
{
    make({});
    reader->receive(stamped(1, 0, "same\n"));
    reader->receive(stamped(2, 0, "same\n"));
    QCOMPARE(written(), QByteArray("same\nsame\n"));
    QCOMPARE(discards(), QList<int>({5, 5}));
}

// A large offer must not stay in memory for the sake of the few bytes behind its last message.
void tst_MessageReader::keepsNoMoreThanTheTailOfAStampedOffer()
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
void tst_MessageReader::heldUpHostForgetsNoStampedConnection()
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
void tst_MessageReader::asksForTheRest()
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
void tst_MessageReader::goesOnAsking()
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
void tst_MessageReader::newBytesBeginAnew()
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

void tst_MessageReader::asksForNothingElse_data()
{
    QTest::addColumn<quint64>("connection");
    QTest::addColumn<QByteArray>("bytes");
    QTest::newRow("complete") << quint64(1) << QByteArray("a\n");
    QTest::newRow("without positions") << quint64(0) << QByteArray("half");
    QTest::newRow("skipped, as it is too long") << quint64(1) << QByteArray("123456789");
}

void tst_MessageReader::asksForNothingElse()
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

void tst_MessageReader::asksNobodyWhileThePluginStops()
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

QTEST_GUILESS_MAIN(tst_MessageReader)
#include "tst_messagereader.moc"
