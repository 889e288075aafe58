// SPDX-FileCopyrightText: the tcpinputplugin2 authors
// SPDX-License-Identifier: MIT

#include "host/harmless.h"
#include "host/loglimit.h"

#include <QtCore/QJsonDocument>
#include <QtCore/QJsonObject>
#include <QtTest/QtTest>

using namespace host;
using namespace Qt::StringLiterals;

//! What becomes of log lines before they are written.
class tst_LogLimit : public QObject
{
    Q_OBJECT

private Q_SLOTS:
    void floodHidesNoOther();
    void kindsShareTheMinute();
    void manyKindsTakeBoundedMemory();
    void harmlessTexts_data();
    void harmlessTexts();
    void jsonKeepsTheText();
};

void tst_LogLimit::floodHidesNoOther()
{
    LogLimit limit;
    int written = 0;
    for (int n = 0; n < 5000; ++n)
        written += limit.allows(u"12:00:00.%1 client %2: msgsize = 4096"_s.arg(n).arg(n * 7));
    QCOMPARE(written, LogLimit::MostOfAKind);
    QVERIFY(limit.allows(u"12:00:00.000 something else"_s));
    QCOMPARE(limit.takeMissed(false), QStringList());
    QCOMPARE(limit.takeMissed(true),
             QStringList(u"4000 more lines like this one within a minute, not shown: "
                         "12:00:00.0 client 0: msgsize = 4096"_s));
    QVERIFY(limit.allows(u"12:00:00.0 client 0: msgsize = 4096"_s)); // the next minute
    QCOMPARE(limit.takeMissed(true), QStringList());
}

void tst_LogLimit::kindsShareTheMinute()
{
    LogLimit limit;
    int written = 0;
    for (int n = 0; n < LogLimit::MostOfAKind; ++n) {
        for (const auto &line : {u"one"_s, u"two"_s, u"three"_s})
            written += limit.allows(line);
    }
    QCOMPARE(written, LogLimit::MostLinesAMinute);
    QCOMPARE(limit.takeMissed(true),
             QStringList(u"1000 more lines of this level within a minute, not shown"_s));
}

void tst_LogLimit::manyKindsTakeBoundedMemory()
{
    LogLimit limit;
    int written = 0;
    for (char16_t n = 0; n < 20000; ++n)
        written += limit.allows(QString(QChar(n)) + u'x');
    QVERIFY(written < LogLimit::MostLinesAMinute); // most share one kind
    QCOMPARE(limit.takeMissed(true).size(), 1);
}

void tst_LogLimit::harmlessTexts_data()
{
    QTest::addColumn<QString>("text");
    QTest::addColumn<QString>("shown");
    QTest::newRow("usual") << u"a \\ \u00e4 \u4e2d \U0001f600"_s
                           << u"a \\ \u00e4 \u4e2d \U0001f600"_s;
    QTest::newRow("lines") << u"a\r\nb\tc"_s << u"a\\r\\nb\\tc"_s;
    QTest::newRow("C0") << u"\x1b[31m\x07"_s << u"\\u001b[31m\\u0007"_s;
    QTest::newRow("zero") << QString(QChar(0)) << u"\\u0000"_s;
    QTest::newRow("DEL and C1") << u"\u007f\u0085\u009b31m"_s << u"\\u007f\\u0085\\u009b31m"_s;
    QTest::newRow("bidirectional") << u"\u202etxt\u202c\u2066\u2069\u200f\u061c"_s
                                   << u"\\u202etxt\\u202c\\u2066\\u2069\\u200f\\u061c"_s;
    QTest::newRow("separators") << u"\u2028\u2029\ufeff"_s << u"\\u2028\\u2029\\ufeff"_s;
}

void tst_LogLimit::harmlessTexts()
{
    QFETCH(QString, text);
    QTEST(harmless(text), "shown");
}

void tst_LogLimit::jsonKeepsTheText()
{
    for (char32_t code = 0; code < 0x11000; ++code) {
        if (QChar::isSurrogate(code))
            continue;
        const QString text = u"x"_s + QString::fromUcs4(&code, 1) + u"y"_s;
        const QByteArray json = harmlessJson(
                QJsonDocument(QJsonObject{{u"text"_s, text}}).toJson(QJsonDocument::Compact));
        const QJsonObject read = QJsonDocument::fromJson(json).object();
        if (read.value(u"text"_s).toString() != text)
            QFAIL(qPrintable(QString::number(code, 16)));
        if (harmless(QString::fromUtf8(json)) != QString::fromUtf8(json)
            || json.contains("\xef\xbb\xbf"))
            QFAIL(qPrintable(QString::number(code, 16)));
    }
}

QTEST_GUILESS_MAIN(tst_LogLimit)
#include "tst_loglimit.moc"
