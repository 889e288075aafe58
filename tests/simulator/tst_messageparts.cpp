// SPDX-FileCopyrightText: the tcpinputplugin2 authors
// SPDX-License-Identifier: MIT

#include "plugin/kit/framing.h"
#include "simulator/checksums.h"
#include "simulator/filelines.h"
#include "simulator/framing.h"
#include "simulator/messagetemplate.h"
#include "simulator/numberform.h"

#include <QtCore/QBuffer>
#include <QtTest/QTest>

using namespace simulator;

namespace {

QByteArray wire(const char *framing, const QByteArray &payload)
{
    QByteArray bytes;
    const auto read = Framing::read(QString::fromLatin1(framing));
    return read && read->append(bytes, payload) ? bytes : QByteArray("unfit");
}

MessageValues values()
{
    MessageValues values;
    values.device = 7;
    values.number = 300;
    values.nowMs = 1'800'000'000'123;
    values.seed = 1;
    values.line = "from a file";
    return values;
}

QByteArray error(const QByteArray &text)
{
    QString error;
    return MessageTemplate::read(text, error) ? QByteArray() : error.toUtf8();
}

} // namespace

// What messages are made of: framing, numbers, check sums, templates and lines of files.
class tst_MessageParts : public QObject
{
    Q_OBJECT

private Q_SLOTS:
    void frames_data();
    void frames();
    void tellsWhatFits();
    void refusesFramings_data();
    void refusesFramings();
    void kitReadsFrames_data();
    void kitReadsFrames();
    void checksums_data();
    void checksums();
    void numbers_data();
    void numbers();
    void refusesNumberForms();
    void templates_data();
    void templates();
    void randomIsRepeatable();
    void refusesTemplates_data();
    void refusesTemplates();
    void readsLines_data();
    void readsLines();
    void refusesLines_data();
    void refusesLines();
};

void tst_MessageParts::frames_data()
{
    QTest::addColumn<QByteArray>("framing");
    QTest::addColumn<QByteArray>("message");
    const auto row = [](const char *framing, const QByteArray &message) {
        QTest::newRow(framing) << QByteArray(framing) << message;
    };
    row("lines", "~abc\n");
    row("crlf", "~abc\r\n");
    row("none", "~abc");
    row("length", QByteArray("\0\0\0\4~abc", 8));
    row("length 1", "\4~abc");
    row("length 2 little", QByteArray("\4\0~abc", 6));
    row("length 2 big all", QByteArray("\0\6~abc", 6));
    row("length 4 little all", QByteArray("\x08\0\0\0~abc", 8));
    row("fixed 4", "~abc");
    row("fixed 6", QByteArray("~abc\0\0", 6));
    row("fixed 6 20", "~abc  ");
    row("marks 02 03", "\x02~abc\x03");
    row("marks 7e 62 61", "\x7e\x61\x7e\x61\x61\x61\x62\x63\x62");
    row("hdlc", "~}\x5e\x61\x62\x63~");
}

void tst_MessageParts::frames()
{
    QFETCH(const QByteArray, framing);
    QFETCH(const QByteArray, message);
    QCOMPARE(wire(framing.constData(), "~abc"), message);
}

void tst_MessageParts::tellsWhatFits()
{
    QCOMPARE(wire("fixed 3", "abcd"), QByteArray("unfit"));
    QCOMPARE(wire("none", ""), QByteArray("unfit"));
    QCOMPARE(wire("length 1", QByteArray(255, 'a')).size(), 256);
    QCOMPARE(wire("length 1", QByteArray(256, 'a')), QByteArray("unfit"));
    QCOMPARE(wire("length 1 big all", QByteArray(254, 'a')).at(0), '\xff');
    QCOMPARE(wire("length 1 big all", QByteArray(255, 'a')), QByteArray("unfit"));
    QCOMPARE(wire("length 2 big", QByteArray(65535, 'a')).size(), 65537);
    QCOMPARE(wire("length 2 big", QByteArray(65536, 'a')), QByteArray("unfit"));
}

void tst_MessageParts::refusesFramings_data()
{
    QTest::addColumn<QByteArray>("framing");
    for (const char *framing : {"",
                                "line",
                                "lines 2",
                                "none 1",
                                "crlf x",
                                "length 3",
                                "length 0",
                                "length 2 middle",
                                "length 2 big some",
                                "length 2 big all 1",
                                "fixed",
                                "fixed 0",
                                "fixed -1",
                                "fixed 2 100",
                                "fixed 2 x",
                                "fixed 2 20 1",
                                "fixed 8 +7",
                                "fixed 8 -0",
                                "marks",
                                "marks 7e",
                                "marks 7e x",
                                "marks 7e 7f 7e",
                                "marks 7e 7f 7f",
                                "marks 7e 7f 7d x",
                                "marks +2 03",
                                "marks 7e 7f 7d 20 1",
                                "marks 7e 7f 100",
                                "hdlc 1"})
        QTest::newRow(framing) << QByteArray(framing);
}

