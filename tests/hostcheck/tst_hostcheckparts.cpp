// SPDX-FileCopyrightText: the tcpinputplugin2 authors
// SPDX-License-Identifier: MIT

#include "hostcheck/parser/framing.h"
#include "hostcheck/parser/shrink.h"
#include "hostcheck/parser/traffic.h"
#include "hostcheck/report.h"
#include "tests/hostcheck/hostchecktest.h"

#include <QtCore/QXmlStreamReader>

using namespace hostcheck;

//! The parts of hostcheck that play no device and call no parser.
class tst_HostcheckParts : public QObject
{
    Q_OBJECT

private Q_SLOTS:
    void framingFindsItsOwnMessages_data();
    void framingFindsItsOwnMessages();
    void framingReadsGivenMessage_data();
    void framingReadsGivenMessage();
    void framingIsRefused_data();
    void framingIsRefused();
    void descriptionIsRead();
    void descriptionIsRefused_data();
    void descriptionIsRefused();
    void shrinkLeavesWhatIsNeeded();
    void junitFileTakesAnyText();
};

void tst_HostcheckParts::framingFindsItsOwnMessages_data()
{
    QTest::addColumn<QString>("text");
    for (const char *text :
         {"lines", "length 1 big", "length 2 big", "length 2 little", "length 4 big",
          "length 4 little all", "length 1 big all", "fixed 300", "marks 02 03 10"})
        QTest::newRow(text) << QString::fromLatin1(text);
}

void tst_HostcheckParts::framingFindsItsOwnMessages()
{
    QFETCH(QString, text);
    const auto framing = Framing::read(text);
    QVERIFY(framing);
    for (const qsizetype size : {0, 1, 2, 200}) {
        QByteArray content;
        for (qsizetype i = 0; i < size; ++i)
            content += static_cast<char>(i);
        const QByteArray message = framing->wrap(content);
        const QByteArray stream = message + framing->wrap("next");
        for (qsizetype there = 0; there <= stream.size(); ++there)
            QCOMPARE(framing->next(QByteArrayView(stream).first(there)),
                     there < message.size() ? 0 : message.size());
        if (text == QLatin1String("lines"))
            content.replace('\n', ' ');
        if (!text.startsWith(QLatin1String("fixed")))
            QCOMPARE(framing->content(message), content);
    }
}

void tst_HostcheckParts::framingReadsGivenMessage_data()
{
    QTest::addColumn<QString>("text");
    QTest::addColumn<QByteArray>("stream");
    QTest::addColumn<int>("length");
    QTest::addColumn<QByteArray>("content");
    const auto row = [](const char *text, const QByteArray &hex, int length,
                        const QByteArray &content) {
        QTest::addRow("%s %s", text, hex.constData())
                << QString::fromLatin1(text) << QByteArray::fromHex(hex) << length << content;
    };
    row("lines", "61 0d 0a 62", 3, "a");
    row("length 1 big", "02 61 62 63", 3, "ab");
    row("length 2 big", "00 01 61 62", 3, "a");
    row("length 2 little", "01 00 61 62", 3, "a");
    row("length 2 big all", "00 03 61 62", 3, "a");
    row("length 4 little", "01 00 00 00 61 62", 5, "a");
    row("length 2 big all", "00 01 61 62", 0, ""); // shorter than its count
    row("fixed 2", "61 62 63", 2, "ab");
    row("marks 02 03 10", "02 61 10 03 62 03 02", 6, "a\3b");
    row("marks 02 03 10", "61 02 03", 0, ""); // does not begin with the start
}

void tst_HostcheckParts::framingReadsGivenMessage()
{
    QFETCH(QString, text);
    QFETCH(QByteArray, stream);
    QFETCH(int, length);
    QFETCH(QByteArray, content);
    const auto framing = Framing::read(text);
    QVERIFY(framing);
    QCOMPARE(framing->next(stream), length);
    if (length > 0)
        QCOMPARE(framing->content(stream.first(length)), content);
}

void tst_HostcheckParts::framingIsRefused_data()
{
    QTest::addColumn<QString>("text");
    for (const char *text :
         {"", "line", "lines 2", "length", "length 3 big", "length 2", "length 2 odd",
          "length 2 big some", "length 2 big all more", "fixed", "fixed 0", "fixed x",
          "marks 02 03", "marks 02 02 10", "marks 02 03 zz", "marks 102 03 10", "marks +2 03 10"})
        QTest::newRow(text) << QString::fromLatin1(text);
}

