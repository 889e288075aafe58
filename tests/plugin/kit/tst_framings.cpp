// SPDX-FileCopyrightText: the tcpinputplugin2 authors
// SPDX-License-Identifier: MIT

#include "plugin/kit/framing.h"

#include "plugin/kit/messagecutter.h"
#include "tests/kit/messagecapture.h"

#include <QtTest/QtTest>

#include <algorithm>

using namespace inputkit;

namespace {

//! What a stream gives, whatever the pieces in which it comes.
struct Result
{
    QByteArrayList messages;
    QByteArrayList bad;
    int tooLong = 0;
    QByteArray rest; // the bytes that were not taken

    bool operator==(const Result &other) const
    {
        return messages == other.messages && bad == other.bad && tooLong == other.tooLong
                && rest == other.rest;
    }
};

// As a host reads: completes the message that has begun in an earlier piece first.
Result readInPieces(const Framing &framing, QByteArrayView stream, qsizetype piece)
{
    Result result;
    FrameState state;
    const auto takeAll = [&] {
        while (!result.rest.isEmpty()) {
            const Frame frame = framing.take(result.rest, state);
            if (frame.kind == Frame::Incomplete)
                break;
            Q_ASSERT(frame.size > 0 && frame.size <= result.rest.size());
            if (frame.kind == Frame::Complete)
                result.messages += frame.message.toByteArray();
            if (frame.kind == Frame::Bad && frame.continues)
                result.bad.last() += frame.message.toByteArray();
            else if (frame.kind == Frame::Bad)
                result.bad += frame.message.toByteArray();
            result.tooLong += frame.kind == Frame::TooLong ? 1 : 0;
            result.rest.remove(0, frame.size);
        }
    };
    for (qsizetype begin = 0; begin < stream.size(); begin += piece) {
        QByteArrayView next = stream.sliced(begin, std::min(piece, stream.size() - begin));
        while (!next.isEmpty()) {
            const qsizetype size =
                    result.rest.isEmpty() ? next.size() : framing.bytesToAppend(result.rest, next);
            Q_ASSERT(size > 0 && size <= next.size());
            result.rest += next.first(size).toByteArray();
            next = next.sliced(size);
            takeAll();
        }
    }
    return result;
}

// A decimal digit, and that many bytes.
qsizetype digitAndBytes(QByteArrayView bytes)
{
    const qsizetype size = bytes[0] - '0' + 1;
    return bytes.size() >= size ? size : 0;
}

QByteArray zeros(const char *text)
{
    return QByteArray(text).replace('0', '\0');
}

} // namespace

Q_DECLARE_METATYPE(SharedFraming)

// What the framings of the kit take from a stream. tst_framing has more on lines and lengths.
class tst_Framings : public QObject
{
    Q_OBJECT

private Q_SLOTS:
    void messages_data();
    void messages();
    void cutterCountsBadBytesOnce();
    void partial_data();
    void partial();
    void abandons_data();
    void abandons();
    void escapes();
    void tooMuchIsWarnedOfOnce();
    void longMessageIsNotLookedAtForEachByte();
    void asksAgainWhenEnoughIsThere();
    void tooLongForCustom();
};