void tst_MessageParts::refusesFramings()
{
    QFETCH(const QByteArray, framing);
    QVERIFY(!Framing::read(QString::fromLatin1(framing)));
}

void tst_MessageParts::kitReadsFrames_data()
{
    QTest::addColumn<QByteArray>("framing");
    QTest::addColumn<int>("index");
    int index = 0;
    for (const char *framing : {"lines", "crlf", "length", "length 2 little", "length 1", "fixed 5",
                                "hdlc", "marks 02 03 1b 00", "none"})
        QTest::newRow(framing) << QByteArray(framing) << index++;
}

// Hosts that are made with the kit read what is sent.
void tst_MessageParts::kitReadsFrames()
{
    QFETCH(const QByteArray, framing);
    QFETCH(const int, index);
    const inputkit::Marks controls{'\x02', '\x03', '\x1b', '\0'};
    const inputkit::SharedFraming readers[] = {
            inputkit::lines(),           inputkit::lines(),
            inputkit::lengthPrefixed(),  inputkit::lengthPrefixed(2, QSysInfo::LittleEndian),
            inputkit::lengthPrefixed(1), inputkit::fixedSize(5),
            inputkit::marked(),          inputkit::marked(controls),
            inputkit::whole(),
    };
    const QByteArray payload("\x7e\x02\x1b\x03\x7d", 5);
    const QByteArray message = wire(framing.constData(), payload);
    inputkit::FrameState state;
    const inputkit::Frame frame = readers[index]->take(message, state);
    QVERIFY(frame.kind == inputkit::Frame::Complete);
    const qsizetype kept = framing == "hdlc" ? 1 : 0; // the mark may begin the next message, too
    QCOMPARE(frame.size, message.size() - kept);
    QByteArray read = frame.message.toByteArray();
    if (framing == "hdlc")
        read = inputkit::unescaped(frame.message);
    if (framing.startsWith("marks"))
        read = inputkit::unescaped(frame.message, controls);
    QCOMPARE(read, payload);
}

void tst_MessageParts::checksums_data()
{
    QTest::addColumn<QByteArray>("name");
    QTest::addColumn<quint32>("value"); // the usual check values, of "123456789"
    QTest::newRow("xor8") << QByteArray("xor8") << 0x31U;
    QTest::newRow("sum8") << QByteArray("sum8") << 0xddU;
    QTest::newRow("crc16") << QByteArray("crc16") << 0x906eU;
    QTest::newRow("crc16-arc") << QByteArray("crc16-arc") << 0xbb3dU;
    QTest::newRow("crc16-modbus") << QByteArray("crc16-modbus") << 0x4b37U;
    QTest::newRow("crc16-ccitt") << QByteArray("crc16-ccitt") << 0x29b1U;
    QTest::newRow("crc16-xmodem") << QByteArray("crc16-xmodem") << 0x31c3U;
    QTest::newRow("crc32") << QByteArray("crc32") << 0xcbf43926U;
}

void tst_MessageParts::checksums()
{
    QFETCH(const QByteArray, name);
    QFETCH(const quint32, value);
    const Checksum *checksum = findChecksum(name);
    QVERIFY(checksum);
    QCOMPARE(checksum->compute("123456789"), value);
    if (name == "crc16")
        QCOMPARE(checksum->compute("\x80\xff"), quint32(qChecksum("\x80\xff")));
}

void tst_MessageParts::numbers_data()
{
    QTest::addColumn<QString>("form");
    QTest::addColumn<qint64>("number");
    QTest::addColumn<QByteArray>("text");
    const auto row = [](const char *form, qint64 number, const QByteArray &text) {
        QTest::addRow("%s %lld", form, static_cast<long long>(number))
                << QString::fromLatin1(form) << number << text;
    };
    row("dec", 12, "12");
    row("dec", -12, "-12");
    row("dec5", 12, "00012");
    row("dec5", -12, "-00012");
    row("dec1", 12, "12");
    row("dec20", 1, "00000000000000000001");
    row("hex", 0xabc, "abc");
    row("hex4", 0xabc, "0abc");
    row("HEX4", 0xabc, "0ABC");
    row("hex", -1, "ffffffffffffffff");
    row("u8", 0x1ff, "\xff");
    row("u16be", 0x1234, "\x12\x34");
    row("u16le", 0x1234, "\x34\x12");
    row("u32be", -2, "\xff\xff\xff\xfe");
    row("u32le", 1, QByteArray("\1\0\0\0", 4));
    row("u64be", 0x0102030405060708, "\1\2\3\4\5\6\7\x08");
    row("u64le", 0x0102030405060708, "\x08\7\6\5\4\3\2\1");
}