void tst_HostcheckParts::framingIsRefused()
{
    QFETCH(QString, text);
    QVERIFY(!Framing::read(text));
}

void tst_HostcheckParts::descriptionIsRead()
{
    const hostchecktest::Files files;
    TrafficReader reader;
    const Traffic traffic = reader.readDescription(
            files.write(QStringLiteral("t"),
                        "# two and ten\nframing length 1 big\n\ntext a b\nhex 00 ff\n"
                        "messages 10 3-5\n"));
    QCOMPARE(reader.error, QString());
    QVERIFY(traffic.bytes.startsWith(QByteArray("\3a b\2\0\xff", 7)));
    QCOMPARE(traffic.ends.size(), 12U);
    QCOMPARE(traffic.ends.at(0), 4);
    QCOMPARE(traffic.ends.at(1), 7);
    QCOMPARE(traffic.ends.at(2), 13); // the longest one first
    QCOMPARE(traffic.ends.at(3), 17);
    QCOMPARE(traffic.ends.back(), traffic.bytes.size());
}

void tst_HostcheckParts::descriptionIsRefused_data()
{
    QTest::addColumn<QByteArray>("text");
    QTest::addColumn<QString>("error");
    QTest::newRow("empty") << QByteArray() << QStringLiteral("no framing");
    QTest::newRow("framing too late")
            << QByteArray("text a\nframing lines") << QStringLiteral("has to come first");
    QTest::newRow("no framing") << QByteArray("framing odd") << QStringLiteral("framing odd");
    QTest::newRow("word") << QByteArray("framing lines\nmessage 1")
                          << QStringLiteral("not understood: message 1");
    for (const char *text : {"0 1", "1", "1 a", "1 3-2", "1 1-2-3", "x 1", "1 -1", "1 2 3"})
        QTest::addRow("messages %s", text) << QByteArray("framing lines\nmessages ") + text
                                           << QStringLiteral("not COUNT SIZE");
    QTest::newRow("too much") << QByteArray("framing lines\nmessages 1000 0-1048576")
                              << QStringLiteral("more than 256 MiB: 1000 0-1048576");
}

void tst_HostcheckParts::descriptionIsRefused()
{
    QFETCH(QByteArray, text);
    QFETCH(QString, error);
    const hostchecktest::Files files;
    TrafficReader reader;
    reader.readDescription(files.write(QStringLiteral("t"), text));
    QVERIFY2(reader.error.contains(error), qPrintable(reader.error));
}

void tst_HostcheckParts::shrinkLeavesWhatIsNeeded()
{
    const QByteArray input =
            QByteArray(500, 'x') + 'a' + QByteArray(300, 'y') + 'b' + QByteArray(100, 'z');
    int asked = 0;
    const auto shows = [&asked](const QByteArray &bytes) {
        ++asked;
        return bytes.contains('a') && bytes.indexOf('b') > bytes.indexOf('a');
    };
    QCOMPARE(shrink(input, shows, 1000), QByteArray("ab"));
    QVERIFY(asked < 200);
    QVERIFY(shrink(input, shows, 3).size() < input.size()); // not all, but what was found so far
}

void tst_HostcheckParts::junitFileTakesAnyText()
{
    const hostchecktest::Files files;
    Verdict verdict;
    verdict.result = Verdict::Failed;
    constexpr char16_t Units[] = {0x1, 0xfffe, 0xffff, 0xdc00, 0xd83d, 0xde00, 0xd800};
    for (const char16_t unit : Units)
        verdict.detail += QChar(unit);
    Report report(QStringLiteral("suite"));
    report.add(verdict);
    const QString name = files.path(QStringLiteral("junit.xml"));
    QVERIFY(report.writeJunit(name));

    QFile file(name);
    QVERIFY(file.open(QIODevice::ReadOnly));
    QXmlStreamReader xml(&file);
    QString message;
    while (!xml.atEnd()) {
        if (xml.readNext() == QXmlStreamReader::StartElement
            && xml.name() == QLatin1String("failure"))
            message = xml.attributes().value(QLatin1String("message")).toString();
    }
    QVERIFY2(!xml.hasError(), qPrintable(xml.errorString()));
    QCOMPARE(message, QStringLiteral(u"????\U0001f600?"));
}

QTEST_GUILESS_MAIN(tst_HostcheckParts)
#include "tst_hostcheckparts.moc"
