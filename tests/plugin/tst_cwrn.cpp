// SPDX-FileCopyrightText: the tcpinputplugin2 authors
// SPDX-License-Identifier: MIT

#include "plugin/cwrn.h"
#include "tests/kit/hangguard.h"
#include "tests/kit/messagecapture.h"

#include <QtCore/QProcess>
#include <QtCore/QRandomGenerator>
#include <QtCore/QRegularExpression>
#include <QtCore/QThread>
#include <QtTest/QTest>

#include <sys/resource.h>

#include <cstdio>
#include <limits>
#include <memory>
#include <type_traits>
#include <vector>

namespace {

constexpr qsizetype TimeLength = 12; // hh:mm:ss.zzz
constexpr int MsPerDay = 24 * 60 * 60 * 1000;
const char *const FatalArgument = "--write-fatal-line";

static_assert(!std::is_polymorphic_v<CWRN>);
static_assert(sizeof(CWRN) == sizeof(QString), "the message is the only member");

void replaceNext(QString &message, const QString &value)
{
    message = message.arg(value, 0, QLatin1Char(' '));
}

template<class Integer>
std::enable_if_t<std::is_integral_v<Integer>> replaceNext(QString &message, Integer value)
{
    if constexpr (std::is_same_v<Integer, unsigned short>)
        message = message.arg(qulonglong(value), 0, 10, QLatin1Char(' '));
    else
        message = message.arg(qlonglong(value), 0, 10, QLatin1Char(' '));
}

// Writes the expected line without CWRN: the same time, then the message, on a debug stream.
template<class... Args>
void writeReference(const QString &time, QtMsgType level, QString message, const Args &...args)
{
    (replaceNext(message, args), ...);
    QDebug(level).noquote() << time << message;
}

QString textOf(const QList<CapturedMessage> &messages)
{
    QString text;
    for (const CapturedMessage &message : messages)
        text += QStringLiteral("%1 \"%2\" %3\n")
                        .arg(int(message.level))
                        .arg(message.text, message.contextIsEmpty ? u"" : u"context");
    return text;
}

// The text of the line that CWRN wrote, without time and blank. All messages that were written must
// equal the reference's messages.
template<class... Args>
QString written(QtMsgType level, const QString &format, Args &&...args)
{
    const MessageCapture capture;
    const CWRN line(level, format, std::forward<Args>(args)...);
    Q_UNUSED(line)
    const QList<CapturedMessage> actual = MessageCapture::take();
    if (actual.isEmpty())
        return QStringLiteral("nothing was written");

    writeReference(actual.last().text.left(TimeLength), level, format, args...);
    const QList<CapturedMessage> expected = MessageCapture::take();
    if (actual != expected)
        return QStringLiteral("differs:\n%1from\n%2").arg(textOf(actual), textOf(expected));
    return actual.last().text.mid(TimeLength + 1);
}

// Runs in its own process, because a fatal line ends the process.
int writeFatalLine()
{
    const rlimit none{0, 0};
    setrlimit(RLIMIT_CORE, &none);
    qInstallMessageHandler([](QtMsgType level, const QMessageLogContext &, const QString &text) {
        std::fprintf(stderr, "%d %s\n", int(level), qUtf8Printable(text));
        std::fflush(stderr);
    });
    CWRN(QtFatalMsg, QStringLiteral("end of %1"), QStringLiteral("everything"));
    return 0;
}

} // namespace

class tst_Cwrn : public QObject
{
    Q_OBJECT

private Q_SLOTS:
    void levels_data();
    void levels();
    void fatalLevel();

    void withoutArgumentsTheFormatIsUnchanged();
    void everyArgumentList();
    void argumentsKeepTheirValue();
    void laterArgumentsFillWhatEarlierOnesBroughtIn();
    void integerLimits();
    void markers_data();
    void markers();
    void surplusArguments();
    void emptyMessage();
    void textIsNeitherQuotedNorEscaped_data();
    void textIsNeitherQuotedNorEscaped();
    void randomFormats();

    void timeIsTheLocalTime();
    void manyThreads();
};

void tst_Cwrn::levels_data()
{
    QTest::addColumn<QtMsgType>("level");
    QTest::newRow("debug") << QtDebugMsg;
    QTest::newRow("info") << QtInfoMsg;
    QTest::newRow("warning") << QtWarningMsg;
    QTest::newRow("critical") << QtCriticalMsg;
}

void tst_Cwrn::levels()
{
    QFETCH(QtMsgType, level);
    const MessageCapture capture;

    CWRN(level, QStringLiteral("port %1"), 7446);

    const QList<CapturedMessage> messages = MessageCapture::take();
    QCOMPARE(messages.size(), 1);
    QCOMPARE(messages[0].level, level);
    QVERIFY(messages[0].contextIsEmpty);
    QCOMPARE(messages[0].text.mid(TimeLength), QStringLiteral(" port 7446"));
}

