// SPDX-FileCopyrightText: the tcpinputplugin2 authors
// SPDX-License-Identifier: MIT

#include "host/framing.h"

#include <QtCore/QRandomGenerator>
#include <QtCore/QtEndian>
#include <QtTest/QtTest>

using namespace host;
using inputkit::Frame;
using inputkit::FrameState;

namespace {

const QByteArray TooLong = "<too long>";

QByteArray counted(const QByteArray &message)
{
    QByteArray prefix(4, '\0');
    qToBigEndian(static_cast<quint32>(message.size()), prefix.data());
    return prefix + message;
}

//! A connection as the host sees it: bytes arrive, and whole messages are taken from the front.
class Stream
{
public:
    explicit Stream(const FrameFormat &format) : framing(framingOf(format)) {}

    void receive(const QByteArray &bytes)
    {
        buffer += bytes;
        most = qMax(most, buffer.size());
        for (;;) {
            const Frame frame = framing->take(buffer, state);
            if (frame.kind == Frame::Incomplete) {
                QCOMPARE(frame.size, 0);
                return;
            }
            take(frame);
        }
    }

    QByteArrayList messages; // TooLong stands for a message that is skipped
    QByteArray buffer;
    FrameState state;
    qsizetype most = 0; // largest number of waiting bytes

private:
    void take(const Frame &frame)
    {
        QVERIFY(frame.size > 0);
        QVERIFY(frame.size <= buffer.size());
        if (frame.kind == Frame::Complete)
            messages += frame.message.toByteArray();
        if (frame.kind == Frame::TooLong)
            messages += TooLong;
        buffer.remove(0, frame.size);
    }

    const inputkit::SharedFraming framing;
};

} // namespace

class tst_Framing : public QObject
{
    Q_OBJECT

private Q_SLOTS:
    void messages_data();
    void messages();
    void anySplitGivesTheSame_data();
    void anySplitGivesTheSame();
    void doesNotSearchTwice();
    void searchesAnewAfterAMessage();
    void tooLongIsTakenAsItComes();
    void hugeLength();
    void lineOfTheLongestLengthMayWaitForItsEnd();
    void partial_data();
    void partial();
    void anyBytes();
};

void tst_Framing::messages_data()
{
    QTest::addColumn<Framing>("framing");
    QTest::addColumn<qint64>("maxMessage");
    QTest::addColumn<QByteArray>("bytes");
    QTest::addColumn<QByteArrayList>("expected");
    QTest::addColumn<QByteArray>("rest");
    QTest::addColumn<bool>("skipping");

    const auto lines = [](const char *name, const QByteArray &bytes, const QByteArrayList &expected,
                          const QByteArray &rest, bool skipping = false) {
        QTest::newRow(name) << Framing::Lines << qint64(5) << bytes << expected << rest << skipping;
    };
    lines("line", "abc\n", {"abc"}, "");
    lines("lines", "a\nbc\nd", {"a", "bc"}, "d");
    lines("no byte", "", {}, "");
    lines("empty line", "\n", {""}, "");
    lines("empty lines", "\n\n\n", {"", "", ""}, "");
    lines("CR LF", "abc\r\nd\r\n", {"abc", "d"}, "");
    lines("empty line with CR", "\r\n", {""}, "");
    lines("one CR is dropped", "a\r\r\n", {"a\r"}, "");
    lines("CR inside", "a\rb\n", {"a\rb"}, "");
    lines("CR after LF", "a\n\r", {"a"}, "\r");
    lines("NUL and other bytes", QByteArray("\0\xff\n", 3), {QByteArray("\0\xff", 2)}, "");
    lines("longest line", "12345\n", {"12345"}, "");
    lines("longest line with CR", "12345\r\n", {"12345"}, "");
    lines("longest line without end", "12345", {}, "12345");
    lines("longest line with half an end", "12345\r", {}, "12345\r");
    lines("too long", "123456\na\n", {TooLong, "a"}, "");
    lines("too long with CR", "123456\r\na\n", {TooLong, "a"}, "");
    lines("too long by a CR inside", "1234\r6\na\n", {TooLong, "a"}, "");
    lines("too long by a second CR", "12345\r\r\na\n", {TooLong, "a"}, "");
    lines("too long without end", "123456", {TooLong}, "", true);
    lines("twice too long", "1234567\n1234567\na\n", {TooLong, TooLong, "a"}, "");

    const auto length = [](const char *name, const QByteArray &bytes,
                           const QByteArrayList &expected, const QByteArray &rest,
                           bool skipping = false) {
        QTest::newRow(name) << Framing::Length << qint64(5) << bytes << expected << rest
                            << skipping;
    };
    length("counted", counted("abc"), {"abc"}, "");
    length("counted, two", counted("abc") + counted("d\n"), {"abc", "d\n"}, "");
    length("counted, empty", counted("") + counted("a"), {"", "a"}, "");
    length("counted, longest", counted("12345"), {"12345"}, "");
    length("count incomplete", QByteArray("\0\0\0", 3), {}, QByteArray("\0\0\0", 3));
    length("counted, incomplete", counted("abc").left(6), {}, counted("abc").left(6));
    length("counted, too long", counted("123456") + counted("a"), {TooLong, "a"}, "");
    length("counted, too long, incomplete", counted("123456").left(9), {TooLong}, "", true);
    length("counted, too long, count only", counted("123456").left(4), {TooLong}, "", true);
}