void tst_MessageParts::numbers()
{
    QFETCH(const QString, form);
    QFETCH(const qint64, number);
    QFETCH(const QByteArray, text);
    const auto read = NumberForm::read(form);
    QVERIFY(read);
    QByteArray out("before ");
    read->append(out, number);
    QCOMPARE(out, "before " + text);
}

void tst_MessageParts::refusesNumberForms()
{
    for (const char *form :
         {"", "decimal", "dec0", "dec21", "dec-1", "Hex", "u8be", "u16", "u24be", "u32me", "i16be"})
        QVERIFY2(!NumberForm::read(QString::fromLatin1(form)), form);
}

void tst_MessageParts::templates_data()
{
    QTest::addColumn<QByteArray>("text");
    QTest::addColumn<QByteArray>("payload");
    const auto row = [](const char *text, const QByteArray &payload) {
        QTest::newRow(text) << QByteArray(text) << payload;
    };
    row("plain", "plain");
    row("{device}/{number}", "7/300");
    row("{number:u16be}{device:dec3}", QByteArray("\x01\x2c", 2) + "007");
    row("{time}", "2027-01-15T08:00:00.123Z");
    row("{time:hhmmss.zzz}", "080000.123");
    row("{time:hh:mm}", "08:00");
    row("{time-s} {time-ms}", "1800000000 1800000000123");
    row("{time-s:u32be}", QByteArray("\x6b\x49\xd2\0", 4));
    row("[{line}]", "[from a file]");
    row("{letters:28}", "abcdefghijklmnopqrstuvwxyzab");
    row("{random:5..5}{random:-3..-3:dec2}", "5-03");
    row("\\x00\\n\\\\\\{device}", QByteArray("\0\n\\{device}", 11));
    row("{\"device\":{device},\"more\":{}}", "{\"device\":7,\"more\":{}}");
    row("{ {1} } {", "{ {1} } {");
    row("123456789{crc16:u16be}", "123456789\x90\x6e");
    row("123456789{crc16}{crc32:hex}", "123456789906Ed523b8b1");
    row("${begin}123456789{end}*{xor8}", "$123456789*31");
    row("a{begin}123456789{sum8:dec}", "a123456789221");
    row("{begin}1{end}{xor8} {begin}2{end}{xor8}", "131 232");
    row("{xor8}", "00");
}

void tst_MessageParts::templates()
{
    QFETCH(const QByteArray, text);
    QFETCH(const QByteArray, payload);
    QString error;
    const auto read = MessageTemplate::read(text, error);
    QVERIFY2(read, qPrintable(error));
    QCOMPARE(error, QString());
    QCOMPARE(read->payload(values()), payload);
    QCOMPARE(read->hasLine(), text.contains("{line}"));
}

void tst_MessageParts::randomIsRepeatable()
{
    QString error;
    const auto read = MessageTemplate::read("{random:-90000000..90000000} {random:1..6}", error);
    QVERIFY2(read, qPrintable(error));
    const QByteArray first = read->payload(values());
    QCOMPARE(read->payload(values()), first);
    MessageValues other = values();
    ++other.device;
    QVERIFY(read->payload(other) != first);
    QList<bool> seen(7);
    for (MessageValues next = values(); next.number < 600; ++next.number) {
        const QByteArrayList numbers = read->payload(next).split(' ');
        QVERIFY(qAbs(numbers.at(0).toInt()) <= 90000000);
        seen[numbers.at(1).toInt()] = true;
    }
    QCOMPARE(seen, QList<bool>({false, true, true, true, true, true, true}));
}

void tst_MessageParts::refusesTemplates_data()
{
    QTest::addColumn<QByteArray>("text");
    QTest::addColumn<QByteArray>("complaint");
    const auto row = [](const char *text, const char *complaint) {
        QTest::newRow(text) << QByteArray(text) << QByteArray(complaint);
    };
    row("{devise}", "{devise}: unknown placeholder; there are {device}, ");
    row("a {number:u16}", "{number:u16}: unknown form of a number; there are dec, ");
    row("{crc32:u32}", "{crc32:u32}: unknown form of a number; there are dec, ");
    row("{number", "no } behind {number; a brace of your own before a letter is \\{");
    row("{line:1}", "{line:1}: takes nothing behind a colon");
    row("{random}", "{random}: takes MIN..MAX, ");
    row("{random:6..1}", "{random:6..1}: takes MIN..MAX, ");
    row("{random:0..2000000000}", "{random:0..2000000000}: takes MIN..MAX, ");
    row("{random:-9223372036854775808..9223372036854775807}",
        "{random:-9223372036854775808..9223372036854775807}: takes MIN..MAX, ");
    row("{random:1..2:x}", "{random:1..2:x}: unknown form");
    row("{letters}", "{letters}: takes how many, up to 67108864");
    row("{letters:-1}", "{letters:-1}: takes how many");
    row("a\\q", "unknown escape: \\q; there are \\n, ");
    row("a\\x4", "unknown escape: \\x4; there are \\n, ");
    row("\\x4g", "unknown escape: \\x4g; there are \\n, ");
    row("a\\", "unknown escape: \\; there are \\n, ");
}