void tst_Cwrn::fatalLevel()
{
    QProcess child;
    child.start(QCoreApplication::applicationFilePath(), {QString::fromLatin1(FatalArgument)});
    QVERIFY(child.waitForFinished(HangGuardMs));
    QCOMPARE(child.exitStatus(), QProcess::CrashExit);

    const QString text = QString::fromUtf8(child.readAllStandardError());
    const QRegularExpression line(
            QStringLiteral("^%1 \\d\\d:\\d\\d:\\d\\d\\.\\d{3} end of everything$")
                    .arg(int(QtFatalMsg)),
            QRegularExpression::MultilineOption);
    QVERIFY2(line.match(text).hasMatch(), qUtf8Printable(text));
}

void tst_Cwrn::withoutArgumentsTheFormatIsUnchanged()
{
    QCOMPARE(written(QtInfoMsg, QStringLiteral("nothing to fill in")),
             QStringLiteral("nothing to fill in"));
    QCOMPARE(written(QtInfoMsg, QStringLiteral("%1 of %2, 100%")),
             QStringLiteral("%1 of %2, 100%"));
}

// Every combination of argument types that the library uses, with the same value categories.
void tst_Cwrn::everyArgumentList()
{
    QString s = QStringLiteral("in1");
    const QString cs = QStringLiteral("const");
    const auto temporary = [] { return QStringLiteral("temporary"); };
    int i = -3;
    long l = 44;
    long long ll = 1LL << 40;
    long long ll2 = -(1LL << 40);
    const unsigned short us = 65535;
    const QString one = QStringLiteral("a %1.");
    const QString two = QStringLiteral("a %1 b %2.");
    const QString three = QStringLiteral("a %1 b %2 c %3.");
    const QString four = QStringLiteral("a %1 b %2 c %3 d %4.");

    QCOMPARE(written(QtDebugMsg, one, s), QStringLiteral("a in1."));
    QCOMPARE(written(QtDebugMsg, one, ll), QStringLiteral("a 1099511627776."));
    QCOMPARE(written(QtDebugMsg, one, 44L), QStringLiteral("a 44."));
    QCOMPARE(written(QtDebugMsg, two, s, i), QStringLiteral("a in1 b -3."));
    QCOMPARE(written(QtDebugMsg, two, s, 44L), QStringLiteral("a in1 b 44."));
    QCOMPARE(written(QtDebugMsg, two, s, temporary()), QStringLiteral("a in1 b temporary."));
    QCOMPARE(written(QtDebugMsg, two, i, -1LL), QStringLiteral("a -3 b -1."));
    QCOMPARE(written(QtDebugMsg, three, s, ll, ll2),
             QStringLiteral("a in1 b 1099511627776 c -1099511627776."));
    QCOMPARE(written(QtDebugMsg, three, s, temporary(), i),
             QStringLiteral("a in1 b temporary c -3."));
    QCOMPARE(written(QtDebugMsg, three, 1LL, 2LL, s), QStringLiteral("a 1 b 2 c in1."));
    QCOMPARE(written(QtDebugMsg, three, cs, 3LL, 4L), QStringLiteral("a const b 3 c 4."));
    QCOMPARE(written(QtDebugMsg, four, temporary(), us, temporary(), static_cast<ushort>(80)),
             QStringLiteral("a temporary b 65535 c temporary d 80."));

    QCOMPARE(written(QtDebugMsg, one, l), QStringLiteral("a 44."));
    QCOMPARE(written(QtDebugMsg, one, cs), QStringLiteral("a const."));
}

void tst_Cwrn::argumentsKeepTheirValue()
{
    QString format = QStringLiteral("%1 and %2");
    QString text = QStringLiteral("text");
    long long number = 5;

    written(QtDebugMsg, format, text, number);

    QCOMPARE(format, QStringLiteral("%1 and %2"));
    QCOMPARE(text, QStringLiteral("text"));
    QCOMPARE(number, 5);
}

void tst_Cwrn::laterArgumentsFillWhatEarlierOnesBroughtIn()
{
    QCOMPARE(written(QtDebugMsg, QStringLiteral("id %1."), QStringLiteral("<%2>"),
                     QStringLiteral("later")),
             QStringLiteral("id <later>."));
    QCOMPARE(written(QtDebugMsg, QStringLiteral("id %1, n %2."), QStringLiteral("<%2>"), 7),
             QStringLiteral("id <7>, n 7."));
    // The lowest marker is replaced first, even if it came with an argument.
    QCOMPARE(written(QtDebugMsg, QStringLiteral("%2 %3"), QStringLiteral("%1"), QStringLiteral("x"),
                     QStringLiteral("y")),
             QStringLiteral("x y"));
}