void tst_Framings::messages_data()
{
    QTest::addColumn<SharedFraming>("framing");
    QTest::addColumn<QByteArray>("stream");
    QTest::addColumn<QByteArrayList>("messages");
    QTest::addColumn<QByteArrayList>("bad");
    QTest::addColumn<int>("tooLong");
    QTest::addColumn<QByteArray>("rest");

    const Marks brackets = {'<', '>', '\\', ' '};
    const Marks unprotected = {'<', '>'};
    const auto passes = [](QByteArrayView message) { return message.startsWith('+'); };
    using List = QByteArrayList;
    QTest::newRow("lines") << lines() << QByteArray("a\r\n\nbc\nd") << List({"a", "", "bc"})
                           << List() << 0 << QByteArray("d");
    QTest::newRow("length of one byte")
            << lengthPrefixed(1) << QByteArray("\1a\0\2bc\3d", 8) << List({"a", "", "bc"}) << List()
            << 0 << QByteArray("\3d");
    QTest::newRow("two bytes") << lengthPrefixed(2) << QByteArray("\0\1a\0\2bc", 7)
                               << List({"a", "bc"}) << List() << 0 << QByteArray();
    QTest::newRow("two bytes, little-endian")
            << lengthPrefixed(2, QSysInfo::LittleEndian) << QByteArray("\1\0a\2\0bc", 7)
            << List({"a", "bc"}) << List() << 0 << QByteArray();
    QTest::newRow("four bytes, little-endian")
            << lengthPrefixed(4, QSysInfo::LittleEndian) << QByteArray("\1\0\0\0a\2\0\0\0b", 10)
            << List({"a"}) << List() << 0 << QByteArray("\2\0\0\0b", 5);
    QTest::newRow("four bytes, too long")
            << lengthPrefixed(4, QSysInfo::BigEndian, 2) << QByteArray("\0\0\0\3abc\0\0\0\1d", 12)
            << List({"d"}) << List() << 1 << QByteArray();
    QTest::newRow("two marks") << marked(brackets) << QByteArray("<a><><b<c>")
                               << List({"a", "", "b<c"}) << List() << 0 << QByteArray();
    QTest::newRow("between two marks")
            << marked(brackets) << QByteArray("x<a>yz<b>\n<c") << List({"a", "b"})
            << List({"x", "yz", "\n"}) << 0 << QByteArray("<c");
    QTest::newRow("escaped marks") << marked(brackets) << QByteArray("<a\\>b><c\\\\><d\\")
                                   << List({"a\\>b", "c\\\\"}) << List() << 0 << QByteArray("<d\\");
    QTest::newRow("two marks, too long") << marked(brackets, 3) << QByteArray("<abc><abcd\\>e><f>")
                                         << List({"abc", "f"}) << List() << 1 << QByteArray();
    QTest::newRow("no escape") << marked(unprotected) << QByteArray("<a}><b\\>")
                               << List({"a}", "b\\"}) << List() << 0 << QByteArray();
    QTest::newRow("one mark") << marked() << QByteArray("~a~~b~c~") << List({"a", "b", "c"})
                              << List() << 0 << QByteArray("~");
    QTest::newRow("one mark, escaped")
            << marked() << QByteArray("~a}~b~") << List({"a}~b"}) << List() << 0 << QByteArray("~");
    QTest::newRow("one mark, too long") << marked(HdlcMarks, 2) << QByteArray("~abcd~e~~fghi~~j~")
                                        << List({"e", "j"}) << List() << 2 << QByteArray("~");
    QTest::newRow("fixed") << fixedSize(3) << QByteArray("abcdefg") << List({"abc", "def"})
                           << List() << 0 << QByteArray("g");
    QTest::newRow("custom") << custom(digitAndBytes) << QByteArray("2ab01c3d")
                            << List({"2ab", "0", "1c"}) << List() << 0 << QByteArray("3d");
    QTest::newRow("custom, at its limit")
            << custom(digitAndBytes, 3) << QByteArray("2ab2cd0") << List({"2ab", "2cd", "0"})
            << List() << 0 << QByteArray();
    QTest::newRow("custom, with a size that is known before")
            << custom([](QByteArrayView bytes) -> qsizetype {
                   const qsizetype size = bytes[0] - '0' + 1;
                   return bytes.size() >= size ? size : -size;
               })
            << QByteArray("2ab01c3d") << List({"2ab", "0", "1c"}) << List() << 0
            << QByteArray("3d");
    QTest::newRow("checked") << checked(lines(), passes) << QByteArray("+a\n-b\n+c\n")
                             << List({"+a", "+c"}) << List({"-b\n"}) << 0 << QByteArray();
    QTest::newRow("checked lengths") << checked(lengthPrefixed(1), passes) << QByteArray("\2+a\2-b")
                                     << List({"+a"}) << List({"\2-b"}) << 0 << QByteArray();
}