void tst_Framing::messages()
{
    QFETCH(Framing, framing);
    QFETCH(qint64, maxMessage);
    QFETCH(QByteArray, bytes);
    QFETCH(QByteArray, rest);
    QFETCH(bool, skipping);

    Stream stream({framing, maxMessage});
    stream.receive(bytes);
    QTEST(stream.messages, "expected");
    QCOMPARE(stream.buffer, rest);
    QCOMPARE(stream.state.isSkipping(), skipping);
}

void tst_Framing::anySplitGivesTheSame_data()
{
    messages_data();
}

void tst_Framing::anySplitGivesTheSame()
{
    QFETCH(Framing, framing);
    QFETCH(qint64, maxMessage);
    QFETCH(QByteArray, bytes);
    QFETCH(QByteArray, rest);

    // If bit n of the mask is set, a segment ends after byte n.
    const auto masks = quint32(1) << qMin<qsizetype>(bytes.size(), 12);
    for (quint32 mask = 0; mask < masks; ++mask) {
        Stream stream({framing, maxMessage});
        QByteArray segment;
        for (qsizetype n = 0; n < bytes.size(); ++n) {
            segment += bytes.at(n);
            if (n >= 12 || (mask >> n & 1))
                stream.receive(std::exchange(segment, {}));
        }
        stream.receive(segment);
        QTEST(stream.messages, "expected");
        QCOMPARE(stream.buffer, rest);
    }
}

// Otherwise a long line in many offers would cost time in proportion to the square of its length.
void tst_Framing::doesNotSearchTwice()
{
    const auto framing = framingOf({});
    FrameState state;
    QCOMPARE(framing->take("abc", state).kind, Frame::Incomplete);

    // A real stream does not change its bytes. The change shows that the first three are not
    // searched again.
    const Frame frame = framing->take("\n\n\nd\n", state);
    QCOMPARE(frame.message.toByteArray(), QByteArray("\n\n\nd"));
}

void tst_Framing::searchesAnewAfterAMessage()
{
    Stream stream({Framing::Lines, 100});
    stream.receive("a long unfinished line");
    stream.receive("\nb\n");
    QCOMPARE(stream.messages, QByteArrayList({"a long unfinished line", "b"}));
}

void tst_Framing::tooLongIsTakenAsItComes()
{
    for (const Framing framing : {Framing::Lines, Framing::Length}) {
        Stream stream({framing, 100});
        const QByteArray message(100000, 'x');
        const QByteArray bytes =
                framing == Framing::Lines ? message + "\na\n" : counted(message) + counted("a");
        for (qsizetype n = 0; n < bytes.size(); n += 50)
            stream.receive(bytes.mid(n, 50));
        QCOMPARE(stream.messages, QByteArrayList({TooLong, "a"}));
        QVERIFY(stream.most < 200);
    }
}

void tst_Framing::hugeLength()
{
    Stream stream({Framing::Length, 1 << 20});
    stream.receive("\xff\xff\xff\xff" + QByteArray(1000, 'x'));
    QCOMPARE(stream.messages, QByteArrayList({TooLong}));
    QCOMPARE(stream.buffer, QByteArray());
    QCOMPARE(stream.state.skipBytes, qint64(0xffffffff) - 1000);
}

void tst_Framing::lineOfTheLongestLengthMayWaitForItsEnd()
{
    Stream stream({Framing::Lines, 5});
    stream.receive("12345\r");
    stream.receive("\n12345\r");
    stream.receive("6\n7\n");
    QCOMPARE(stream.messages, QByteArrayList({"12345", TooLong, "7"}));
}

void tst_Framing::partial_data()
{
    QTest::addColumn<Framing>("framing");
    QTest::addColumn<QByteArray>("rest");
    QTest::addColumn<QByteArray>("expected");

    QTest::newRow("line") << Framing::Lines << QByteArray("ab\r") << QByteArray("ab\r");
    QTest::newRow("counted") << Framing::Length << counted("abcd").left(6) << QByteArray("ab");
    QTest::newRow("count") << Framing::Length << counted("abcd").left(4) << QByteArray();
    QTest::newRow("half a count") << Framing::Length << QByteArray("\0\0", 2) << QByteArray();
    QTest::newRow("anything") << Framing::None << QByteArray("ab") << QByteArray("ab");
}

void tst_Framing::partial()
{
    QFETCH(Framing, framing);
    QFETCH(QByteArray, rest);
    QTEST(framingOf({framing, 100})->partial(rest).toByteArray(), "expected");
}

void tst_Framing::anyBytes()
{
    QRandomGenerator random(20260728);
    for (int run = 0; run < 3000; ++run) {
        const auto framing = static_cast<Framing>(random.bounded(3));
        Stream stream({framing, random.bounded(1, 40)});
        qsizetype received = 0;
        for (int segments = random.bounded(1, 20); segments > 0; --segments) {
            QByteArray bytes(random.bounded(30), Qt::Uninitialized);
            for (char &byte : bytes)
                byte = "\0\0\0\0\1\5\r\n\na\xff"[random.bounded(11)];
            received += bytes.size();
            stream.receive(bytes);
            if (QTest::currentTestFailed())
                return;
        }
        // The waiting bytes are never more than the longest message.
        QVERIFY(stream.buffer.size() <= 45);
        if (framing == Framing::None)
            QCOMPARE(stream.messages.join().size(), received);
    }
}

QTEST_GUILESS_MAIN(tst_Framing)
#include "tst_framing.moc"