void tst_Cwrn::integerLimits()
{
    const QString format = QStringLiteral("%1");
    const auto check = [&](auto value, const char *expected) {
        QCOMPARE(written(QtDebugMsg, format, value), QString::fromLatin1(expected));
    };
    check(std::numeric_limits<unsigned short>::max(), "65535");
    check(static_cast<unsigned short>(0), "0");
    check(std::numeric_limits<int>::min(), "-2147483648");
    check(std::numeric_limits<int>::max(), "2147483647");
    check(-1LL, "-1");
    check(std::numeric_limits<long long>::min(), "-9223372036854775808");
    check(std::numeric_limits<long long>::max(), "9223372036854775807");
    check(0L, "0");
}

void tst_Cwrn::markers_data()
{
    QTest::addColumn<QString>("format");
    QTest::addColumn<QString>("expected"); // for the arguments "A", 12345, "C"
    const auto row = [](const char *format, const char *expected) {
        QTest::newRow(format) << QString::fromLatin1(format) << QString::fromLatin1(expected);
    };
    row("%1 %2 %3", "A 12345 C");
    row("%3 %1 %2", "C A 12345");
    row("%1%1%2%3%3", "AA12345CC");
    row("%5 %10 %99", "A 12345 C");
    row("%100 %2 %3", "C0 A 12345"); // a marker has at most two digits
    row("%%1 %2% %3%%", "%A 12345% C%%");
    row("%0 %1 %2", "A 12345 C");
    row("%x % 1 %1 %2 %3 %", "%x % 1 A 12345 C %");
    row("%L1 %L2 %L3", "A 12,345 C");
    row("%1 %L2 %2 %3", "A 12,345 12345 C");
    row("%01 %1 %2 %3", "A A 12345 C");
}

void tst_Cwrn::markers()
{
    QFETCH(QString, format);
    QFETCH(QString, expected);
    // %L uses the default locale's group separators, in CWRN and in the reference.
    const QLocale before;
    QLocale::setDefault(QLocale(QLocale::English, QLocale::UnitedStates));
    const QString text =
            written(QtInfoMsg, format, QStringLiteral("A"), 12345, QStringLiteral("C"));
    QLocale::setDefault(before);
    QCOMPARE(text, expected);
}

// Qt itself warns of each argument without a marker. The text does not change.
void tst_Cwrn::surplusArguments()
{
    QString id = QStringLiteral("tcp");
    {
        const MessageCapture capture;
        CWRN(QtInfoMsg, QStringLiteral("id %1"), id, 5, QStringLiteral("more"));

        const QList<CapturedMessage> messages = MessageCapture::take();
        QCOMPARE(messages.size(), 3);
        for (int i = 0; i < 2; ++i) {
            QCOMPARE(messages[i].level, QtWarningMsg);
            QVERIFY(messages[i].text.startsWith(QStringLiteral("QString::arg: Argument missing:")));
            QVERIFY(messages[i].text.contains(QStringLiteral("id tcp")));
        }
        QVERIFY(messages[0].text.contains(QLatin1Char('5')));
        QVERIFY(messages[1].text.contains(QStringLiteral("more")));
        QCOMPARE(messages[2].level, QtInfoMsg);
        QCOMPARE(messages[2].text.mid(TimeLength), QStringLiteral(" id tcp"));
    }
    QCOMPARE(written(QtInfoMsg, QStringLiteral("no marker"), 1, id), QStringLiteral("no marker"));
}

void tst_Cwrn::emptyMessage()
{
    QCOMPARE(written(QtInfoMsg, QString()).trimmed(), QString());
    QCOMPARE(written(QtInfoMsg, QStringLiteral("")).trimmed(), QString());
    QCOMPARE(written(QtInfoMsg, QStringLiteral("%1"), QString()).trimmed(), QString());
}

void tst_Cwrn::textIsNeitherQuotedNorEscaped_data()
{
    QTest::addColumn<QString>("text");
    QTest::newRow("quotes") << QStringLiteral("say \"hello\" 'there' \\n \\");
    QTest::newRow("latin1") << QStringLiteral(u"gr\u00fc\u00df Gott");
    QTest::newRow("beyond latin1") << QStringLiteral(u"\u65e5\u672c \u20ac");
    QTest::newRow("beyond 16 bits") << QStringLiteral(u"\U0001F600");
    QTest::newRow("lone surrogate") << QString(QChar(0xD800));
    QTest::newRow("line ends") << QStringLiteral("one\r\ntwo\n");
    QTest::newRow("tab and control characters") << QStringLiteral("\ta\x01\x7f");
    QTest::newRow("zero character") << QString(QChar(0)) + QStringLiteral("after");
    QTest::newRow("blanks at both ends") << QStringLiteral("  in the middle  ");
    QTest::newRow("one blank") << QStringLiteral(" ");
    QTest::newRow("long") << QString(100000, QLatin1Char('x'));
}