void tst_Framings::messages()
{
    QFETCH(SharedFraming, framing);
    QFETCH(QByteArray, stream);
    Result expected;
    QFETCH(QByteArrayList, messages);
    QFETCH(QByteArrayList, bad);
    QFETCH(int, tooLong);
    QFETCH(QByteArray, rest);
    expected.messages = messages;
    expected.bad = bad;
    expected.tooLong = tooLong;
    expected.rest = rest;
    for (qsizetype piece = 1; piece <= stream.size(); ++piece) {
        const Result result = readInPieces(*framing, stream, piece);
        QCOMPARE(result.messages, expected.messages);
        QVERIFY2(result == expected,
                 (QByteArray::number(piece) + ": rest " + result.rest + ", bad "
                  + result.bad.join('|'))
                         .constData());
    }
}

// However many pieces it comes in.
void tst_Framings::cutterCountsBadBytesOnce()
{
    const MessageCapture capture;
    MessageCutter cutter(marked({'<', '>'}), {});
    FrameState state;
    Allowance unlimited;
    quint64 position = 0;
    for (const char *piece : {"a", "b", "<c>", "d", "e", "f", "<g>"})
        position += quint64(cutter.write(piece, position, {}, state, unlimited));
    QCOMPARE(cutter.counts().messages, quint64(2));
    QCOMPARE(cutter.counts().bad, quint64(2));
    QCOMPARE(MessageCapture::take().size(), 2);
}

void tst_Framings::partial_data()
{
    QTest::addColumn<SharedFraming>("framing");
    QTest::addColumn<QByteArray>("rest");
    QTest::addColumn<QByteArray>("expected");

    QTest::newRow("length") << lengthPrefixed(2) << zeros("05ab") << QByteArray("ab");
    QTest::newRow("half a length") << lengthPrefixed(2) << zeros("0") << QByteArray();
    QTest::newRow("mark") << marked() << QByteArray("~") << QByteArray();
    QTest::newRow("marked") << marked() << QByteArray("~ab") << QByteArray("ab");
    QTest::newRow("fixed") << fixedSize(9) << QByteArray("ab") << QByteArray("ab");
}

void tst_Framings::partial()
{
    QFETCH(SharedFraming, framing);
    QFETCH(QByteArray, rest);
    QTEST(framing->partial(rest).toByteArray(), "expected");
}

void tst_Framings::abandons_data()
{
    QTest::addColumn<SharedFraming>("framing");
    QTest::addColumn<QByteArray>("rest");
    QTest::addColumn<QByteArray>("next");
    QTest::addColumn<QByteArray>("expected"); // the next message

    QTest::newRow("line") << lines() << QByteArray("abc") << QByteArray("d\ne\n")
                          << QByteArray("e");
    QTest::newRow("length") << lengthPrefixed(1) << QByteArray("\5abc") << QByteArray("de\1f")
                            << QByteArray("f");
    QTest::newRow("marks") << marked({'<', '>', '\\', ' '}) << QByteArray("<abc")
                           << QByteArray("d><e>") << QByteArray("e");
    QTest::newRow("behind an escape") << marked({'<', '>', '\\', ' '}) << QByteArray("<abc\\")
                                      << QByteArray(">d><e>") << QByteArray("e");
    QTest::newRow("one mark") << marked() << QByteArray("~abc") << QByteArray("~d~")
                              << QByteArray("d");
    QTest::newRow("fixed") << fixedSize(5) << QByteArray("abc") << QByteArray("defghij")
                           << QByteArray("fghij");
    QTest::newRow("custom") << custom(digitAndBytes) << QByteArray("9abc") << QByteArray("1d")
                            << QByteArray("1d");
}

