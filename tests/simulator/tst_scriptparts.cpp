// SPDX-FileCopyrightText: the tcpinputplugin2 authors
// SPDX-License-Identifier: MIT

#include "simulator/scriptreader.h"

#include <QtCore/QBuffer>
#include <QtTest/QTest>

using namespace simulator;
using Step = Script::Step;

namespace {

constexpr int MostSteps = 20;

// The steps as they are played, at most MostSteps of them.
QByteArray played(const Script &script)
{
    ScriptCursor cursor(script);
    QByteArrayList steps;
    while (const Step *step = cursor.next()) {
        const QByteArray names[] = {"send",  "pause", "",           "",
                                    "close", "reset", "half-close", "wait-close"};
        QByteArray text = names[step->kind];
        if (step->kind == Step::Send)
            text = (step->isFramed ? "" : "raw ") + step->message.payload({});
        else if (step->ms >= 0)
            text += ' ' + QByteArray::number(step->ms);
        steps += text;
        if (steps.size() == MostSteps)
            break;
    }
    return steps.join(", ");
}

} // namespace

// Scripts: how they are read, and in which order their steps are played.
class tst_ScriptParts : public QObject
{
    Q_OBJECT

private Q_SLOTS:
    void plays_data();
    void plays();
    void readsLongLines();
    void peeks();
    void refuses_data();
    void refuses();
    void refusesWhatDoesNotFit();
};

void tst_ScriptParts::plays_data()
{
    QTest::addColumn<QByteArray>("text");
    QTest::addColumn<QByteArray>("steps");
    const auto row = [](const char *name, const char *text, const char *steps) {
        QTest::newRow(name) << QByteArray(text) << QByteArray(steps);
    };
    row("sends", "send one\n  send  two \n\n# send three\r\n\tsend-raw \\x41\r\nsend\n",
        "one,  two , raw A, ");
    row("tabs", "\tsend\t\ta\t\n \t\n\t# send b", "\ta\t");
    row("bytes that are not UTF-8", "# \xe4\nsend \xe4x\nsend-raw \xff", "\xe4x, raw \xff");
    row("after a byte order mark", "\xef\xbb\xbfsend a", "a");
    row("pauses", "pause 200ms\npause 1.5s\npause 2min\npause 1h\npause 0s",
        "pause 200, pause 1500, pause 120000, pause 3600000, pause 0");
    row("ends", "close\nreset\nwait-close\nwait-close 5s\nhalf-close",
        "close, reset, wait-close, wait-close 5000, half-close");
    row("half-close with a limit", "half-close\nwait-close 2s\nsend a", "half-close 2000, a");
    row("half-close without a limit", "half-close\n# for ever\nwait-close\nsend a",
        "half-close, a");
    row("repeats", "repeat 2\nsend a\nrepeat 3\nsend b\nend\nend\nsend c",
        "a, b, b, b, a, b, b, b, c");
    row("for ever", "send a\nrepeat\nsend b\npause 1s\nend",
        "a, b, pause 1000, b, pause 1000, b, pause 1000, b, pause 1000, b, pause 1000, b, pause "
        "1000,"
        " b, pause 1000, b, pause 1000, b, pause 1000, b");
}

void tst_ScriptParts::plays()
{
    QFETCH(QByteArray, text);
    QFETCH(const QByteArray, steps);
    QBuffer buffer(&text);
    QVERIFY(buffer.open(QIODevice::ReadOnly));
    ScriptReader reader({});
    const auto script = reader.read(buffer, QStringLiteral("f"));
    QVERIFY2(script, qPrintable(reader.errorString()));
    QCOMPARE(played(*script), steps);
}

void tst_ScriptParts::readsLongLines()
{
    const QByteArray payload(5'000'000, 'a');
    QByteArray text = "send " + payload;
    QBuffer buffer(&text);
    QVERIFY(buffer.open(QIODevice::ReadOnly));
    ScriptReader reader({});
    const auto script = reader.read(buffer, QStringLiteral("f"));
    QVERIFY2(script, qPrintable(reader.errorString()));
    QCOMPARE(script->steps.size(), 1);
    QVERIFY(script->steps.first().message.payload({}) == payload);
}