void tst_Cwrn::textIsNeitherQuotedNorEscaped()
{
    QFETCH(QString, text);
    QCOMPARE(written(QtWarningMsg, text), text);
    QCOMPARE(written(QtWarningMsg, QStringLiteral("[%1]"), text),
             QLatin1Char('[') + text + QLatin1Char(']'));
}

// Formats and arguments are made from a small alphabet, so that markers are frequent.
void tst_Cwrn::randomFormats()
{
    QRandomGenerator random(20240607);
    const auto text = [&random](int maximum) {
        static const QStringList pieces{
                QStringLiteral("%"),  QStringLiteral("%1"), QStringLiteral("%2"),
                QStringLiteral("%3"), QStringLiteral("%L"), QStringLiteral("%12"),
                QStringLiteral("1"),  QStringLiteral("0"),  QStringLiteral("L"),
                QStringLiteral(" "),  QStringLiteral("a"),  QStringLiteral("\""),
        };
        QString result;
        for (int i = random.bounded(maximum + 1); i > 0; --i)
            result += pieces[random.bounded(int(pieces.size()))];
        return result;
    };
    for (int i = 0; i < 5000; ++i) {
        const QString format = text(8);
        QString first = text(3);
        const QString second = text(2);
        const auto number = static_cast<long long>(random.generate64());
        const auto port = static_cast<unsigned short>(random.generate());
        QString result;
        switch (random.bounded(4)) {
        case 0:
            result = written(QtDebugMsg, format);
            break;
        case 1:
            result = written(QtDebugMsg, format, first, number);
            break;
        case 2:
            result = written(QtDebugMsg, format, number, second, first);
            break;
        default:
            result = written(QtDebugMsg, format, first, port, second, port);
            break;
        }
        QVERIFY2(!result.startsWith(QStringLiteral("differs")), qUtf8Printable(result));
    }
}

void tst_Cwrn::timeIsTheLocalTime()
{
    const MessageCapture capture;
    const QTime before = QTime::currentTime();
    CWRN(QtDebugMsg, QStringLiteral("now"));
    const QTime after = QTime::currentTime();

    const QString text = MessageCapture::take().value(0).text;
    const QRegularExpression form(
            QStringLiteral("^([01]\\d|2[0-3]):[0-5]\\d:[0-5]\\d\\.\\d\\d\\d now$"));
    QVERIFY2(form.match(text).hasMatch(), qUtf8Printable(text));

    const QTime time = QTime::fromString(text.left(TimeLength), QStringLiteral("hh:mm:ss.zzz"));
    const auto passed = [&](const QTime &end) {
        return (before.msecsTo(end) + MsPerDay) % MsPerDay; // also correct over midnight
    };
    QVERIFY2(passed(time) <= passed(after), qUtf8Printable(text));
}

void tst_Cwrn::manyThreads()
{
    constexpr int Threads = 8;
    constexpr int Lines = 1000;
    const MessageCapture capture;
    std::vector<std::unique_ptr<QThread>> threads;
    for (int t = 0; t < Threads; ++t) {
        threads.emplace_back(QThread::create([t] {
            for (int i = 0; i < Lines; ++i)
                CWRN(QtInfoMsg, QStringLiteral("thread %1 line %2"), t, i);
        }));
        threads.back()->start();
    }
    for (const auto &thread : threads)
        QVERIFY(thread->wait());

    const QList<CapturedMessage> messages = MessageCapture::take();
    QCOMPARE(messages.size(), Threads * Lines);
    const QRegularExpression form(
            QStringLiteral("^\\d\\d:\\d\\d:\\d\\d\\.\\d{3} thread (\\d) line (\\d+)$"));
    QList<int> next(Threads, 0); // each thread's lines are complete and in order
    for (const CapturedMessage &message : messages) {
        const QRegularExpressionMatch match = form.match(message.text);
        QVERIFY2(match.hasMatch(), qUtf8Printable(message.text));
        QCOMPARE(message.level, QtInfoMsg);
        QVERIFY(message.contextIsEmpty);
        QCOMPARE(match.captured(2).toInt(), next[match.captured(1).toInt()]++);
    }
}

int main(int argc, char *argv[])
{
    if (argc > 1 && qstrcmp(argv[1], FatalArgument) == 0)
        return writeFatalLine();

    QCoreApplication application(argc, argv);
    tst_Cwrn test;
    return QTest::qExec(&test, argc, argv);
}

#include "tst_cwrn.moc"