void tst_Framings::abandons()
{
    QFETCH(SharedFraming, framing);
    QFETCH(QByteArray, rest);
    QFETCH(QByteArray, next);
    FrameState state;
    QCOMPARE(framing->take(rest, state).kind, Frame::Incomplete);
    QVERIFY(framing->abandon(rest, state));
    Frame frame;
    do {
        frame = framing->take(next, state);
        QVERIFY(frame.kind == Frame::Skipped || frame.kind == Frame::Complete);
        if (frame.kind == Frame::Skipped)
            next.remove(0, frame.size);
    } while (frame.kind != Frame::Complete);
    QTEST(frame.message.toByteArray(), "expected");
}

void tst_Framings::escapes()
{
    QCOMPARE(unescaped("a}\x5e}\x5d"
                       "b"),
             QByteArray("a~}b"));
    QCOMPARE(unescaped("a}"), QByteArray("a"));
    QCOMPARE(unescaped("a\\>", {'<', '>', '\\', '\0'}), QByteArray("a>"));
}

void tst_Framings::tooMuchIsWarnedOfOnce()
{
    const MessageCapture capture;
    const SharedFraming framing = custom([](QByteArrayView bytes) { return bytes.size() + 7; });
    FrameState state;
    for (int n = 0; n < 2; ++n) {
        const Frame frame = framing->take("abc", state);
        QCOMPARE(frame.kind, Frame::Complete);
        QCOMPARE(frame.size, 3);
    }
    const auto messages = MessageCapture::take();
    QCOMPARE(messages.size(), 1);
    QVERIFY2(messages[0].text.contains(QLatin1String("10 bytes of 3")),
             qPrintable(messages[0].text));
}

// A function of the host's looks at all of a message again. A long one that comes at once must not
// cost in proportion to the square of its length.
void tst_Framings::longMessageIsNotLookedAtForEachByte()
{
    qsizetype looked = 0;
    const SharedFraming framing = custom(
            [&looked](QByteArrayView bytes) {
                looked += bytes.size();
                return bytes.indexOf('\n') + 1;
            },
            1 << 24);
    const QByteArray message = QByteArray(1 << 20, 'x') + '\n';
    QCOMPARE(readInPieces(*framing, message, message.size()).messages.size(), 1);
    QByteArray rest(1, 'x');
    FrameState state;
    looked = 0;
    for (QByteArrayView next = message; !next.isEmpty();) {
        const qsizetype size = framing->bytesToAppend(rest, next);
        rest += next.first(size).toByteArray();
        next = next.sliced(size);
        framing->take(rest, state);
    }
    QVERIFY2(looked < 5 * message.size(), qPrintable(QString::number(looked)));
}

void tst_Framings::asksAgainWhenEnoughIsThere()
{
    int calls = 0;
    const SharedFraming framing = custom([&calls](QByteArrayView bytes) -> qsizetype {
        ++calls;
        return bytes.size() < 100 ? -100 : 100;
    });
    FrameState state;
    QByteArray rest;
    for (int n = 0; n < 99; ++n) {
        rest += 'x';
        QCOMPARE(framing->take(rest, state).kind, Frame::Incomplete);
    }
    QCOMPARE(calls, 1);
    rest += 'x';
    QCOMPARE(framing->take(rest, state).size, 100);
    QCOMPARE(framing->take("y", state).kind, Frame::Incomplete); // the next message
    QCOMPARE(calls, 3);
}

void tst_Framings::tooLongForCustom()
{
    const SharedFraming framing = custom(digitAndBytes, 5);
    FrameState state;
    QCOMPARE(framing->take("7abcd", state).kind, Frame::Incomplete);
    QCOMPARE(framing->take("7abcde", state).kind, Frame::TooLong);
    QCOMPARE(framing->take("7abcdefg", state).kind, Frame::TooLong);
    QCOMPARE(framing->take("1a", state).kind, Frame::Complete);
}

QTEST_GUILESS_MAIN(tst_Framings)
#include "tst_framings.moc"