void tst_ScriptParts::peeks()
{
    QByteArray text("repeat 2\nclose\nend");
    QBuffer buffer(&text);
    QVERIFY(buffer.open(QIODevice::ReadOnly));
    ScriptReader reader({});
    const auto script = reader.read(buffer, QStringLiteral("f"));
    QVERIFY2(script, qPrintable(reader.errorString()));
    ScriptCursor cursor(*script);
    QVERIFY(cursor.peek());
    QVERIFY(cursor.next());
    QVERIFY(cursor.peek());
    QVERIFY(cursor.peek());
    QVERIFY(cursor.next());
    QVERIFY(!cursor.peek());
    QVERIFY(!cursor.next());
}

void tst_ScriptParts::refuses_data()
{
    QTest::addColumn<QByteArray>("text");
    QTest::addColumn<QByteArray>("complaint");
    const auto row = [](const char *text, const char *complaint) {
        QTest::newRow(QByteArray(text).replace('\n', " / ").constData())
                << QByteArray(text) << QByteArray(complaint);
    };
    row("", "f: there is no step in it");
    row("# only this", "f: there is no step in it");
    row("send a\n\nsned b", "f, line 3: unknown step: sned; there are send, send-raw, ");
    row("send a\nsend\fb", "f, line 2: unknown step: send\fb; there are ");
    row("send a\nsend\rb", "f, line 2: unknown step: send\rb; there are ");
    row("send a\nsen\xe4 b", "f, line 2: unknown step: sen\xef\xbf\xbd; there are ");
    row("send {devise}", "f, line 1: {devise}: unknown placeholder; ");
    row("send {line}", "f, line 1: {line} has no meaning in a script");
    row("send \\q", "f, line 1: unknown escape: \\q; ");
    row("send-raw", "f, line 1: send-raw wants bytes to send");
    row("pause", "f, line 1: pause wants a time up to a day, as ");
    row("pause 5", "f, line 1: pause wants a time");
    row("pause -5s", "f, line 1: pause wants a time");
    row("pause 25h", "f, line 1: pause wants a time");
    row("repeat 0\nsend a\nend", "f, line 1: repeat wants a number from 1, or nothing for ever");
    row("repeat x", "f, line 1: repeat wants a number");
    row("repeat\nsend a", "f, line 1: repeat without its end");
    row("repeat\nrepeat 2\nsend a\nend", "f, line 1: repeat without its end");
    row("send a\nend", "f, line 2: end without repeat");
    row("repeat 2\nsend a\nend 2", "f, line 3: nothing may be behind end");
    row("repeat\npause 1s\nend", "f, line 3: this repeat sends nothing and ends no connection");
    row("close now", "f, line 1: nothing may be behind this step");
    row("half-close\nclose", "f, line 2: half-close has ended the connection; wait-close TIME ");
    row("wait-close x", "f, line 1: wait-close wants nothing, or a time up to a day, as 10s");
}

void tst_ScriptParts::refuses()
{
    QFETCH(QByteArray, text);
    QFETCH(const QByteArray, complaint);
    QBuffer buffer(&text);
    QVERIFY(buffer.open(QIODevice::ReadOnly));
    ScriptReader reader({});
    QVERIFY(!reader.read(buffer, QStringLiteral("f")));
    QVERIFY2(reader.errorString().toUtf8().startsWith(complaint), qPrintable(reader.errorString()));
}

// What a placeholder stands for is not known before it is sent.
void tst_ScriptParts::refusesWhatDoesNotFit()
{
    QByteArray text("send ab\nsend {letters:3}\nsend-raw abc\nsend abc\n");
    QBuffer buffer(&text);
    QVERIFY(buffer.open(QIODevice::ReadOnly));
    ScriptReader reader(*Framing::read(QStringLiteral("fixed 2")));
    QVERIFY(!reader.read(buffer, QStringLiteral("f")));
    QCOMPARE(reader.errorString(), QStringLiteral("f, line 4: 3 bytes do not fit the framing"));
}

QTEST_GUILESS_MAIN(tst_ScriptParts)
#include "tst_scriptparts.moc"