void tst_MessageParts::refusesTemplates()
{
    QFETCH(const QByteArray, text);
    QFETCH(const QByteArray, complaint);
    const QByteArray said = error(text);
    QVERIFY2(said.startsWith(complaint), said.constData());
}

void tst_MessageParts::readsLines_data()
{
    QTest::addColumn<QByteArray>("file");
    QTest::addColumn<MessageSyntax>("syntax");
    QTest::addColumn<QByteArrayList>("payloads");
    QTest::newRow("text") << QByteArray("one\\x00\r\n\n{two}\\\\") << MessageSyntax::Text
                          << QByteArrayList{QByteArray("one\0", 4), "", "{two}\\"};
    QTest::newRow("plain") << QByteArray("one\\x00\r\n\rtwo\n") << MessageSyntax::Plain
                           << QByteArrayList{"one\\x00", "\rtwo"};
    QTest::newRow("hex") << QByteArray("00 Ff\n7e\t7E\n") << MessageSyntax::Hex
                         << QByteArrayList{QByteArray("\0\xff", 2), "~~"};
    QTest::newRow("whole") << QByteArray("one\r\ntwo\\n\n") << MessageSyntax::Whole
                           << QByteArrayList{"one\r\ntwo\\n\n"};
}

void tst_MessageParts::readsLines()
{
    QFETCH(QByteArray, file);
    QFETCH(const MessageSyntax, syntax);
    QFETCH(const QByteArrayList, payloads);
    QBuffer buffer(&file);
    QVERIFY(buffer.open(QIODevice::ReadOnly));
    FileLines lines;
    QVERIFY2(lines.load(buffer, QStringLiteral("f"), syntax, nullptr),
             qPrintable(lines.errorString()));
    QCOMPARE(lines.count(), quint64(payloads.size()));
    for (quint64 number = 1; number <= 2 * lines.count(); ++number)
        QCOMPARE(lines.line(number), payloads.at(qsizetype((number - 1) % lines.count())));
}

void tst_MessageParts::refusesLines_data()
{
    QTest::addColumn<QByteArray>("file");
    QTest::addColumn<MessageSyntax>("syntax");
    QTest::addColumn<QString>("complaint");
    QTest::newRow("empty") << QByteArray() << MessageSyntax::Text
                           << QStringLiteral("f: there is no message in it");
    QTest::newRow("empty, whole") << QByteArray() << MessageSyntax::Whole
                                  << QStringLiteral("f: there is no message in it");
    QTest::newRow("escape") << QByteArray("one\ntw\\o\n") << MessageSyntax::Text
                            << QStringLiteral("f, line 2: unknown escape: \\o; there are \\n, \\r, "
                                              "\\t, \\0, \\\\, \\{ and \\xNN");
    QTest::newRow("odd digits") << QByteArray("123\n") << MessageSyntax::Hex
                                << QStringLiteral("f, line 1: not pairs of hexadecimal digits");
    QTest::newRow("no digits") << QByteArray("12\nxy\n") << MessageSyntax::Hex
                               << QStringLiteral("f, line 2: not pairs of hexadecimal digits");
    QTest::newRow("too long") << QByteArray("abcd\nabcde\n") << MessageSyntax::Text
                              << QStringLiteral("f, line 2: 5 bytes do not fit the framing");
    QTest::newRow("too long, whole") << QByteArray("abcd\n") << MessageSyntax::Whole
                                     << QStringLiteral("f: 5 bytes do not fit the framing");
}

void tst_MessageParts::refusesLines()
{
    QFETCH(QByteArray, file);
    QFETCH(const MessageSyntax, syntax);
    QFETCH(const QString, complaint);
    QBuffer buffer(&file);
    QVERIFY(buffer.open(QIODevice::ReadOnly));
    const auto framing = Framing::read(QStringLiteral("fixed 4"));
    FileLines lines;
    QVERIFY(!lines.load(buffer, QStringLiteral("f"), syntax, &*framing));
    QCOMPARE(lines.errorString(), complaint);
}

QTEST_GUILESS_MAIN(tst_MessageParts)
#include "tst_messageparts.moc"
